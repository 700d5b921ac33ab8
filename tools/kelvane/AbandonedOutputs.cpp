#include "AbandonedOutputs.hpp"

#include "Diagnostics.hpp"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {

namespace {

constexpr std::string_view kBefore = ".kelvane-";
constexpr std::string_view kAfter = ".partial";

// The process in the name of an output; 0 when it is none.
pid_t processOf(std::string_view name) {
    if (!name.starts_with(kBefore) || !name.ends_with(kAfter)) {
        return 0;
    }
    name.remove_prefix(kBefore.size());
    pid_t process = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), process);
    return error == std::errc() && process > 0 && *end == '-' ? process : 0;
}

bool isGone(pid_t process) { return kill(process, 0) != 0 && errno == ESRCH; }

bool isOurs(int directory, const char *name) {
    struct stat status;
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           status.st_uid == geteuid() && (S_ISDIR(status.st_mode) || S_ISREG(status.st_mode));
}

} // namespace

std::string PartialName(unsigned long number) {
    return std::string(kBefore) + std::to_string(getpid()) + "-" + std::to_string(number) +
           std::string(kAfter);
}

void ReportAbandonedOutputs(const std::string &directory) {
    DIR *stream = opendir(directory.c_str());
    if (stream == nullptr) {
        return;
    }
    while (const dirent *entry = readdir(stream)) {
        const pid_t process = processOf(entry->d_name);
        if (process > 0 && isGone(process) && isOurs(dirfd(stream), entry->d_name)) {
            PrintMessage("warning: '" + directory + "/" + entry->d_name +
                         "' was left unfinished by a run that was killed; it can be removed");
        }
    }
    closedir(stream);
}

} // namespace tool
