// What is cleaned up when a signal ends the process.
#pragma once

#include <functional>

namespace tool::Interruption {

// Kinds of leftovers, cleaned up in this order.
enum Kind { kTerminal, kPartialFile, kTemporaryArea, kKindCount };

// Starts a thread that waits for SIGINT, SIGTERM, SIGHUP, SIGQUIT and SIGXCPU; when one comes, it
// stops the calling thread where it is, cleans up, and lets the signal end the process as it
// would have. Signals that the invoker ignores (nohup) stay ignored. Call it before any other
// thread starts; SIGPIPE and SIGXFSZ are ignored from then on, writing reports them.
void Start();

// Ends the process by SIGPIPE, as it would have ended without Start. Returns when the invoker
// ignores that signal.
void EndByClosedPipe();

// Replaces the clean-up of that kind; null removes it. It runs while the thread that called Start
// stands still wherever it is, outside of a Hold: it must not allocate memory, use standard
// streams or wait for anything.
void SetCleanup(Kind kind, std::function<void()> cleanup);

// While one lives, clean-up waits: for steps that make something and register it.
class Hold {
  public:
    Hold();
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;
    ~Hold();
};

// Runs what was set for cleaning up, on the thread that called Start, for an end that unwinds no
// stack.
void CleanUp() noexcept;

} // namespace tool::Interruption
