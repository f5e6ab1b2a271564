// Copy batches: nothing under a final name before the commit, every copy there after it in
// the order added; a copy that fails at the commit does not lose the others; a dropped
// batch leaves nothing; the limits that make it full; and the temporaries of killed
// copies, removed by the next copy to their destination unless a live copy holds them.
#include "host/os/FileCopy.h"
#include "tests/host/file_test_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace file_test;
namespace fs = std::filesystem;

namespace {

using Names = std::vector<WString>;
using RC = iFileManager::eCopyRC;

class CopyBatch : public PosixFiles {
protected:
    std::string at(const std::string& name) const { return tmp.file(name); }
    // Every entry of the folder, hidden temporaries included.
    Names everything() { return fm.listDirectory(W(tmp.path().string()), WString()); }
    // The temporaries beside name.
    Names temporariesOf(const std::string& name) {
        Names out;
        for (const WString& n : everything())
            if (U(n).rfind("." + name + ".", 0) == 0) out.push_back(n);
        return out;
    }
    static std::string U(const WString& w) { return std::string(toUTF8(w).view()); }
};

} // namespace

TEST_F(CopyBatch, CopiesAppearOnlyAtTheCommitInTheOrderAdded) {
    writeFile(at("a"), std::string(3 << 20, 'a'));
    writeFile(at("b"), "");
    writeFile(at("old"), "old");
    auto batch = fm.newCopyBatch();
    std::vector<std::pair<uint64_t, uint64_t>> calls;
    auto progress = [&](uint64_t done, uint64_t total) {
        calls.emplace_back(done, total);
        return true;
    };
    EXPECT_EQ(batch->add(W(at("a")), W(at("a2")), progress, false), iFileManager::eCopyOK);
    EXPECT_EQ(calls.back(), std::make_pair(uint64_t(3) << 20, uint64_t(3) << 20)) << "the data is all written";
    EXPECT_EQ(batch->add(W(at("b")), W(at("b2")), nullptr, false), iFileManager::eCopyOK);
    EXPECT_EQ(batch->add(W(at("a")), W(at("old")), nullptr, true), iFileManager::eCopyOK);
    EXPECT_EQ(batch->add(W(at("missing")), W(at("c2")), nullptr, false), iFileManager::eCopyFailed);
    EXPECT_EQ(everything().size(), 6u) << "three sources and three temporaries";
    EXPECT_EQ(readFile(at("old")), "old");

    std::vector<iCopyBatch::Outcome> outcomes = batch->commit();
    ASSERT_EQ(outcomes.size(), 3u) << "a copy refused at add has no outcome";
    EXPECT_EQ(outcomes[0].dst, W(at("a2")));
    EXPECT_EQ(outcomes[1].dst, W(at("b2")));
    EXPECT_EQ(outcomes[2].src, W(at("a")));
    for (const auto& o : outcomes) EXPECT_EQ(o.rc, iFileManager::eCopyOK);
    EXPECT_EQ(readFile(at("a2")), readFile(at("a")));
    EXPECT_EQ(readFile(at("b2")), "");
    EXPECT_EQ(readFile(at("old")), readFile(at("a")));
    EXPECT_EQ(everything(), (Names{L"a", L"a2", L"b", L"b2", L"old"}));
    EXPECT_TRUE(batch->commit().empty()) << "the batch is empty after its commit";
}

TEST_F(CopyBatch, ADestinationTakenBeforeTheCommitFailsThatCopyAlone) {
    writeFile(at("src"), "new");
    auto batch = fm.newCopyBatch();
    ASSERT_EQ(batch->add(W(at("src")), W(at("taken")), nullptr, false), iFileManager::eCopyOK);
    ASSERT_EQ(batch->add(W(at("src")), W(at("free")), nullptr, false), iFileManager::eCopyOK);
    writeFile(at("taken"), "theirs");
    std::vector<iCopyBatch::Outcome> outcomes = batch->commit();
    ASSERT_EQ(outcomes.size(), 2u);
    EXPECT_EQ(outcomes[0].rc, iFileManager::eCopyFailed);
    EXPECT_EQ(outcomes[1].rc, iFileManager::eCopyOK);
    EXPECT_EQ(readFile(at("taken")), "theirs");
    EXPECT_EQ(readFile(at("free")), "new");
    EXPECT_EQ(everything(), (Names{L"free", L"src", L"taken"}));
}

TEST_F(CopyBatch, ADroppedBatchLeavesNothingAndLimitsMakeItFull) {
    writeFile(at("src"), "0123456789");
    const int descriptors = openDescriptorCount();
    {
        FileCopyOptions options;
        options.batchFiles = 3;
        options.batchBytes = 15;
        FileCopyBatch batch(options);
        EXPECT_EQ(batch.add(W(at("src")), W(at("x")), nullptr, false), iFileManager::eCopyOK);
        EXPECT_FALSE(batch.full());
        EXPECT_EQ(batch.add(W(at("src")), W(at("y")), nullptr, false), iFileManager::eCopyOK);
        EXPECT_TRUE(batch.full()) << "20 bytes waiting";
        options.batchFiles = 1;
        FileCopyBatch byCount(options);
        EXPECT_EQ(byCount.add(W(at("src")), W(at("z")), nullptr, false), iFileManager::eCopyOK);
        EXPECT_TRUE(byCount.full());
    }
    EXPECT_EQ(everything(), (Names{L"src"}));
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

// Leftovers of killed copies beside the destination: which ones the next copy removes.
TEST_F(CopyBatch, TheNextCopyRemovesOnlyItsDestinationsUnheldTemporaries) {
    writeFile(at("src"), "new");
    const std::vector<std::pair<std::string, bool>> cases = {
        {".dst.mov.Ab12Cd", true},     // a killed copy's
        {".dst.mov.zzzzzz", true},
        {".other.mov.Ab12Cd", false},  // another destination's
        {".dst.mov.import", false},    // an import's pending file
        {".dst.mov.Ab12C", false},     // not the shape of a temporary
        {".dst.mov.Ab-2Cd", false},
    };
    // A live copy to the same destination holds its temporary.
    auto live = fm.newCopyBatch();
    ASSERT_EQ(live->add(W(at("src")), W(at("dst.mov")), nullptr, true), iFileManager::eCopyOK);
    for (const auto& [name, removed] : cases) writeFile(at(name), "left");
    ASSERT_EQ(temporariesOf("dst.mov").size(), 6u);

    ASSERT_EQ(fm.copyFile(W(at("src")), W(at("dst.mov")), nullptr, true), iFileManager::eCopyOK);
    for (const auto& [name, removed] : cases) EXPECT_EQ(fs::exists(at(name)), !removed) << name;
    EXPECT_EQ(temporariesOf("dst.mov").size(), 4u) << "the live copy's and three that are not temporaries";
    ASSERT_EQ(live->commit().front().rc, iFileManager::eCopyOK);
    EXPECT_EQ(readFile(at("dst.mov")), "new");
}

// A copy killed before its commit leaves its temporary and nothing under the final name;
// the next copy to that destination removes the temporary and puts the whole file there.
TEST_F(CopyBatch, AKilledCopysTemporaryIsRemovedNeverRenamed) {
    writeFile(at("src"), std::string(1 << 20, 's'));
    pid_t pid = fork();
    if (pid == 0) {
        PosixFileManager child;
        auto batch = child.newCopyBatch();
        if (batch->add(W(at("src")), W(at("dst")), nullptr, false) == iFileManager::eCopyOK) raise(SIGKILL);
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child could not copy";
    EXPECT_FALSE(fs::exists(at("dst")));
    ASSERT_EQ(temporariesOf("dst").size(), 1u);
    ASSERT_EQ(fm.copyFile(W(at("src")), W(at("dst")), nullptr, false), iFileManager::eCopyOK);
    EXPECT_EQ(temporariesOf("dst"), Names{});
    EXPECT_EQ(readFile(at("dst")), readFile(at("src")));
}
