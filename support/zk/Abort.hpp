// Ends the process on a programming error.
#pragma once

#include <stdexcept>
#include <string>

namespace ZK {

template <class Exception>
[[noreturn]] void Raise(const Exception &exception) {
    throw exception;
}

// Raises the exception from a function that lets none out, so that the process
// ends through std::terminate, which prints the exception's text.
template <class Exception>
[[noreturn]] void Abort(const Exception &exception) noexcept {
    Raise(exception);
}

// "FILE:LINE:  FUNCTION Assertion EXPRESSION failed."
inline std::string AssertionMessage(const char *file, int line, const char *function,
                                    const char *expression) {
    return std::string(file) + ":" + std::to_string(line) + ":  " + function + " Assertion " +
           expression + " failed.";
}

[[noreturn]] inline void AssertionFailed(const char *file, int line, const char *function,
                                         const char *expression) noexcept {
    Abort(std::invalid_argument(AssertionMessage(file, line, function, expression)));
}

} // namespace ZK
