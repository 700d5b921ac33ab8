// What a process has once: the log's sink, the temporary path, the texts of errors.
#include "Kelvane.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Log.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/threads/AtOnce.hpp"

#include <atomic>
#include <string>

namespace {

using threads_tests::AtOnce;
using threads_tests::kThreads;

struct Counter {
    // Plain numbers: the log calls one sink at a time.
    int calls = 0;
    int wrong = 0;
};

void countCall(CFStringRef domain, int level, CFStringRef text, CFErrorRef, void *context) {
    auto *const counter = static_cast<Counter *>(context);
    ++counter->calls;
    const bool right = level == kKelvaneLogLevelBadRecord &&
                       CF::String::GetUTF8(domain) == "Kelvane" &&
                       CF::String::GetUTF8(text).rfind("message ", 0) == 0;
    counter->wrong += right ? 0 : 1;
}

TEST(LogSink, IsExchangedWhileThreadsLog) {
    Counter first;
    Counter second;
    AtOnce([&](int number) {
        for (int i = 0; i < 300; ++i) {
            if (number == 0) {
                KelvaneLogSetSink(&countCall, i % 2 == 0 ? &first : &second, i % 3 == 0 ? 9 : 1);
            } else if (number == 1 && i % 10 == 0) {
                KelvaneLogSetSink(nullptr, nullptr, 0);
            } else {
                ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelBadRecord, CFSTR("message %d"), i);
            }
        }
    });
    // Nobody is called any more once the sink is gone, so the numbers may be read.
    KelvaneLogSetSink(nullptr, nullptr, 0);
    EXPECT_EQ(first.wrong + second.wrong, 0);
    const int calls = first.calls + second.calls;
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelBadRecord, CFSTR("message"));
    EXPECT_EQ(first.calls + second.calls, calls);
}

TEST(LogDomains, GetOneIdentifierANameOnAllThreads) {
    std::array<ZLLogDomainID, kThreads> found{};
    AtOnce([&](int number) {
        for (int i = 0; i < 50; ++i) {
            const CF::String name("domain " + std::to_string(i));
            const ZLLogDomainID domain = ZLLogGetIdentifierForDomain(name);
            found[static_cast<std::size_t>(number)] = domain;
        }
    });
    for (const ZLLogDomainID domain : found) {
        EXPECT_EQ(domain, found.front());
    }
}

TEST(TemporaryPath, IsSetByOneThreadAndReadByTheOthers) {
    const testing_support::TemporaryDirectory directory;
    std::atomic<int> accepted{0};
    AtOnce([&](int number) {
        // The others' paths are refused; reading gives nothing or the one that was taken.
        const std::string own = (directory / std::to_string(number)).string();
        accepted += KelvaneSetTemporaryPath(CF::String(own)) ? 1 : 0;
        const auto path = CF::String::Adopt(KelvaneCopyTemporaryPath());
        ASSERT_TRUE(path);
        EXPECT_EQ(path.GetUTF8(), Kelvane::GetTemporaryPath().string());
        EXPECT_EQ(path.GetUTF8(), Kelvane::GetTemporaryPathString().GetUTF8());
    });
    // Another test of the same process may have set it before.
    EXPECT_LE(accepted, 1);
}

TEST(ErrorTexts, AreGivenToAllThreads) {
    AtOnce([](int) {
        for (std::uint32_t code = 1; code <= kKVErrorInvalidMBFile + 2; ++code) {
            const CFStringRef text = KVErrorGetString(static_cast<KVError>(code));
            ASSERT_NE(text, nullptr) << code;
            const CF::Error error =
                Kelvane::Error(static_cast<KVError>(code), nullptr, CFSTR("why %u"), code);
            EXPECT_EQ(error.GetFailureReason().GetUTF8(), "why " + std::to_string(code));
            EXPECT_FALSE(CF::String::Adopt(CFErrorCopyDescription(error.get())).GetUTF8().empty());
        }
    });
}

TEST(ErrorTexts, OfTheSystemAreGivenToAllThreads) {
    AtOnce([](int number) {
        for (int i = 0; i < 50; ++i) {
            const CF::Error error =
                Kelvane::MakeFSError(2 + number % 2 * 11, CFSTR("at %s"), "place");
            EXPECT_EQ(error.GetFailureReason().GetUTF8(), "at place");
            const std::string cause =
                CF::String::Adopt(CFErrorCopyDescription(error.GetUnderlying().get())).GetUTF8();
            EXPECT_NE(cause.find(number % 2 == 0 ? "No such file" : "Permission denied"),
                      std::string::npos)
                << cause;
        }
    });
}

TEST(PropertyLists, AreReadAndWrittenByAllThreads) {
    AtOnce([](int number) {
        for (int i = 0; i < 30; ++i) {
            const auto dictionary = CF::Dictionary::MutableCopy(nullptr);
            dictionary.Set(CFSTR("number"), CF::Number::FromInt32(number).get());
            dictionary.Set(CFSTR("text"), CF::String("text & more").get());
            const auto format =
                i % 2 == 0 ? kCFPropertyListXMLFormat_v1_0 : kCFPropertyListBinaryFormat_v1_0;
            using List = CF::PropertyListType<CF::Dictionary>;
            const CF::Data data = List::ToPropertyListData(dictionary, format);
            EXPECT_TRUE(CFEqual(List::FromPropertyListData(data).get(), dictionary.get()));
        }
    });
}

} // namespace
