// What is cleaned up when a signal ends the process.
#pragma once

#include <chrono>
#include <functional>

namespace tool::Interruption {

// Kinds of leftovers, cleaned up in this order.
enum Kind { kTerminal, kPartialFile, kTemporaryArea, kKindCount };

// Starts a thread that waits for SIGINT, SIGTERM and SIGHUP, cleans up when one comes, and
// then lets it end the process as it would have. A thread of its own may do what a signal
// handler may not, and does it even while the main thread derives keys. Signals that the
// invoker ignores (nohup) stay ignored. Call it before any other thread starts; SIGPIPE is
// ignored from then on, writing reports it.
void Start();

// Ends the process by SIGPIPE, as it would have ended without Start. Returns when the invoker
// ignores that signal.
void EndByClosedPipe();

// Replaces the clean-up of that kind; null removes it.
void SetCleanup(Kind kind, std::function<void()> cleanup);

// While one lives, clean-up waits: for steps that make something and register it.
class Hold {
  public:
    Hold();
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;
    ~Hold();
};

// Called now and then by work that makes files: once a signal has come it does not return.
void Checkpoint();

// For clean-up: waits until the work has come to a checkpoint, and so makes nothing more, but
// no longer than that. False when it has not.
bool AwaitCheckpoint(std::chrono::milliseconds limit);

} // namespace tool::Interruption
