#include "support/zk/RootDirectory.hpp"

#include "support/zk/File.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace fs = boost::filesystem;
using testing_support::TemporaryDirectory;
using ZK::file::readable_file;
using ZK::file::root_directory;

enum class Way { KernelResolves, StepByStep };

// Both ways to a file give the same results.
class RootDirectories : public testing::TestWithParam<Way> {
  protected:
    RootDirectories() {
        ZK::file::let_kernel_resolve(GetParam() == Way::KernelResolves);
        directory_.write("root/file", "inside");
        directory_.write("root/ab/cd/file", "deep");
        directory_.write("outside/secret", "secret");
    }
    ~RootDirectories() override { ZK::file::let_kernel_resolve(true); }

    std::string path(const std::string &name) const { return (directory_ / name).string(); }
    void link(const std::string &target, const std::string &name) const {
        fs::create_symlink(target, path("root/" + name));
    }

    // The bytes of the file, or the error.
    static std::string read(const root_directory &root, const std::string &name) {
        boost::system::error_code error;
        readable_file file(root, name, error);
        if (error) {
            EXPECT_FALSE(file.is_open());
            return std::to_string(error.value());
        }
        std::string content(64, '\0');
        content.resize(file.read_some({reinterpret_cast<std::uint8_t *>(content.data()), 64}));
        return content;
    }
    std::string read(const std::string &name) const {
        return read(root_directory(path("root")), name);
    }
    static std::string failure(int number) { return std::to_string(number); }

    TemporaryDirectory directory_;
};

INSTANTIATE_TEST_SUITE_P(Ways, RootDirectories,
                         testing::Values(Way::KernelResolves, Way::StepByStep),
                         [](const auto &way) {
                             return way.param == Way::KernelResolves ? "KernelResolves"
                                                                     : "StepByStep";
                         });

TEST_P(RootDirectories, OpenWhatLiesBelowThem) {
    EXPECT_EQ(read("file"), "inside");
    EXPECT_EQ(read("ab/cd/file"), "deep");
}

TEST_P(RootDirectories, OpenHardLinks) {
    fs::create_hard_link(path("outside/secret"), path("root/hard"));
    EXPECT_EQ(read("hard"), "secret");
}

TEST_P(RootDirectories, RefuseALinkInThePlaceOfAFile) {
    link("file", "relative");
    link(path("outside/secret"), "absolute");
    link("nowhere", "dangling");
    link("loop", "loop");
    for (const char *name : {"relative", "absolute", "dangling", "loop"}) {
        EXPECT_EQ(read(name), failure(ELOOP)) << name;
    }
}

TEST_P(RootDirectories, RefuseALinkInThePlaceOfADirectoryOnTheWay) {
    link("ab", "relative");
    link(path("outside"), "absolute");
    link("nowhere", "dangling");
    link("../../outside", "ab/cd/up");
    for (const char *name : {"relative/cd/file", "absolute/secret", "absolute/missing",
                             "dangling/file", "ab/cd/up/secret"}) {
        EXPECT_EQ(read(name), failure(ELOOP)) << name;
    }
}

TEST_P(RootDirectories, RefuseTheLinksOfTheProcessFileSystem) {
    if (!fs::exists("/proc/self/exe")) {
        GTEST_SKIP() << "there is no /proc here";
    }
    const root_directory root("/proc/self");
    EXPECT_EQ(read(root, "exe"), failure(ELOOP));
    EXPECT_EQ(read(root, "root/etc/passwd"), failure(ELOOP));
}

TEST_P(RootDirectories, RefuseALinkThatCameAfterTheyWereOpened) {
    const root_directory root(path("root"));
    EXPECT_EQ(read(root, "ab/cd/file"), "deep");
    fs::remove_all(path("root/ab/cd"));
    link(path("outside"), "ab/cd");
    EXPECT_EQ(read(root, "ab/cd/secret"), failure(ELOOP));
}

TEST_P(RootDirectories, RefuseNamesThatLeadElsewhere) {
    for (const std::string name : {"", ".", "..", "../outside/secret", "ab/../file", "ab//cd/file",
                                   "/etc/passwd", "ab/", "ab/./cd/file"}) {
        EXPECT_EQ(read(name), failure(EINVAL)) << name;
    }
    EXPECT_EQ(read(std::string("file\0x", 6)), failure(EINVAL));
}

TEST_P(RootDirectories, OpenNothingButRegularFiles) {
    ASSERT_EQ(::mkfifo(path("root/fifo").c_str(), 0600), 0);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    path("root/socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(read("fifo"), failure(EOPNOTSUPP));
    EXPECT_EQ(read("socket"), failure(EOPNOTSUPP));
    EXPECT_EQ(read(root_directory("/dev"), "null"), failure(EOPNOTSUPP));
    EXPECT_EQ(read("ab"), failure(EISDIR));
    ::close(socket);
}

TEST_P(RootDirectories, TellWhatIsMissing) {
    EXPECT_EQ(read("missing"), failure(ENOENT));
    EXPECT_EQ(read("missing/file"), failure(ENOENT));
    EXPECT_EQ(read("file/below"), failure(ENOTDIR));
    EXPECT_EQ(read(std::string(300, 'x')), failure(ENAMETOOLONG));
}

TEST_P(RootDirectories, LookAtWhatBearsAName) {
    link(path("outside"), "link");
    const root_directory root(path("root"));
    struct stat status {};
    EXPECT_EQ(root.look("ab/cd/file", status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_size, 4);
    EXPECT_EQ(root.look("link", status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(root.look("link/secret", status), ELOOP);
    EXPECT_EQ(root.look("missing", status), ENOENT);
    EXPECT_EQ(root.look("..", status), EINVAL);
}

TEST_P(RootDirectories, MayThemselvesBeReachedOverLinks) {
    fs::create_symlink(directory_.path(), directory_ / "way");
    fs::create_symlink("way/root", directory_ / "link");
    EXPECT_EQ(read(root_directory(path("link")), "ab/cd/file"), "deep");
}

TEST_P(RootDirectories, StayTheSameWhenTheirPathLeadsElsewhere) {
    fs::create_symlink("root", directory_ / "link");
    const root_directory root(path("link"));
    fs::remove(directory_ / "link");
    fs::create_symlink("outside", directory_ / "link");
    EXPECT_EQ(read(root, "file"), "inside");
    EXPECT_EQ(read(root, "secret"), failure(ENOENT));
}

TEST_P(RootDirectories, ThatCannotBeOpenedSayWhy) {
    struct stat status {};
    const root_directory missing(path("nowhere"));
    EXPECT_EQ(read(missing, "file"), failure(ENOENT));
    EXPECT_EQ(missing.look("file", status), ENOENT);
    EXPECT_EQ(read(root_directory(path("root/file")), "file"), failure(ENOTDIR));
    EXPECT_EQ(read(root_directory(path("root") + std::string(1, '\0')), "file"), failure(ENOENT));
}

TEST_P(RootDirectories, HandNoDescriptorToOtherPrograms) {
    const root_directory root(path("root"));
    const int fd = root.open_file("ab/cd/file");
    ASSERT_GE(fd, 0);
    int checked = 0;
    for (int other = 3; other <= fd; ++other) {
        const int flags = ::fcntl(other, F_GETFD);
        if (flags >= 0 && fs::read_symlink("/proc/self/fd/" + std::to_string(other))
                                  .string()
                                  .find(directory_.path().string()) == 0) {
            EXPECT_NE(flags & FD_CLOEXEC, 0);
            ++checked;
        }
    }
    ::close(fd);
    EXPECT_EQ(checked, 2); // the root's and the file's
}

TEST_P(RootDirectories, LeaveNoDescriptorsBehind) {
    const root_directory root(path("root"));
    const int before = ::dup(0);
    ::close(before);
    for (const char *name : {"file", "ab/cd/file", "ab/cd/missing", "missing/file", "ab"}) {
        read(root, name);
    }
    const int after = ::dup(0);
    ::close(after);
    EXPECT_EQ(after, before);
}

} // namespace
