#include "KVLog.h"

#include "support/zk/Log.hpp"

static_assert(kKelvaneLogLevelDetail == static_cast<int>(kZLLogLevelDetail) &&
                  kKelvaneLogLevelMilestone == static_cast<int>(kZLLogLevelMilestone) &&
                  kKelvaneLogLevelBadRecord == static_cast<int>(kZLLogLevelBadRecord) &&
                  kKelvaneLogLevelError == static_cast<int>(kZLLogLevelError),
              "hosts and the log library count levels alike");

void KelvaneLogSetSink(KelvaneLogSink sink, void *context, int minimumLevel) {
    ZLLogSetSink(sink, context, minimumLevel);
}
