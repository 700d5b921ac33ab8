#include "Diagnostics.hpp"

#include "Interruption.hpp"
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

// Errors of the system have none of their own; the one that is made up for them says only that
// something failed, and the reason once more.
bool hasDescription(const CF::Error &error) {
    const auto info = CF::Dictionary::Adopt(CFErrorCopyUserInfo(error.get()));
    return info.GetValue(kCFErrorLocalizedDescriptionKey) != nullptr;
}

std::string describe(const CF::Error &error) {
    if (!error) {
        return "Unknown Error";
    }
    const std::string reason = error.GetFailureReason().GetUTF8();
    if (!hasDescription(error) && !reason.empty()) {
        return reason + " " + codeOf(error);
    }
    const std::string text = error.GetDescription().GetUTF8();
    return text + (reason.empty() ? "" : ": " + reason) + " " + codeOf(error);
}

std::function<void()> &beforeMessage() {
    static std::function<void()> call;
    return call;
}

void printLine(const std::string &prefix, std::string_view text) {
    // What fails because a signal already cleaned up is not worth a message.
    const Interruption::Hold hold;
    if (beforeMessage()) {
        beforeMessage()();
    }
    // Names from a backup may hold anything; a message is one line and no terminal command.
    const std::string line = prefix + EscapeControls(text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void printCauses(const CF::Error &cause) {
    for (const std::string &line : DescribeChain(cause)) {
        printLine("  caused by: ", line);
    }
}

void logToStandardError(CFStringRef, int, CFStringRef text, CFErrorRef error, void *) {
    printLine("kelvane: log: ", CF::String::GetUTF8(text));
    if (error != nullptr) {
        printCauses(CF::Error(error));
    }
}

} // namespace

void Failure::Print() const { printAfter(""); }

void Failure::PrintFor(std::string_view name) const { printAfter(std::string(name) + ": "); }

Failure Failure::Within(std::string_view name) const {
    Failure failure = *this;
    failure.prefix_ = std::string(name) + ": " + prefix_;
    return failure;
}

void Failure::printAfter(const std::string &outer) const {
    const std::string prefix = outer + prefix_;
    if (message_.empty()) {
        PrintMessage(prefix + describe(error_));
        printCauses(error_.GetUnderlying());
    } else {
        PrintMessage(prefix + message_);
        printCauses(error_);
    }
}

Failure Failure::WithStatus(int status) && {
    status_ = status;
    return std::move(*this);
}

std::vector<std::string> DescribeChain(CF::Error error) {
    std::vector<std::string> lines;
    for (int i = 0; error && i < kMaxCauses; ++i) {
        lines.push_back(describe(error));
        error = error.GetUnderlying();
    }
    return lines;
}

CF::Error FindCode(CF::Error error, CFIndex code) {
    for (int i = 0; error && i <= kMaxCauses; ++i) {
        if (CFEqual(error.GetDomain(), kKVErrorDomain) && error.GetCode() == code) {
            return error;
        }
        error = error.GetUnderlying();
    }
    return {};
}

CF::Error SystemError() {
    return CF::Error::Adopt(
        CF::Made(CFErrorCreate(kCFAllocatorDefault, kCFErrorDomainPOSIX, errno, nullptr)));
}

void SetBeforeMessage(std::function<void()> call) { beforeMessage() = std::move(call); }

void PrintOutOfMemory() noexcept { std::fputs("kelvane: out of memory\n", stderr); }

void PrintMessage(std::string_view message) { printLine("kelvane: ", message); }

bool IsPasswordError(const CF::Error &error) {
    return FindCode(error, kKVErrorPasswordRequired) ||
           FindCode(error, kKVErrorIncorrectPassword) || FindCode(error, kKVErrorNotEncrypted);
}

bool IsPasswordRequired(const CF::Error &error) {
    return static_cast<bool>(FindCode(error, kKVErrorPasswordRequired));
}

void ShowLog(int verbosity) {
    if (verbosity > 0) {
        KelvaneLogSetSink(&logToStandardError, nullptr,
                          verbosity > 1 ? kKelvaneLogLevelDetail : kKelvaneLogLevelMilestone);
    }
}

} // namespace tool
