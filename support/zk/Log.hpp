// The logging library: domains, levels, one sink. Silent until a sink is installed.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>

// A domain's identifier; the same name gives the same identifier.
using ZLLogDomainID = std::uint32_t;

// Levels of messages. Errors stand above all of them.
enum ZLLogLevel : int {
    kZLLogLevelDetail = 1,    // single steps
    kZLLogLevelMilestone = 2, // important steps completed, timings
    kZLLogLevelBadRecord = 4, // records that are skipped as bad
    kZLLogLevelError = 8      // error objects
};

// Receives one message; text and error (null for plain messages) are borrowed for
// the call. Runs on any thread that uses the library, one call at a time. What a sink
// itself causes to be logged is dropped.
using ZLLogSink = void (*)(CFStringRef domain, int level, CFStringRef text, CFErrorRef error,
                           void *context);

// Installs the sink for messages of at least the level; null removes it. Waits for a
// call of the old one that is under way on another thread, so that its context can be
// freed afterwards. Any thread.
void ZLLogSetSink(ZLLogSink sink, void *context, int minimumLevel);
// True when a message of the level would reach a sink. Cheap: ask before building
// costly arguments.
bool ZLLogIsEnabled(int level) noexcept;

ZLLogDomainID ZLLogGetIdentifierForDomain(CFStringRef name);
// Formats only when the level is enabled.
void ZLLogDomain(ZLLogDomainID domain, int level, CFStringRef format, ...);
// Records an error object, with a formatted message when format is not null, else with
// the error's description.
void ZLLogError(CFErrorRef error, ZLLogDomainID domain, CFStringRef format, ...);
