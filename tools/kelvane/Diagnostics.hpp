// Messages to standard error.
#pragma once

#include "ExitStatus.hpp"
#include "support/cf/Error.hpp"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// A failure that ends the command; main prints it.
class Failure {
  public:
    // An error of the library or the system.
    explicit Failure(CF::Error error) : error_(std::move(error)) {}
    // A failure of the tool's own, with an error that caused it or none.
    explicit Failure(std::string message, CF::Error cause = nullptr)
        : message_(std::move(message)), error_(std::move(cause)) {}

    // "kelvane: DESCRIPTION: REASON (code N)" or "kelvane: MESSAGE", then a line for each error
    // underneath.
    void Print() const;
    // The same as the failure of one of many things, which the name tells apart.
    void PrintFor(std::string_view name) const;
    int Status() const noexcept { return status_; }
    // The same failure, told of as that of the thing.
    Failure Within(std::string_view name) const;
    // Says that status is to be returned whatever the error is.
    Failure WithStatus(int status) &&;

  private:
    void printAfter(const std::string &outer) const;

    std::string prefix_;
    std::string message_;
    CF::Error error_;
    int status_ = kFailed;
};

// A line for the error and for each one underneath: "DESCRIPTION: REASON (code N)".
std::vector<std::string> DescribeChain(CF::Error error);

// The first error of the library with that code, from the given one downwards; else null.
CF::Error FindCode(CF::Error error, CFIndex code);

// The error that errno names; call it before anything can change errno.
CF::Error SystemError();

// Called before each message; for what has to leave the terminal's line first.
void SetBeforeMessage(std::function<void()> call);

// "kelvane: MESSAGE" on one line.
void PrintMessage(std::string_view message);
// Needs none itself.
void PrintOutOfMemory() noexcept;

// The password is missing, wrong, or was given for a plain backup.
bool IsPasswordError(const CF::Error &error);
// The one case in which asking for a password helps.
bool IsPasswordRequired(const CF::Error &error);

// Shows the library's log on standard error: from milestones on at verbosity 1, all of it
// from 2 on. 0 leaves it silent.
void ShowLog(int verbosity);

} // namespace tool
