// Runs other programs, for oracles and for testing our own tool.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace testing_support {

struct CommandResult {
    int status = -1; // exit status; 128 + N when signal N ended the program
    std::string output;
    std::string errors;
};

namespace detail {

struct CloseFile {
    void operator()(std::FILE *file) const noexcept { std::fclose(file); }
};
using ScratchFile = std::unique_ptr<std::FILE, CloseFile>;

// Files instead of pipes: no amount of output or input can make the two sides wait
// for each other.
inline ScratchFile MakeScratchFile(std::string_view content = {}) {
    ScratchFile file(std::tmpfile());
    // An empty view may have no address, which fwrite must not be given.
    const char *const bytes = content.empty() ? "" : content.data();
    if (!file || std::fwrite(bytes, 1, content.size(), file.get()) != content.size() ||
        std::fflush(file.get()) != 0) {
        throw std::system_error(errno, std::generic_category(), "scratch file");
    }
    std::rewind(file.get());
    return file;
}

inline std::string ReadAll(std::FILE *file) {
    std::string text;
    char buffer[4096];
    std::rewind(file);
    for (std::size_t count = 0; (count = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
        text.append(buffer, count);
    }
    return text;
}

inline ::pid_t Spawn(const std::vector<std::string> &command, int in, int out, int err) {
    std::vector<char *> arguments;
    for (const std::string &argument : command) {
        arguments.push_back(const_cast<char *>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    ::posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    ::pid_t child = -1;
    const int failure =
        ::posix_spawnp(&child, arguments.at(0), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        throw std::system_error(failure, std::generic_category(), "run " + command.at(0));
    }
    return child;
}

inline int Wait(::pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace detail

// Runs a program, found on the PATH unless its name holds a slash, to its end. Throws
// std::system_error when it cannot be started.
inline CommandResult RunCommand(const std::vector<std::string> &command,
                                std::string_view input = {}) {
    const auto in = detail::MakeScratchFile(input);
    const auto out = detail::MakeScratchFile();
    const auto err = detail::MakeScratchFile();
    const ::pid_t child =
        detail::Spawn(command, ::fileno(in.get()), ::fileno(out.get()), ::fileno(err.get()));
    CommandResult result;
    result.status = detail::Wait(child);
    result.output = detail::ReadAll(out.get());
    result.errors = detail::ReadAll(err.get());
    return result;
}

// Runs a script with the system's Python, whose plistlib, hashlib, sqlite3 and
// cryptography are the oracles; arguments arrive in sys.argv[1:].
inline CommandResult RunPython(std::string_view script,
                               const std::vector<std::string> &arguments = {},
                               std::string_view input = {}) {
    std::vector<std::string> command = {"/usr/bin/python3", "-c", std::string(script)};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunCommand(command, input);
}

} // namespace testing_support
