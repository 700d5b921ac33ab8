// What becomes of a directory; the tool's tests interrupt changes at every operation.
#include "container/ChangeJournal.hpp"
#include "container/ChangePlan.hpp"
#include "tests/container/ExportFixture.hpp"

namespace container_tests {
namespace {

using Kelvane::ChangeJournal;
using Kelvane::Recovery;

using Tree = std::map<std::string, std::string>;

class Journal : public testing::Test {
  protected:
    Journal() {
        fs::create_directory(root_);
        for (const auto &[name, content] :
             {std::pair("Manifest.db", "old manifest"), std::pair("ab/abcd", "old content"),
              std::pair("cd/cdef", "to be removed")}) {
            write(name, content);
        }
        before_ = ReadTree(root_);
        directory_ = ZK::file::directory::open(root_);
    }

    void write(const std::string &name, const std::string &content) const {
        fs::create_directories(fs::path(root_ + "/" + name).parent_path());
        std::ofstream(root_ + "/" + name, std::ios::binary) << content;
    }
    void put(ChangeJournal &journal, const std::string &name, const std::string &content) const {
        temporary_.write("content", content);
        journal.Put(name, Kelvane::StoredContent(
                              ZK::file::readable_file((temporary_ / "content").string())));
    }
    // The change that the tests begin with.
    void fill(ChangeJournal &journal) const {
        put(journal, "ab/abcd", "new content");
        put(journal, "ef/efgh", "added content");
        put(journal, "Manifest.db", "new manifest");
        journal.Remove("cd/cdef");
    }
    void expectCode(KVError code, const std::function<void()> &step) const {
        try {
            step();
            ADD_FAILURE() << "it was done";
        } catch (const CF::Error &error) {
            EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(code));
        }
    }

    const testing_support::TemporaryDirectory temporary_;
    const std::string root_ = (temporary_ / "backup").string();
    const Tree after_ = {
        {"Manifest.db", "new manifest"}, {"ab/abcd", "new content"}, {"ef/efgh", "added content"}};
    Tree before_;
    ZK::file::directory directory_;
};

TEST_F(Journal, ThatIsCommittedChangesEverything) {
    ChangeJournal journal(directory_, "Manifest.db");
    EXPECT_TRUE(journal.IsEmpty());
    fill(journal);
    EXPECT_EQ(journal.BytesWritten(), 11u + 13u + 12u);
    bool decided = false;
    journal.Commit(decided);
    EXPECT_TRUE(decided);
    EXPECT_EQ(ReadTree(root_), after_);
    EXPECT_FALSE(Kelvane::HoldsJournal(directory_));
}

TEST_F(Journal, ThatIsDroppedChangesNothing) {
    {
        ChangeJournal journal(directory_, "Manifest.db");
        fill(journal);
        EXPECT_TRUE(Kelvane::HoldsJournal(directory_));
    }
    EXPECT_EQ(ReadTree(root_), before_);
    EXPECT_FALSE(fs::exists(root_ + "/ef"));
    EXPECT_FALSE(Kelvane::HoldsJournal(directory_));
}

TEST_F(Journal, IsOneAtATime) {
    const ChangeJournal journal(directory_, "Manifest.db");
    expectCode(kKVErrorWriteRepresentation,
               [&] { const ChangeJournal other(directory_, "Manifest.db"); });
}

TEST_F(Journal, NeedsTheModel) {
    expectCode(kKVErrorFilesystem, [&] { const ChangeJournal journal(directory_, "none"); });
    EXPECT_FALSE(Kelvane::HoldsJournal(directory_));
}

TEST_F(Journal, DoesNotReplaceDirectories) {
    ChangeJournal journal(directory_, "Manifest.db");
    expectCode(kKVErrorWriteRepresentation, [&] { put(journal, "ab", "content"); });
    expectCode(kKVErrorWriteRepresentation, [&] { journal.Remove("cd"); });
}

TEST_F(Journal, ReplacesLinksAndFollowsNone) {
    write("../outside", "not to be touched");
    fs::create_symlink("../../outside", root_ + "/ab/link");
    fs::create_directory_symlink("../outside folder", root_ + "/zz");
    ChangeJournal journal(directory_, "Manifest.db");
    put(journal, "ab/link", "content");
    expectCode(kKVErrorFilesystem, [&] { put(journal, "zz/file", "content"); });
    bool decided = false;
    journal.Commit(decided);
    EXPECT_FALSE(fs::is_symlink(root_ + "/ab/link"));
    EXPECT_EQ(ReadTree(temporary_.path().string()).at("outside"), "not to be touched");
}

TEST_F(Journal, OfNothingIsNothingToRecover) {
    EXPECT_EQ(Kelvane::RecoverChange(directory_), Recovery::None);
}

TEST_F(Journal, ThatWasNotDecidedIsTakenBack) {
    write(".kelvane-journal/new-0", "content");
    write(".kelvane-journal/plan.new", "a plan");
    EXPECT_EQ(Kelvane::RecoverChange(directory_), Recovery::TakenBack);
    EXPECT_EQ(ReadTree(root_), before_);
    EXPECT_FALSE(fs::exists(root_ + "/.kelvane-journal"));
}

TEST_F(Journal, ThatWasDecidedIsCompletedFromAnyPoint) {
    write(".kelvane-journal/plan",
          Kelvane::FormatPlan(
              {{true, 0, "ab/abcd"}, {true, 1, "Manifest.db"}, {false, 0, "cd/cdef"}}));
    // The first has its place already.
    write("ab/abcd", "new content");
    write(".kelvane-journal/new-1", "new manifest");
    EXPECT_EQ(Kelvane::RecoverChange(directory_), Recovery::Completed);
    EXPECT_EQ(ReadTree(root_), (Tree{{"Manifest.db", "new manifest"}, {"ab/abcd", "new content"}}));
}

TEST_F(Journal, WithADamagedPlanIsLeftAlone) {
    write(".kelvane-journal/plan", "kelvane changes 1\nremove 00\n");
    const Tree before = ReadTree(root_);
    expectCode(kKVErrorInvalidBackup, [&] { Kelvane::RecoverChange(directory_); });
    EXPECT_EQ(ReadTree(root_), before);
}

TEST_F(Journal, ThatIsALinkIsNotFollowed) {
    write("../elsewhere/plan", Kelvane::FormatPlan({{false, 0, "Manifest.db"}}));
    fs::create_directory_symlink("../elsewhere", root_ + "/.kelvane-journal");
    expectCode(kKVErrorFilesystem, [&] { Kelvane::RecoverChange(directory_); });
    EXPECT_EQ(ReadTree(root_), before_);
}

TEST_F(Journal, RemovesNothingOverALink) {
    write("../elsewhere/file", "not to be touched");
    fs::create_directory_symlink("../elsewhere", root_ + "/zz");
    write(".kelvane-journal/plan", Kelvane::FormatPlan({{false, 0, "zz/file"}}));
    expectCode(kKVErrorFilesystem, [&] { Kelvane::RecoverChange(directory_); });
    EXPECT_TRUE(fs::exists((temporary_ / "elsewhere/file").string()));
}

TEST_F(Journal, LocksOutASecondWriter) {
    directory_.lock();
    const auto other = ZK::file::directory::open(root_);
    try {
        other.lock();
        ADD_FAILURE() << "both have the lock";
    } catch (const boost::system::system_error &failure) {
        EXPECT_EQ(failure.code(), boost::system::errc::operation_would_block);
    }
}

} // namespace
} // namespace container_tests
