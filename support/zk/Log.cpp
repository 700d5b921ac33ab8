#include "support/zk/Log.hpp"

#include "support/cf/Error.hpp"
#include "support/cf/String.hpp"

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <limits>
#include <mutex>
#include <new>
#include <vector>

namespace {

constexpr int kNothingEnabled = std::numeric_limits<int>::max();

struct LogState {
    // Recursive, so that a sink may exchange itself.
    std::recursive_mutex sinkMutex;
    ZLLogSink sink = nullptr;
    void *context = nullptr;
    // Read without the mutex: a disabled log must cost next to nothing.
    std::atomic<int> minimumLevel{kNothingEnabled};

    std::mutex domainMutex;
    std::vector<CF::String> domains; // the identifier is the index plus 1
};

// Never destroyed: objects that log may go during exit. In memory that is always there: whether
// a level is enabled is asked when memory is out, too.
LogState &state() noexcept {
    alignas(LogState) static std::byte memory[sizeof(LogState)];
    static auto *const log = ::new (static_cast<void *>(memory)) LogState;
    return *log;
}

// True on a thread while a sink runs on it; what the sink itself provokes is dropped,
// because it would come back to it without end.
thread_local bool gDelivering = false;

class DeliveryMark {
  public:
    DeliveryMark() noexcept { gDelivering = true; }
    DeliveryMark(const DeliveryMark &) = delete;
    DeliveryMark &operator=(const DeliveryMark &) = delete;
    ~DeliveryMark() { gDelivering = false; }
};

CF::String domainName(ZLLogDomainID domain) {
    LogState &log = state();
    const std::lock_guard lock(log.domainMutex);
    return domain == 0 || domain > log.domains.size() ? CF::String("") : log.domains[domain - 1];
}

void deliver(ZLLogDomainID domain, int level, const CF::String &text, CFErrorRef error) {
    LogState &log = state();
    const CF::String name = domainName(domain);
    const std::lock_guard lock(log.sinkMutex);
    if (log.sink == nullptr || !ZLLogIsEnabled(level)) {
        return;
    }
    const DeliveryMark mark;
    log.sink(name.get(), level, text.get(), error, log.context);
}

CF::String formatted(CFStringRef format, va_list arguments) {
    return CF::String::Adopt(
        CFStringCreateWithFormatAndArguments(kCFAllocatorDefault, nullptr, format, arguments));
}

} // namespace

void ZLLogSetSink(ZLLogSink sink, void *context, int minimumLevel) {
    LogState &log = state();
    const std::lock_guard lock(log.sinkMutex);
    log.sink = sink;
    log.context = context;
    log.minimumLevel = sink == nullptr ? kNothingEnabled : minimumLevel;
}

bool ZLLogIsEnabled(int level) noexcept {
    return level >= state().minimumLevel.load(std::memory_order_relaxed);
}

ZLLogDomainID ZLLogGetIdentifierForDomain(CFStringRef name) {
    LogState &log = state();
    const CF::String wanted(name);
    const std::lock_guard lock(log.domainMutex);
    for (std::size_t i = 0; i < log.domains.size(); ++i) {
        if (log.domains[i] == wanted) {
            return static_cast<ZLLogDomainID>(i + 1);
        }
    }
    log.domains.push_back(wanted);
    return static_cast<ZLLogDomainID>(log.domains.size());
}

void ZLLogDomain(ZLLogDomainID domain, int level, CFStringRef format, ...) {
    if (!ZLLogIsEnabled(level) || gDelivering) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    const CF::String text = formatted(format, arguments);
    va_end(arguments);
    deliver(domain, level, CF::Made(text.get()), nullptr);
}

void ZLLogError(CFErrorRef error, ZLLogDomainID domain, CFStringRef format, ...) {
    if (!ZLLogIsEnabled(kZLLogLevelError) || gDelivering) {
        return;
    }
    CF::String text;
    if (format != nullptr) {
        va_list arguments;
        va_start(arguments, format);
        text = formatted(format, arguments);
        va_end(arguments);
        (void)CF::Made(text.get());
    } else {
        text = CF::Error(error).GetDescription();
    }
    deliver(domain, kZLLogLevelError, text, error);
}
