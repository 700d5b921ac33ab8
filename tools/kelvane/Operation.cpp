#include "Operation.hpp"

#include "Diagnostics.hpp"

#include <algorithm>
#include <array>

namespace tool {

namespace {

struct Form {
    Operation::Kind kind;
    const char *name;
    const char *arguments;
    std::size_t count;
};

constexpr std::array<Form, 4> kForms = {{
    {Operation::Kind::Put, "put", "DOMAIN PATH FILE", 3},
    {Operation::Kind::MakeDirectory, "mkdir", "DOMAIN PATH", 2},
    {Operation::Kind::Link, "link", "DOMAIN PATH TARGET", 3},
    {Operation::Kind::Remove, "rm", "DOMAIN PATH", 2},
}};

std::string quoted(const std::string &word) {
    constexpr std::string_view kHarmless = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                           "0123456789-_./+@%:,=";
    if (!word.empty() && word.find_first_not_of(kHarmless) == std::string::npos) {
        return word;
    }
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return text + "'";
}

} // namespace

Operation ParseOperation(const std::vector<std::string> &words) {
    const auto form = std::ranges::find(kForms, words.front(), &Form::name);
    if (form == kForms.end()) {
        throw Failure("'" + words.front() + "' is no operation; put, mkdir, link and rm are");
    }
    if (words.size() != form->count + 1) {
        throw Failure(std::string(form->name) + " takes " + form->arguments + ", " +
                      std::to_string(form->count) + " words, and not " +
                      std::to_string(words.size() - 1));
    }
    return {form->kind, words[1], words[2], form->count > 2 ? words[3] : "", ""};
}

std::string ToText(const Operation &operation) {
    const auto form = std::ranges::find(kForms, operation.kind, &Form::kind);
    std::string text = operation.origin.empty() ? "" : operation.origin + ": ";
    text += std::string(form->name) + " " + quoted(operation.domain) + " " + quoted(operation.path);
    return form->count > 2 ? text + " " + quoted(operation.argument) : text;
}

} // namespace tool
