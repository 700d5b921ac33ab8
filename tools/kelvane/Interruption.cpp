#include "Interruption.hpp"

#include <array>
#include <atomic>
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
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        if (!isIgnored(number)) {
            sigaddset(&signals, number);
        }
    }
    return signals;
}

bool endsByClosedPipe = false;

constexpr auto kPollInterval = std::chrono::milliseconds(2);
std::atomic<bool> atCheckpoint = false;

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
    mutex().lock(); // for good: nothing new is made from here on
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

Hold::Hold() { mutex().lock(); }
Hold::~Hold() { mutex().unlock(); }

void Checkpoint() {
    atCheckpoint = true;
    const Hold hold;
    atCheckpoint = false;
}

bool AwaitCheckpoint(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!atCheckpoint && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kPollInterval);
    }
    return atCheckpoint;
}

} // namespace tool::Interruption
