#include "Kelvane/SharedState.hpp"

#include "foundation/TemporaryPathNotSet.hpp"
#include "support/zk/File.hpp"
#include "support/zk/Log.hpp"

#include <exception>
#include <type_traits>

namespace {

struct SharedState {
    std::mutex mutex;
    CF::String path; // null until it is set
    // The same in the form that file-system calls take.
    ZK::filesystem::path filesystemPath;
};

// Never destroyed: a host may release objects while the process exits, after the
// destructors of static objects have run.
SharedState &sharedState() {
    static auto *const state = new SharedState;
    return *state;
}

// With the mutex held.
const SharedState &requirePath(const SharedState &state) {
    if (!state.path) {
        throw Kelvane::TemporaryPathNotSet();
    }
    return state;
}

bool createDirectory(const ZK::filesystem::path &path) {
    try {
        ZK::file::create_private_directories(path);
        return true;
    } catch (const std::exception &) {
        return false; // the host learns of it by the result
    }
}

// A NUL would cut the path short in every file-system call.
bool isUsable(const std::string &utf8) { return utf8.find('\0') == std::string::npos; }

} // namespace

namespace Kelvane {

LogDomainID GetLogDomain() {
    static_assert(std::is_same_v<LogDomainID, ZLLogDomainID>);
    static const LogDomainID domain = ZLLogGetIdentifierForDomain(CFSTR("Kelvane"));
    return domain;
}

std::mutex &SharedMutex() { return sharedState().mutex; }

CF::String GetTemporaryPathString() {
    const SharedState &state = sharedState();
    const std::lock_guard lock(SharedMutex());
    return requirePath(state).path;
}

ZK::filesystem::path GetTemporaryPath() {
    const SharedState &state = sharedState();
    const std::lock_guard lock(SharedMutex());
    return requirePath(state).filesystemPath;
}

} // namespace Kelvane

Boolean KelvaneSetTemporaryPath(CFStringRef path) {
    SharedState &state = sharedState();
    const std::lock_guard lock(state.mutex);
    const CF::String wanted(path);
    if (wanted.IsEmpty()) {
        return false;
    }
    if (state.path) {
        return CFStringCompare(wanted.get(), state.path.get(), 0) == kCFCompareEqualTo;
    }
    const std::string utf8 = wanted.GetUTF8();
    if (!isUsable(utf8) || !createDirectory(utf8)) {
        return false;
    }
    // A copy: the caller's string may be a mutable one.
    state.path = CF::String::Adopt(CF::Made(CFStringCreateCopy(kCFAllocatorDefault, wanted.get())));
    state.filesystemPath = utf8;
    return true;
}

CFMutableStringRef KelvaneCopyTemporaryPath(void) {
    const SharedState &state = sharedState();
    const std::lock_guard lock(Kelvane::SharedMutex());
    return state.path
               ? CF::Made(CFStringCreateMutableCopy(kCFAllocatorDefault, 0, state.path.get()))
               : nullptr;
}
