// The project under stress: a process killed while importing, and readers (threads and
// another process) working while one writer writes.
#include "ProjectFixture.h"

#include "host/project/ProjectImporter.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <poll.h>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace project_test;
namespace fs = std::filesystem;

namespace {

// Runs body in a child process that has its own connection to the project; the parent
// must have no project open (a connection must not cross a fork). Answers the pid.
template <class F> pid_t inChild(F body) {
    EXPECT_EQ(EditManager::getProjdb(), nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

int waitFor(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

size_t clipCount() { return EditManager::getProjdb()->search(1, Edit::eLogClip).size(); }

class ProjectStress : public ProjectTest {
protected:
    void SetUp() override {
        ProjectTest::SetUp();
        for (int i = 0; i < 60; ++i) files.push_back(source(std::to_string(i) + ".mov", 200));
    }
    std::vector<std::string> files;
};

} // namespace

TEST_F(ProjectStress, AProcessKilledBeforeTheCommitLeavesNoneOfItsClip) {
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(ProjectImporter().importFile(W(files[size_t(i)])).ok);
    EditManager::closeProject();

    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t pid = inChild([&] {
        EditManager::openProject(W(projectDir.string()), false);
        ImportOptions o;
        o.copy = true;
        o.progress = [&](const ImportProgress& p) {
            if (p.stage != ImportProgress::eRegistering) return;
            // The clip's rows are written, not committed: say so, and wait to be killed.
            (void)!write(ready[1], "r", 1);
            for (;;) pause();
        };
        ProjectImporter(o).importFile(W(files[3]));
    });
    pollfd pfd{ready[0], POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 20000), 1) << "the child never reached the commit";
    kill(pid, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(waitFor(pid)));
    close(ready[0]);
    close(ready[1]);

    reopen();
    EXPECT_EQ(clipCount(), 3u);
    EXPECT_EQ(inconsistencies(*EditManager::getProjdb()), "");
    // The project still takes writes after the crash.
    EXPECT_TRUE(ProjectImporter().importFile(W(files[4])).ok);
    EXPECT_EQ(clipCount(), 4u);
}

TEST_F(ProjectStress, ProcessesKilledAtRandomMomentsLeaveWholeClipsOnly) {
    EditManager::closeProject();
    std::mt19937 rng(12345);
    size_t before = 0;
    for (int round = 0; round < 4; ++round) {
        int imported[2];
        ASSERT_EQ(pipe(imported), 0);
        pid_t pid = inChild([&] {
            EditManager::openProject(W(projectDir.string()), false);
            ImportOptions o;
            o.copy = round % 2 == 1;
            for (;;) // until killed
                for (const auto& f : files) {
                    ProjectImporter(o).importFile(W(f));
                    (void)!write(imported[1], "c", 1);
                }
        });
        // Kill at a random moment after the first clip is in, however loaded the machine.
        pollfd pfd{imported[0], POLLIN, 0};
        ASSERT_EQ(poll(&pfd, 1, 20000), 1) << "the child never imported a clip";
        std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 120));
        kill(pid, SIGKILL);
        waitFor(pid);
        close(imported[0]);
        close(imported[1]);
        reopen();
        EXPECT_EQ(inconsistencies(*EditManager::getProjdb()), "") << "round " << round;
        size_t now = clipCount();
        EXPECT_GT(now, before); // the child did get some clips in
        before = now;
        EditManager::closeProject();
    }
}

TEST_F(ProjectStress, ReadingThreadsSeeWholeClipsWhileOneThreadWrites) {
    std::atomic<bool> done{false};
    std::atomic<int> checks{0}, failures{0};
    auto reader = [&] {
        size_t last = 0;
        while (!done.load()) {
            CookieVec clips = EditManager::getProjdb()->search(1, Edit::eLogClip);
            if (clips.size() < last) ++failures;
            last = clips.size();
            for (const Cookie& c : clips) {
                EditPtr e;
                if (!e.i_open(c) || e->getReferences(2).size() != 3) ++failures;
                for (const Cookie& m : e->getReferences(2)) {
                    auto entry = SystemCache::findEntryForCookie(m);
                    if (!entry || !entry->hasFile()) ++failures;
                }
                ++checks;
            }
        }
    };
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) readers.emplace_back(reader);
    for (int i = 0; i < 40; ++i) EXPECT_TRUE(ProjectImporter().importFile(W(files[size_t(i)])).ok);
    done = true;
    for (auto& t : readers) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(checks.load(), 0);
    EXPECT_EQ(clipCount(), 40u);
}

TEST_F(ProjectStress, AnotherProcessWritingIsSeenWholeByReadingThreads) {
    EditManager::closeProject();
    const int kClips = 150;
    pid_t pid = inChild([&] {
        EditManager::openProject(W(projectDir.string()), false);
        ClipRecord r;
        r.file = MediaFileInfo(MaterialFilename(DriveId('A'), W("video/shared.mov")), 200);
        for (int i = 0; i < kClips; ++i) {
            r.name = W("clip " + std::to_string(i));
            ProjectImporter::registerClips({r});
        }
    });
    reopen();
    std::atomic<int> failures{0};
    std::atomic<bool> childDone{false};
    auto reader = [&] {
        while (!childDone.load()) {
            if (!inconsistencies(*EditManager::getProjdb()).empty()) ++failures;
            for (const Cookie& c : EditManager::getProjdb()->search(1, Edit::eLogClip))
                if (Edit::findCookiesForShot(c).size() != 3) ++failures;
        }
    };
    std::thread a(reader), b(reader);
    int status = waitFor(pid);
    childDone = true;
    a.join();
    b.join();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(clipCount(), size_t(kClips));
}
