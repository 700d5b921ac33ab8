#include "Interruption.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace tool::Interruption {

namespace {

// Recursive, because registering takes it within a hold.
std::recursive_mutex &mutex() {
    static auto *instance = new std::recursive_mutex;
    return *instance;
}

std::array<std::function<void()>, kKindCount> &cleanups() {
    static auto *instance = new std::array<std::function<void()>, kKindCount>;
    return *instance;
}

bool isIgnored(int number) {
    struct sigaction action;
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t handledSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU}) {
        if (!isIgnored(number)) {
            sigaddset(&signals, number);
        }
    }
    return signals;
}

bool endsByClosedPipe = false;

// By default it is ignored, and nobody sends it to a program without sockets.
constexpr int kStopSignal = SIGURG;
// A system call may keep the worker from noticing; after that long it is cleaned up all the same.
constexpr auto kStopLimit = std::chrono::seconds(2);
constexpr auto kPollInterval = std::chrono::microseconds(200);

pthread_t worker;
std::atomic<bool> stopping = false;
std::atomic<bool> stopped = false;

extern "C" void stopForGood(int) {
    if (stopping) {
        stopped = true;
        for (;;) {
            pause();
        }
    }
}

void handleStopSignal() {
    worker = pthread_self();
    struct sigaction action = {};
    action.sa_handler = &stopForGood;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    sigaction(kStopSignal, &action, nullptr);
}

// Else it would go on making files where others have just been removed. It may hold any lock
// from now on, the allocator's and those of standard streams included.
void stopWorker() {
    stopping = true;
    const auto end = std::chrono::steady_clock::now() + kStopLimit;
    pthread_kill(worker, kStopSignal);
    while (!stopped && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kPollInterval);
    }
}

// Ends the process as the signal would have, so that a shell sees why.
[[noreturn]] void dieOf(int number) {
    std::signal(number, SIG_DFL);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, number);
    kill(getpid(), number);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    _exit(128 + number);
}

void waitForSignal() {
    const sigset_t signals = handledSignals();
    int number = 0;
    while (sigwait(&signals, &number) != 0) {
    }
    mutex().lock(); // for good; what is just being made is registered before
    stopWorker();
    for (const auto &cleanup : cleanups()) {
        if (cleanup) {
            cleanup();
        }
    }
    dieOf(number);
}

} // namespace

void Start() {
    endsByClosedPipe = !isIgnored(SIGPIPE);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    handleStopSignal();
    (void)cleanups(); // allocates
    const sigset_t signals = handledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread(&waitForSignal).detach();
}

void EndByClosedPipe() {
    if (endsByClosedPipe) {
        dieOf(SIGPIPE);
    }
}

void SetCleanup(Kind kind, std::function<void()> cleanup) {
    const std::lock_guard lock(mutex());
    cleanups()[kind] = std::move(cleanup);
}

void CleanUp() noexcept {
    const std::lock_guard lock(mutex());
    for (const auto &cleanup : cleanups()) {
        if (cleanup) {
            cleanup();
        }
    }
}

Hold::Hold() { mutex().lock(); }
Hold::~Hold() { mutex().unlock(); }

} // namespace tool::Interruption
