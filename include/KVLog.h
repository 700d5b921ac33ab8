/* KVLog.h: what the library reports while it works.
 *
 * The library is silent until the host installs a sink. Messages are formatted only
 * when a sink wants their level, so an unused log costs next to nothing. Passwords,
 * keys and file contents are never logged; paths and file IDs are.
 */
#ifndef KVLOG_H
#define KVLOG_H

#include "KVBase.h"

/* Levels, in rising order of weight. */
enum {
    kKelvaneLogLevelDetail = 1,    /* single steps */
    kKelvaneLogLevelMilestone = 2, /* important steps completed, timings */
    kKelvaneLogLevelBadRecord = 4, /* records of a backup that are skipped as bad */
    kKelvaneLogLevelError = 8      /* error objects */
};

/* Receives one message.
 * domain: the part of the library that speaks, "Kelvane".
 * level: one of the constants above.
 * text: the message; for an error without a message of its own, the error's description.
 * error: the error object, null for plain messages.
 * context: as given when the sink was installed.
 * The objects are borrowed for the duration of the call. Calls come one at a time, on
 * whichever thread uses the library. A sink may call the library; what that would log
 * is dropped. It must not throw. */
typedef void (*KelvaneLogSink)(CFStringRef domain, int level, CFStringRef text, CFErrorRef error,
                               void *context);

/* Installs the sink for messages of at least minimumLevel, in place of the one before;
 * null removes it. When the function returns, the sink before is not running and will
 * not run again (unless it is that sink itself which calls). Any thread. */
KV_EXPORT void KelvaneLogSetSink(KelvaneLogSink sink, void *context, int minimumLevel);

#endif
