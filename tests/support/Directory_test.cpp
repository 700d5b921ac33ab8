#include "support/zk/Directory.hpp"

#include "support/zk/File.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include <cerrno>

#include <sys/stat.h>

namespace {

using testing_support::ReadFile;
using testing_support::TemporaryDirectory;
using ZK::file::directory;
using ZK::file::writable_file;

class Directories : public testing::Test {
  protected:
    directory make() const { return directory::create_new(root_ / "made"); }
    int errnoOfMaking(const ZK::filesystem::path &path) const {
        try {
            directory::create_new(path);
        } catch (const boost::system::system_error &error) {
            return error.code().value();
        }
        return 0;
    }
    static int errnoOfEntering(const directory &parent, const std::string &name) {
        boost::system::error_code error;
        const bool open = parent.enter(name, error).is_open();
        EXPECT_EQ(open, !error);
        return error.value();
    }
    static int errnoOfCreating(const directory &parent, const std::string &name) {
        boost::system::error_code error;
        const bool open = writable_file::create_new(parent, name, error).is_open();
        EXPECT_EQ(open, !error);
        return error.value();
    }
    static ::mode_t mode(const ZK::filesystem::path &path) {
        struct stat status {};
        EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777u;
    }

    const TemporaryDirectory root_;
};

TEST_F(Directories, NewOnesArePrivateWhateverTheUmask) {
    for (const ::mode_t mask : {0u, 0777u}) {
        const ::mode_t before = ::umask(mask);
        const auto path = root_ / ("mask" + std::to_string(mask));
        const directory made = directory::create_new(path / "below");
        boost::system::error_code error;
        made.enter("entered", error);
        ::umask(before);
        EXPECT_FALSE(error);
        EXPECT_EQ(mode(path), 0700u);
        EXPECT_EQ(mode(path / "below"), 0700u);
        EXPECT_EQ(mode(path / "below/entered"), 0700u);
    }
}

TEST_F(Directories, TrailingSeparatorsAndDotsNameTheSame) {
    EXPECT_EQ(errnoOfMaking((root_ / "a").string() + "/"), 0);
    EXPECT_EQ(errnoOfMaking((root_ / "b").string() + "//"), 0);
    EXPECT_EQ(errnoOfMaking((root_ / "c").string() + "/."), 0);
    EXPECT_TRUE(boost::filesystem::is_directory(root_ / "c"));
}

TEST_F(Directories, WhatIsThereIsNotMadeAnew) {
    root_.write("file", std::string_view("x"));
    boost::filesystem::create_symlink("nowhere", root_ / "link");
    EXPECT_EQ(errnoOfMaking(root_.path()), EEXIST);
    EXPECT_EQ(errnoOfMaking(root_ / "file"), EEXIST);
    EXPECT_EQ(errnoOfMaking(root_ / "link"), EEXIST);
    EXPECT_EQ(errnoOfMaking("/"), EEXIST);
}

TEST_F(Directories, PathsThatLeadNowhereAreErrors) {
    root_.write("file", std::string_view("x"));
    EXPECT_EQ(errnoOfMaking(root_ / "file" / "below"), ENOTDIR);
    EXPECT_EQ(errnoOfMaking(root_ / "file" / "deep" / "below"), ENOTDIR);
    EXPECT_EQ(errnoOfMaking(""), ENOENT);
    EXPECT_EQ(errnoOfMaking((root_ / "cut").string() + std::string("\0x", 2)), EINVAL);
    EXPECT_FALSE(boost::filesystem::exists(root_ / "cut"));
}

TEST_F(Directories, EnteringMakesWhatIsMissingAndFindsWhatIsThere) {
    const directory made = make();
    EXPECT_EQ(errnoOfEntering(made, "a"), 0);
    EXPECT_EQ(errnoOfEntering(made, "a"), 0);
    EXPECT_TRUE(boost::filesystem::is_directory(root_ / "made/a"));
}

TEST_F(Directories, EnteringFollowsNoLink) {
    const directory made = make();
    boost::filesystem::create_symlink(root_.path(), root_ / "made/link");
    EXPECT_EQ(errnoOfEntering(made, "link"), ENOTDIR);
}

TEST_F(Directories, EnteringAFileIsAnError) {
    const directory made = make();
    root_.write("made/file", std::string_view("x"));
    EXPECT_EQ(errnoOfEntering(made, "file"), ENOTDIR);
}

TEST_F(Directories, FilesAreMadeInTheDirectoryThatWasOpened) {
    const directory made = make();
    boost::filesystem::rename(root_ / "made", root_ / "moved");
    boost::filesystem::create_directory(root_ / "made");
    EXPECT_EQ(errnoOfCreating(made, "file"), 0);
    EXPECT_TRUE(boost::filesystem::exists(root_ / "moved/file"));
    EXPECT_EQ(mode(root_ / "moved/file"), 0600u);
}

TEST_F(Directories, FilesThatAreThereAreNotAppendedTo) {
    const directory made = make();
    root_.write("made/file", std::string_view("x"));
    boost::filesystem::create_symlink("nowhere", root_ / "made/link");
    EXPECT_EQ(errnoOfCreating(made, "file"), EEXIST);
    EXPECT_EQ(errnoOfCreating(made, "link"), EEXIST);
    EXPECT_EQ(ReadFile(root_ / "made/file").size(), 1u);
}

TEST_F(Directories, RemovesFilesByName) {
    const directory made = make();
    root_.write("made/file", std::string_view("x"));
    made.remove_file("file");
    made.remove_file("not there");
    EXPECT_TRUE(boost::filesystem::is_empty(root_ / "made"));
}

TEST_F(Directories, DefaultOnesAreNotOpen) {
    directory other;
    EXPECT_FALSE(other.is_open());
    other = make();
    EXPECT_TRUE(other.is_open());
    EXPECT_GE(other.native_handle(), 0);
}

} // namespace
