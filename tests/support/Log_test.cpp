#include "support/zk/Log.hpp"

#include "support/cf/CF.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Message {
    std::string domain;
    int level;
    std::string text;
    CFIndex errorCode;
};

// Collects what is logged while it lives.
class Log : public ::testing::Test {
  protected:
    ~Log() override { ZLLogSetSink(nullptr, nullptr, 0); }

    void listen(int minimumLevel) { ZLLogSetSink(&Log::receive, &messages, minimumLevel); }
    static void receive(CFStringRef domain, int level, CFStringRef text, CFErrorRef error,
                        void *context) {
        static_cast<std::vector<Message> *>(context)->push_back(
            {CF::String::GetUTF8(domain), level, CF::String::GetUTF8(text),
             error == nullptr ? 0 : CFErrorGetCode(error)});
    }

    const ZLLogDomainID domain = ZLLogGetIdentifierForDomain(CFSTR("Test"));
    std::vector<Message> messages;
};

CF::Error makeError(CFIndex code) {
    return CF::Error::Adopt(
        CFErrorCreate(kCFAllocatorDefault, CFSTR("Test.Errors"), code, nullptr));
}

TEST_F(Log, SameNameGivesSameIdentifier) {
    EXPECT_EQ(ZLLogGetIdentifierForDomain(CF::String("Test").get()), domain);
    EXPECT_NE(ZLLogGetIdentifierForDomain(CFSTR("Other")), domain);
}

TEST_F(Log, IsSilentWithoutASink) {
    EXPECT_FALSE(ZLLogIsEnabled(kZLLogLevelError));
    ZLLogDomain(domain, 1, CFSTR("nobody hears"));
    EXPECT_TRUE(messages.empty());
}

TEST_F(Log, DeliversFormattedMessages) {
    listen(1);
    ZLLogDomain(domain, kZLLogLevelMilestone, CFSTR("%s of %@ is %d"), "size", CFSTR("it"), 42);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].domain, "Test");
    EXPECT_EQ(messages[0].level, 2);
    EXPECT_EQ(messages[0].text, "size of it is 42");
    EXPECT_EQ(messages[0].errorCode, 0);
}

TEST_F(Log, LeavesOutWhatIsBelowTheLevel) {
    listen(kZLLogLevelMilestone);
    EXPECT_FALSE(ZLLogIsEnabled(kZLLogLevelDetail));
    ZLLogDomain(domain, kZLLogLevelDetail, CFSTR("detail"));
    ZLLogDomain(domain, kZLLogLevelBadRecord, CFSTR("bad"));
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].text, "bad");
}

TEST_F(Log, ErrorsCarryTheObjectAndTheMessage) {
    listen(1);
    ZLLogError(makeError(7).get(), domain, CFSTR("while %s"), "testing");
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].level, kZLLogLevelError);
    EXPECT_EQ(messages[0].text, "while testing");
    EXPECT_EQ(messages[0].errorCode, 7);
}

TEST_F(Log, ErrorsWithoutAMessageShowTheirDescription) {
    listen(kZLLogLevelError);
    const CF::Error error = makeError(7);
    ZLLogError(error.get(), domain, nullptr);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].text, error.GetDescription().GetUTF8());
}

TEST_F(Log, ASinkThatIsRemovedHearsNothingMore) {
    listen(1);
    ZLLogSetSink(nullptr, nullptr, 1);
    ZLLogDomain(domain, kZLLogLevelBadRecord, CFSTR("late"));
    EXPECT_TRUE(messages.empty());
}

std::atomic<int> gCalls{0};

TEST_F(Log, DropsWhatTheSinkItselfLogs) {
    gCalls = 0;
    ZLLogSetSink(
        [](CFStringRef, int, CFStringRef, CFErrorRef, void *) {
            ++gCalls;
            ZLLogDomain(ZLLogGetIdentifierForDomain(CFSTR("Test")), 4, CFSTR("again"));
        },
        nullptr, 1);
    ZLLogDomain(domain, 4, CFSTR("once"));
    ZLLogDomain(domain, 4, CFSTR("twice"));
    EXPECT_EQ(gCalls, 2);
}

TEST_F(Log, ASinkMayRemoveItself) {
    gCalls = 0;
    ZLLogSetSink(
        [](CFStringRef, int, CFStringRef, CFErrorRef, void *) {
            ++gCalls;
            ZLLogSetSink(nullptr, nullptr, 0);
        },
        nullptr, 1);
    ZLLogDomain(domain, 4, CFSTR("first"));
    ZLLogDomain(domain, 4, CFSTR("second"));
    EXPECT_EQ(gCalls, 1);
}

TEST_F(Log, CallsComeOneAtATime) {
    listen(1); // the vector would break under concurrent calls
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([this] {
            for (int k = 0; k < 100; ++k) {
                ZLLogDomain(domain, 1, CFSTR("%d"), k);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(messages.size(), 800U);
}

} // namespace
