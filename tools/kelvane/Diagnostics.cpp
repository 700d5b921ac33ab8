#include "Diagnostics.hpp"

#include "ExitStatus.hpp"
#include "KVError.h"
#include "KVLog.h"
#include "Quoting.hpp"

#include <cerrno>
#include <cstdio>

namespace tool {

namespace {

// More than any chain of the library; a hostile chain cannot be endless, but may be long.
constexpr int kMaxCauses = 32;

std::string codeOf(const CF::Error &error) {
    const std::string code = std::to_string(error.GetCode());
    if (CFEqual(error.GetDomain(), kKVErrorDomain)) {
        return "(code " + code + ")";
    }
    return "(" + CF::String::GetUTF8(error.GetDomain()) + " " + code + ")";
}

std::string describe(const CF::Error &error) {
    const std::string reason = error.GetFailureReason().GetUTF8();
    std::string text = error.GetDescription().GetUTF8();
    if (!reason.empty()) {
        text += ": " + reason;
    }
    return text + " " + codeOf(error);
}

void printLine(const std::string &prefix, std::string_view text) {
    // Names from a backup may hold anything; a message is one line and no terminal command.
    const std::string line = prefix + EscapeControls(text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void printCauses(CF::Error cause) {
    for (int i = 0; cause && i < kMaxCauses; ++i) {
        printLine("  caused by: ", describe(cause));
        cause = cause.GetUnderlying();
    }
}

template <class Predicate>
bool anyInChain(CF::Error error, Predicate matches) {
    for (int i = 0; error && i <= kMaxCauses; ++i) {
        if (CFEqual(error.GetDomain(), kKVErrorDomain) && matches(error.GetCode())) {
            return true;
        }
        error = error.GetUnderlying();
    }
    return false;
}

void logToStandardError(CFStringRef, int, CFStringRef text, CFErrorRef error, void *) {
    printLine("kelvane: log: ", CF::String::GetUTF8(text));
    if (error != nullptr) {
        printCauses(CF::Error(error));
    }
}

} // namespace

void Failure::Print() const {
    if (message_.empty()) {
        PrintError(error_);
    } else {
        PrintFailure(message_, error_);
    }
}

void Failure::PrintFor(std::string_view name) const {
    PrintFailure(std::string(name) + ": " + (message_.empty() ? "failed" : message_), error_);
}

int Failure::Status() const {
    if (status_ >= 0) {
        return status_;
    }
    return IsPasswordError(error_) ? kPassword : kFailed;
}

Failure Failure::WithStatus(int status) && {
    status_ = status;
    return std::move(*this);
}

CF::Error SystemError() {
    return CF::Error::Adopt(
        CFErrorCreate(kCFAllocatorDefault, kCFErrorDomainPOSIX, errno, nullptr));
}

void PrintMessage(std::string_view message) { printLine("kelvane: ", message); }

void PrintError(const CF::Error &error) {
    if (!error) {
        PrintMessage("Unknown Error");
        return;
    }
    PrintMessage(describe(error));
    printCauses(error.GetUnderlying());
}

void PrintFailure(std::string_view message, const CF::Error &cause) {
    PrintMessage(message);
    printCauses(cause);
}

bool IsPasswordError(const CF::Error &error) {
    return anyInChain(error, [](CFIndex code) {
        return code == kKVErrorPasswordRequired || code == kKVErrorIncorrectPassword ||
               code == kKVErrorNotEncrypted;
    });
}

bool IsPasswordRequired(const CF::Error &error) {
    return anyInChain(error, [](CFIndex code) { return code == kKVErrorPasswordRequired; });
}

void ShowLog(int verbosity) {
    if (verbosity > 0) {
        KelvaneLogSetSink(&logToStandardError, nullptr,
                          verbosity > 1 ? kKelvaneLogLevelDetail : kKelvaneLogLevelMilestone);
    }
}

} // namespace tool
