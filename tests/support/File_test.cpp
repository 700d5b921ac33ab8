#include "support/zk/File.hpp"

#include "tests/support/Bytes.hpp"
#include "tests/support/FailingCalls.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

using testing_support::Bytes;
using testing_support::BytesOf;
using testing_support::Call;
using testing_support::FailingCall;
using testing_support::Pattern;
using testing_support::ReadFile;
using testing_support::TemporaryDirectory;
using ZK::file::readable_file;
using ZK::file::writable_file;

Bytes readAll(readable_file &file, std::size_t piece = 4096) {
    Bytes all;
    Bytes buffer(piece);
    while (const std::size_t count = file.read_some(buffer)) {
        all.insert(all.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
    }
    return all;
}

int openingForReading(const ZK::filesystem::path &path) {
    boost::system::error_code error;
    const readable_file file(path, error);
    EXPECT_EQ(file.is_open(), !error);
    return error.value();
}

template <class Body>
int errnoThrownBy(Body body) {
    try {
        body();
    } catch (const boost::system::system_error &error) {
        return error.code().value();
    }
    return 0;
}

int openingForWriting(const ZK::filesystem::path &path) {
    return errnoThrownBy([&] { writable_file::open_clobber(path); });
}

::mode_t modeOf(const ZK::filesystem::path &path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

class UmaskChange {
  public:
    explicit UmaskChange(::mode_t mask) : before_(::umask(mask)) {}
    UmaskChange(const UmaskChange &) = delete;
    UmaskChange &operator=(const UmaskChange &) = delete;
    ~UmaskChange() { ::umask(before_); }

  private:
    ::mode_t before_;
};

class Files : public ::testing::Test {
  protected:
    const TemporaryDirectory directory;
};

TEST_F(Files, ReadSomeDeliversTheContentAndThenNothing) {
    const Bytes content = Pattern(10000);
    readable_file file(directory.write("a", content));
    EXPECT_EQ(file.size(), content.size());
    EXPECT_EQ(readAll(file), content);
    EXPECT_EQ(readAll(file), Bytes{});
}

TEST_F(Files, ReadingAClosedFileIsAnError) {
    readable_file file(directory.write("a", "x"));
    file.close();
    file.close();
    EXPECT_EQ(file.native_handle(), -1);
    Bytes buffer(1);
    EXPECT_EQ(errnoThrownBy([&] { file.read_some(buffer); }), EBADF);
}

TEST_F(Files, WritingAClosedFileIsAnError) {
    writable_file file;
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(errnoThrownBy([&] { file.write(BytesOf("x")); }), EBADF);
}

TEST_F(Files, ClobberTruncatesWhatIsThere) {
    const auto path = directory.write("a", "a longer content");
    writable_file::open_clobber(path).write(BytesOf("new"));
    EXPECT_EQ(ReadFile(path), BytesOf("new"));
}

TEST_F(Files, ClobberKeepsTheModeOfWhatIsThere) {
    const auto path = directory.write("a", "x");
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    writable_file::open_clobber(path);
    EXPECT_EQ(modeOf(path), 0644U);
}

TEST_F(Files, CreateNewRefusesAnExistingFile) {
    const auto path = directory.write("a", "x");
    EXPECT_EQ(errnoThrownBy([&] { writable_file::create_new(path); }), EEXIST);
    EXPECT_EQ(ReadFile(path), BytesOf("x"));
}

TEST_F(Files, CreateNewRefusesADanglingLink) {
    const auto path = directory / "link";
    ASSERT_EQ(::symlink("nowhere", path.c_str()), 0);
    EXPECT_EQ(errnoThrownBy([&] { writable_file::create_new(path); }), EEXIST);
    EXPECT_FALSE(boost::filesystem::exists(directory / "nowhere"));
}

TEST_F(Files, ClobberDoesNotCreateThroughADanglingLink) {
    const auto path = directory / "link";
    ASSERT_EQ(::symlink("nowhere", path.c_str()), 0);
    EXPECT_NE(openingForWriting(path), 0);
    EXPECT_FALSE(boost::filesystem::exists(directory / "nowhere"));
}

TEST_F(Files, CreatedFilesArePrivateWhateverTheUmask) {
    for (const ::mode_t mask : {::mode_t{0}, ::mode_t{022}, ::mode_t{0777}}) {
        const UmaskChange change(mask);
        const auto name = std::to_string(mask);
        writable_file::create_new(directory / ("new" + name));
        writable_file::open_clobber(directory / ("clobber" + name));
        EXPECT_EQ(modeOf(directory / ("new" + name)), 0600U);
        EXPECT_EQ(modeOf(directory / ("clobber" + name)), 0600U);
    }
}

TEST_F(Files, AppendAddsAtTheEnd) {
    for (const char *text : {"one", "two"}) {
        boost::system::error_code error;
        auto file = writable_file::open_append(directory / "log", error);
        ASSERT_FALSE(error);
        file.write(BytesOf(text));
    }
    EXPECT_EQ(ReadFile(directory / "log"), BytesOf("onetwo"));
    EXPECT_EQ(modeOf(directory / "log"), 0600U);
}

TEST_F(Files, AppendReportsFailureThroughTheCode) {
    boost::system::error_code error;
    EXPECT_FALSE(writable_file::open_append(directory / "no/such", error).is_open());
    EXPECT_EQ(error.value(), ENOENT);
}

TEST_F(Files, WritingNothingIsNoFailure) {
    boost::system::error_code error = make_error_code(boost::system::errc::io_error);
    auto file = writable_file::create_new(directory / "a");
    file.write(Bytes{}, error);
    EXPECT_FALSE(error);
}

// Limits the size of the files that this process may write, as a full disk would.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(::rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &before_);
        ::rlimit limit = before_;
        limit.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;
    ~FileSizeLimit() { ::setrlimit(RLIMIT_FSIZE, &before_); }

  private:
    ::rlimit before_{};
};

TEST_F(Files, AWriteThatDoesNotFitIsAnError) {
    auto file = writable_file::create_new(directory / "a");
    const FileSizeLimit limit(1000);
    EXPECT_EQ(errnoThrownBy([&] { file.write(Pattern(1001)); }), EFBIG);
}

TEST_F(Files, MovingTakesTheDescriptorAlong) {
    readable_file first(directory.write("a", "x"));
    const int fd = first.native_handle();
    readable_file second(std::move(first));
    EXPECT_FALSE(first.is_open()); // NOLINT: a moved-from file is closed
    EXPECT_EQ(second.native_handle(), fd);
}

TEST_F(Files, DescriptorsAreNotInheritedAndBlock) {
    const readable_file file(directory.write("a", "x"));
    EXPECT_NE(::fcntl(file.native_handle(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(::fcntl(file.native_handle(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Files, DescriptorsAreClosedOnDestruction) {
    const auto path = directory.write("a", "x");
    int fd = -1;
    {
        const readable_file file(path);
        fd = file.native_handle();
    }
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

TEST_F(Files, MissingFilesAreReported) { EXPECT_EQ(openingForReading(directory / "none"), ENOENT); }

TEST_F(Files, RefusesAFifoWithoutWaiting) {
    const auto path = directory / "fifo";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(openingForReading(path), EOPNOTSUPP);
    EXPECT_EQ(openingForWriting(path), EOPNOTSUPP);
}

TEST_F(Files, RefusesADirectory) {
    EXPECT_EQ(openingForReading(directory.path()), EISDIR);
    EXPECT_EQ(openingForWriting(directory.path()), EISDIR);
}

TEST_F(Files, RefusesADevice) {
    EXPECT_EQ(openingForReading("/dev/zero"), EOPNOTSUPP);
    EXPECT_EQ(openingForWriting("/dev/null"), EOPNOTSUPP);
}

TEST_F(Files, RefusesASocket) {
    const auto path = directory / "socket";
    ::sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<::sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(openingForReading(path), EOPNOTSUPP);
    ::close(fd);
}

TEST_F(Files, FollowsLinksToFiles) {
    directory.write("a", "x");
    ASSERT_EQ(::symlink("a", (directory / "link").c_str()), 0);
    EXPECT_EQ(openingForReading(directory / "link"), 0);
}

TEST_F(Files, ReadersOfOneProcessCoexist) {
    const auto path = directory.write("a", "x");
    const readable_file first(path);
    EXPECT_EQ(openingForReading(path), 0);
}

TEST_F(Files, AReaderKeepsItsLockWhenAnotherCloses) {
    const auto path = directory.write("a", "x");
    const readable_file first(path);
    { const readable_file second(path); }
    EXPECT_EQ(openingForWriting(path), EAGAIN);
}

TEST_F(Files, AWriterKeepsReadersOut) {
    const auto file = writable_file::create_new(directory / "a");
    EXPECT_EQ(openingForReading(directory / "a"), EAGAIN);
}

TEST_F(Files, AWriterKeepsWritersOut) {
    const auto file = writable_file::create_new(directory / "a");
    EXPECT_EQ(openingForWriting(directory / "a"), EAGAIN);
}

TEST_F(Files, AReaderKeepsClobberingFromLosingItsContent) {
    const auto path = directory.write("a", "content");
    readable_file reader(path);
    EXPECT_EQ(openingForWriting(path), EAGAIN);
    EXPECT_EQ(readAll(reader), BytesOf("content"));
}

TEST_F(Files, ClosingGivesUpTheLock) {
    auto file = writable_file::create_new(directory / "a");
    file.close();
    EXPECT_EQ(openingForReading(directory / "a"), 0);
}

TEST_F(Files, OneFileIsReadByManyThreads) {
    const Bytes content = Pattern(100000);
    const auto path = directory.write("a", content);
    std::vector<Bytes> results(8);
    std::vector<std::thread> threads;
    for (Bytes &result : results) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) {
                readable_file file(path);
                result = readAll(file, 1000);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(results, std::vector<Bytes>(8, content));
}

class CopyNew : public Files {};

TEST_F(CopyNew, CopiesEverySize) {
    for (const std::size_t size : {0U, 1U, 4096U, 262144U, 262145U, 3000000U}) {
        const auto name = std::to_string(size);
        const Bytes content = Pattern(size);
        ZK::file::copy_new(directory.write(name, content), directory / (name + ".copy"));
        EXPECT_EQ(ReadFile(directory / (name + ".copy")), content) << size;
    }
}

TEST_F(CopyNew, CopiesBetweenFileSystems) {
    const Bytes content = Pattern(300000);
    const auto source = directory.write("a", content);
    const auto target = boost::filesystem::path("/dev/shm") / boost::filesystem::unique_path();
    ZK::file::copy_new(source, target);
    const Bytes copy = ReadFile(target);
    boost::filesystem::remove(target);
    EXPECT_EQ(copy, content);
}

TEST_F(CopyNew, CopiesFilesThatClaimToBeEmpty) {
    // Files of /proc have a size of 0 and yet content.
    ZK::file::copy_new("/proc/self/status", directory / "copy");
    EXPECT_GT(ReadFile(directory / "copy").size(), 0U);
}

TEST_F(CopyNew, TheCopyIsPrivate) {
    const auto source = directory.write("a", "x");
    ASSERT_EQ(::chmod(source.c_str(), 0644), 0);
    ZK::file::copy_new(source, directory / "copy");
    EXPECT_EQ(modeOf(directory / "copy"), 0600U);
}

TEST_F(CopyNew, RefusesAnExistingDestination) {
    const auto source = directory.write("a", "x");
    const auto target = directory.write("b", "keep");
    EXPECT_EQ(errnoThrownBy([&] { ZK::file::copy_new(source, target); }), EEXIST);
    EXPECT_EQ(ReadFile(target), BytesOf("keep"));
}

TEST_F(CopyNew, RefusesAFifo) {
    ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(errnoThrownBy([&] { ZK::file::copy_new(directory / "fifo", directory / "b"); }),
              EOPNOTSUPP);
    EXPECT_FALSE(boost::filesystem::exists(directory / "b"));
}

TEST_F(CopyNew, LeavesNothingBehindWhenTheSourceCannotBeRead) {
    // Reading this file of /proc at its start fails: address 0 is not mapped.
    EXPECT_EQ(errnoThrownBy([&] { ZK::file::copy_new("/proc/self/mem", directory / "b"); }), EIO);
    EXPECT_FALSE(boost::filesystem::exists(directory / "b"));
}

TEST_F(CopyNew, LeavesNothingBehindWhenTheCopyDoesNotFit) {
    const auto source = directory.write("a", Pattern(5000));
    const FileSizeLimit limit(1000);
    EXPECT_EQ(errnoThrownBy([&] { ZK::file::copy_new(source, directory / "b"); }), EFBIG);
    EXPECT_FALSE(boost::filesystem::exists(directory / "b"));
}

TEST_F(CopyNew, LeavesNothingBehindWhenItCannotBeClosed) {
    const auto source = directory.write("a", Pattern(5000));
    const FailingCall closing(Call::Close, EDQUOT);
    EXPECT_EQ(errnoThrownBy([&] { ZK::file::copy_new(source, directory / "b"); }), EDQUOT);
    EXPECT_FALSE(boost::filesystem::exists(directory / "b"));
}

class Completing : public Files {};

TEST_F(Completing, ClosesTheFile) {
    writable_file file = writable_file::create_new(directory / "a");
    file.write(BytesOf("x"));
    file.complete();
    EXPECT_FALSE(file.is_open());
    file.complete();
}

TEST_F(Completing, TellsThatTheFileCannotBeClosed) {
    writable_file file = writable_file::create_new(directory / "a");
    const FailingCall closing(Call::Close, EDQUOT);
    EXPECT_EQ(errnoThrownBy([&] { file.complete(); }), EDQUOT);
    EXPECT_FALSE(file.is_open());
}

TEST_F(Completing, TakesAnInterruptionForNoFailure) {
    writable_file file = writable_file::create_new(directory / "a");
    const FailingCall closing(Call::Close, EINTR);
    EXPECT_EQ(errnoThrownBy([&] { file.complete(); }), 0);
}

class FailedOpening : public Files {};

TEST_F(FailedOpening, LeavesNoFileThatItMade) {
    const auto path = directory / "a";
    const FailingCall polling(Call::AddToPoll, ENOSPC);
    EXPECT_EQ(openingForWriting(path), ENOSPC);
    EXPECT_FALSE(boost::filesystem::exists(path));
    EXPECT_EQ(errnoThrownBy([&] { writable_file::create_new(path); }), ENOSPC);
    EXPECT_FALSE(boost::filesystem::exists(path));
    boost::system::error_code error;
    EXPECT_EQ(errnoThrownBy([&] { writable_file::open_append(path, error); }), ENOSPC);
    EXPECT_FALSE(boost::filesystem::exists(path));
}

TEST_F(FailedOpening, LeavesAFileThatWasThere) {
    const auto path = directory.write("a", "mine");
    const FailingCall polling(Call::AddToPoll, ENOSPC);
    EXPECT_EQ(openingForWriting(path), ENOSPC);
    EXPECT_EQ(ReadFile(path), BytesOf("mine"));
}

TEST_F(Files, ClobberTellsWhetherItMadeTheFile) {
    const auto path = directory / "a";
    bool created = false;
    writable_file::open_clobber(path, &created);
    EXPECT_TRUE(created);
    writable_file::open_clobber(path, &created);
    EXPECT_FALSE(created);
}

class PrivateDirectories : public Files {};

TEST_F(PrivateDirectories, AllThatAreMissingArePrivateWhateverTheUmask) {
    for (const ::mode_t mask : {::mode_t{0}, ::mode_t{022}, ::mode_t{0777}}) {
        const UmaskChange change(mask);
        const auto top = directory / ("top" + std::to_string(mask));
        ZK::file::create_private_directories(top / "middle" / "bottom");
        EXPECT_EQ(modeOf(top), 0700U);
        EXPECT_EQ(modeOf(top / "middle"), 0700U);
        EXPECT_EQ(modeOf(top / "middle" / "bottom"), 0700U);
    }
}

TEST_F(PrivateDirectories, ExistingOnesAreLeftAlone) {
    const auto path = directory / "there";
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    ZK::file::create_private_directories(path);
    EXPECT_EQ(modeOf(path), 0755U);
}

TEST_F(PrivateDirectories, TakesATrailingSlash) {
    ZK::file::create_private_directories(directory.path().string() + "/a/b/");
    EXPECT_EQ(modeOf(directory / "a/b"), 0700U);
}

TEST_F(PrivateDirectories, RefusesAFileInTheWay) {
    directory.write("file", "x");
    EXPECT_THROW(ZK::file::create_private_directories(directory / "file"), std::exception);
    EXPECT_THROW(ZK::file::create_private_directories(directory / "file/below"), std::exception);
}

} // namespace
