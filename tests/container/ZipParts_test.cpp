// The pieces that zip archives are written with.
#include "container/ZipDirectory.hpp"
#include "container/ZipOutput.hpp"
#include "container/ZipTime.hpp"
#include "support/cf/Date.hpp"
#include "tests/container/ExportFixture.hpp"

#include <cstdlib>
#include <ctime>
#include <limits>

namespace container_tests {
namespace {

using Kelvane::RewriteZipDirectory;
using Kelvane::ZipOutput;
using Kelvane::ZipTime;

std::string textOf(const tm_zip &time) {
    char text[64];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", time.tm_year, time.tm_mon + 1,
                  time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
    return text;
}

std::string timeOf(double unixTime) {
    return textOf(
        ZipTime(CF::Date::FromAbsoluteTime(unixTime - kCFAbsoluteTimeIntervalSince1970).get()));
}

constexpr const char *kFirst = "1980-01-01 00:00:00";
constexpr const char *kLast = "2107-12-31 23:59:58";

TEST(RecordTime, IsLocal) {
    ::setenv("TZ", "Etc/GMT-3", 1);
    EXPECT_EQ(timeOf(1700000000), "2023-11-15 01:13:20");
    ::setenv("TZ", "UTC", 1);
    EXPECT_EQ(timeOf(1700000000), "2023-11-14 22:13:20");
    EXPECT_EQ(timeOf(1700000000.9), "2023-11-14 22:13:20");
}

TEST(RecordTime, BeforeItsFirstIsTheFirst) {
    ::setenv("TZ", "UTC", 1);
    EXPECT_EQ(timeOf(315532800), kFirst);
    EXPECT_EQ(timeOf(315532799), kFirst);
    EXPECT_EQ(timeOf(0), kFirst);
    EXPECT_EQ(timeOf(-1e300), kFirst);
    EXPECT_EQ(timeOf(-std::numeric_limits<double>::infinity()), kFirst);
}

TEST(RecordTime, AfterItsLastIsTheLast) {
    ::setenv("TZ", "UTC", 1);
    EXPECT_EQ(timeOf(4354819199), "2107-12-31 23:59:59");
    EXPECT_EQ(timeOf(4354819200), kLast);
    EXPECT_EQ(timeOf(1e300), kLast);
    EXPECT_EQ(timeOf(std::numeric_limits<double>::infinity()), kLast);
}

TEST(RecordTime, OfNoDateIsTheFirst) {
    EXPECT_EQ(textOf(ZipTime(nullptr)), kFirst);
    EXPECT_EQ(timeOf(std::numeric_limits<double>::quiet_NaN()), kFirst);
}

// An output with an archive of the records "a", "b" and "c" in it.
class ZipParts : public testing::Test {
  protected:
    ZipParts() : output_(directory_ / "out.zip") {
        zlib_filefunc64_def functions = output_.Functions();
        zipFile archive = zipOpen2_64("", APPEND_STATUS_CREATE, nullptr, &functions);
        const zip_fileinfo info{};
        for (const char *name : {"a", "b", "c"}) {
            constexpr char kExtra[] = {'\x99', '\x77', 1, 0, 'e'};
            zipOpenNewFileInZip(archive, name, &info, kExtra, 5, kExtra, 5, "comment", Z_DEFLATED,
                                Z_DEFAULT_COMPRESSION);
            zipWriteInFileInZip(archive, name, 1);
            zipCloseFileInZip(archive);
        }
        start_ = output_.Position();
        zipClose(archive, nullptr);
        output_.Flush();
    }
    Texts keptNames() {
        EXPECT_TRUE(output_.Keep());
        ExpectSoundArchive(path());
        return ReadRecords(path(), "info.filename, content.decode(), info.comment.decode()");
    }
    std::string path() const { return (directory_ / "out.zip").string(); }

    const testing_support::TemporaryDirectory directory_;
    ZipOutput output_;
    std::uint64_t start_ = 0;
};

TEST_F(ZipParts, DirectoryLosesTheNamedRecords) {
    EXPECT_TRUE(RewriteZipDirectory(output_, start_, {"a", "c", "unknown"}));
    EXPECT_EQ(keptNames(), Texts{"b b comment"});
}

TEST_F(ZipParts, DirectoryMayLoseNothing) {
    EXPECT_TRUE(RewriteZipDirectory(output_, start_, {}));
    EXPECT_EQ(keptNames(), (Texts{"a a comment", "b b comment", "c c comment"}));
}

TEST_F(ZipParts, DirectoryMayLoseEverything) {
    EXPECT_TRUE(RewriteZipDirectory(output_, start_, {"a", "b", "c"}));
    EXPECT_TRUE(output_.Keep());
    EXPECT_EQ(ReadRecords(path(), "info.filename"), Texts{});
}

TEST_F(ZipParts, DirectoryThatIsCutShortIsRefused) {
    constexpr std::uint64_t kEndRecord = 22;
    const std::uint64_t end = output_.Position() - kEndRecord;
    for (std::uint64_t cut = start_; cut < end + 4; ++cut) {
        output_.Seek(cut);
        EXPECT_FALSE(RewriteZipDirectory(output_, start_, {})) << cut;
    }
}

TEST_F(ZipParts, DirectoryWithLengthsBeyondItsEndIsRefused) {
    for (const std::uint64_t field : {28u, 30u, 32u}) {
        const std::uint64_t end = output_.Position();
        std::vector<std::uint8_t> before(2);
        ASSERT_TRUE(output_.ReadAt(start_ + field, before));
        const std::uint8_t large[] = {0xff, 0xff};
        output_.Seek(start_ + field);
        output_.Write(large);
        output_.Seek(end);
        EXPECT_FALSE(RewriteZipDirectory(output_, start_, {})) << field;
        output_.Seek(start_ + field);
        output_.Write(before);
        output_.Seek(end);
    }
}

TEST_F(ZipParts, DirectoryWithoutItsSignatureIsRefused) {
    EXPECT_FALSE(RewriteZipDirectory(output_, start_ + 1, {}));
}

TEST(ZipOutputFile, GoesUnlessItIsKept) {
    const testing_support::TemporaryDirectory directory;
    const auto path = directory / "out";
    for (const bool keep : {false, true}) {
        {
            ZipOutput output(path);
            EXPECT_FALSE(fs::exists(path)); // not before it is opened
            const zlib_filefunc64_def functions = output.Functions();
            ASSERT_NE(functions.zopen64_file(functions.opaque, "", 0), nullptr);
            EXPECT_TRUE(fs::exists(path));
            EXPECT_TRUE(!keep || output.Keep());
        }
        EXPECT_EQ(fs::exists(path), keep);
    }
}

TEST(ZipOutputFile, LeavesAloneWhatIsThere) {
    const testing_support::TemporaryDirectory directory;
    const auto path = directory.write("out", std::string_view("mine"));
    {
        ZipOutput output(path);
        const zlib_filefunc64_def functions = output.Functions();
        EXPECT_EQ(functions.zopen64_file(functions.opaque, "", 0), nullptr);
        EXPECT_EQ(output.Failure(), EEXIST);
    }
    EXPECT_EQ(fs::file_size(path), 4u);
}

class OpenOutput : public testing::Test {
  protected:
    OpenOutput() {
        const zlib_filefunc64_def functions = output_.Functions();
        functions.zopen64_file(functions.opaque, "", 0);
    }
    void write(const std::string &text) {
        output_.Write({reinterpret_cast<const std::uint8_t *>(text.data()), text.size()});
    }
    std::string kept() {
        EXPECT_TRUE(output_.Keep());
        const auto bytes = testing_support::ReadFile(directory_ / "out");
        return {bytes.begin(), bytes.end()};
    }
    const testing_support::TemporaryDirectory directory_;
    ZipOutput output_{directory_ / "out"};
};

TEST_F(OpenOutput, WritesOverWhatIsInMemoryAndOnTheDisk) {
    write("0123456789");
    output_.Flush();
    write("abcdef");
    ASSERT_TRUE(output_.Seek(8));
    write("XXXX"); // two bytes on each side
    ASSERT_TRUE(output_.Seek(16));
    EXPECT_EQ(kept(), "01234567XXXXcdef");
}

TEST_F(OpenOutput, HoldsMoreThanItsBuffer) {
    std::string text;
    for (int i = 0; i < 100000; ++i) {
        text += std::to_string(i);
        write(std::to_string(i));
    }
    write(text);
    EXPECT_EQ(output_.Position(), 2 * text.size());
    EXPECT_EQ(kept(), text + text);
}

TEST_F(OpenOutput, TakesBackWhatIsInMemory) {
    write("0123456789");
    output_.Rewind(4);
    write("x");
    EXPECT_EQ(kept(), "0123x");
}

TEST_F(OpenOutput, TakesBackWhatIsOnTheDisk) {
    write("0123456789");
    output_.Flush();
    output_.Rewind(4);
    EXPECT_EQ(fs::file_size(directory_ / "out"), 4u); // the room is free at once
    write("x");
    EXPECT_EQ(kept(), "0123x");
}

TEST_F(OpenOutput, ForgetsAFailureWithWhatFailed) {
    write("good");
    output_.Flush();
    {
        const FileSizeLimit limit(10);
        write(std::string(600000, 'x'));
        EXPECT_EQ(output_.Failure(), EFBIG);
        EXPECT_EQ(output_.Position(), 600004u); // for the library all went well
        EXPECT_FALSE(output_.Flush());
        output_.Rewind(4);
        EXPECT_EQ(output_.Failure(), 0);
    }
    write("!");
    EXPECT_EQ(kept(), "good!");
}

TEST_F(OpenOutput, SeeksNowhereBeyondItsEnd) {
    write("0123");
    EXPECT_FALSE(output_.Seek(5));
    EXPECT_EQ(output_.Position(), 4u);
}

TEST_F(OpenOutput, ReadsNothingBeyondItsEnd) {
    write("0123");
    output_.Flush();
    std::vector<std::uint8_t> bytes(3);
    EXPECT_TRUE(output_.ReadAt(1, bytes));
    EXPECT_FALSE(output_.ReadAt(2, bytes));
    EXPECT_EQ(output_.Failure(), EIO);
}

} // namespace
} // namespace container_tests
