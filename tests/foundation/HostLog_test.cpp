#include "KVLog.h"

#include "Kelvane/SharedState.hpp"
#include "support/cf/String.hpp"
#include "support/zk/Log.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

void remember(CFStringRef domain, int level, CFStringRef text, CFErrorRef, void *context) {
    *static_cast<std::string *>(context) =
        CF::String::GetUTF8(domain) + " " + std::to_string(level) + " " + CF::String::GetUTF8(text);
}

TEST(HostLog, ReceivesWhatTheLibraryLogs) {
    std::string last;
    KelvaneLogSetSink(&remember, &last, kKelvaneLogLevelMilestone);
    ZLLogDomain(Kelvane::GetLogDomain(), 2, CFSTR("done"));
    ZLLogDomain(Kelvane::GetLogDomain(), 1, CFSTR("step"));
    KelvaneLogSetSink(nullptr, nullptr, 0);
    EXPECT_EQ(last, "Kelvane 2 done");
}

} // namespace
