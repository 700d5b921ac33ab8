#include "support/zk/CopyContent.hpp"

#include "tests/support/TemporaryDirectory.hpp"

#include "support/zk/UniqueDescriptor.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

using ZK::file::content_copier;
using ZK::file::unique_descriptor;

constexpr std::size_t kSmall = 1000;
constexpr std::size_t kLarge = 300'000; // more than is copied by hand in one go

class CopyContent : public testing::TestWithParam<std::size_t> {
  protected:
    std::string path(const char *name) const { return (directory_ / name).string(); }
    void write(const char *name, const std::string &content) const {
        std::ofstream(path(name), std::ios::binary) << content;
    }
    std::string read(const char *name) const {
        std::ifstream stream(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    unique_descriptor source() const {
        return unique_descriptor(::open(path("from").c_str(), O_RDONLY | O_CLOEXEC));
    }
    unique_descriptor destination(int flags = 0) const {
        return unique_descriptor(
            ::open(path("to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600));
    }
    static std::string content() {
        std::string text;
        while (text.size() < GetParam()) {
            text += "line " + std::to_string(text.size()) + "\n";
        }
        return text.substr(0, GetParam());
    }

    const testing_support::TemporaryDirectory directory_;
    content_copier copier_;
    boost::system::error_code error_;
};

TEST_P(CopyContent, TakesTheWholeFile) {
    write("from", content());
    EXPECT_EQ(copier_.copy(source().get(), destination().get(), GetParam(), error_), GetParam());
    EXPECT_FALSE(error_);
    EXPECT_EQ(read("to"), content());
}

TEST_P(CopyContent, TakesWhatIsThereWhateverTheExpectedSize) {
    write("from", content());
    for (const std::size_t expected : {std::size_t{0}, std::size_t{1}, 10 * kLarge}) {
        ::unlink(path("to").c_str());
        EXPECT_EQ(copier_.copy(source().get(), destination().get(), expected, error_), GetParam());
        EXPECT_EQ(read("to"), content()) << expected;
    }
}

TEST_P(CopyContent, BeginsAtTheSourcesPosition) {
    write("from", content());
    const unique_descriptor from = source();
    ASSERT_EQ(::lseek(from.get(), 400, SEEK_SET), 400);
    EXPECT_EQ(copier_.copy(from.get(), destination().get(), GetParam(), error_), GetParam() - 400);
    EXPECT_EQ(read("to"), content().substr(400));
}

TEST_P(CopyContent, GoesOnByHandWhereTheKernelCannotCopy) {
    write("from", content());
    // Twice: what was found out about the first pair holds for the second.
    for (int i = 0; i < 2; ++i) {
        ::unlink(path("to").c_str());
        const unique_descriptor appended = destination(O_APPEND);
        EXPECT_EQ(copier_.copy(source().get(), appended.get(), GetParam(), error_), GetParam());
        EXPECT_FALSE(error_) << error_.message();
        EXPECT_EQ(read("to"), content());
    }
}

TEST_P(CopyContent, TellsWhatCannotBeRead) {
    write("from", content());
    const unique_descriptor folder(::open(directory_.path().c_str(), O_RDONLY | O_CLOEXEC));
    copier_.copy(folder.get(), destination().get(), GetParam(), error_);
    EXPECT_EQ(error_, boost::system::errc::is_a_directory);
}

TEST_P(CopyContent, TellsWhatCannotBeWritten) {
    write("from", content());
    const unique_descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    if (full.get() < 0) {
        GTEST_SKIP() << "there is no device that is full";
    }
    copier_.copy(source().get(), full.get(), GetParam(), error_);
    EXPECT_EQ(error_, boost::system::errc::no_space_on_device);
}

INSTANTIATE_TEST_SUITE_P(Sizes, CopyContent, testing::Values(kSmall, kLarge),
                         [](const auto &size) { return size.param == kSmall ? "Small" : "Large"; });

} // namespace
