// `playfile import` as a person runs it: exit statuses, messages and the project it
// leaves behind, also when imports are killed; and how the next opening of the project
// tidies up after a killed import.
#include "ProjectFixture.h"
#include "host/project/ImportRecovery.h"
#include "host/project/MaterialRecords.h"
#include "support/ProgramRun.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace project_test;
using testing_support::playfile;
using testing_support::shellQuote;

// A file that is not media, a bad command line and --help are the command-line tests'.
TEST(ImportCommand, ImportsLinkedOrCopiedAndReportsAFailureInOneLine) {
    if (!std::filesystem::exists(PLAYFILE_BUILD_DIR "/tools/playfile")) GTEST_SKIP() << "playfile not built";
    testing_support::TempDir tmp;
    std::string a = makeFile(tmp.path() / "my clip.mov", 700), b = makeFile(tmp.path() / "voice.wav", 300);
    const std::string project = " --project " + shellQuote(tmp.file("proj"));

    // The files are not real media, so the channel layout is given rather than asked for.
    auto linked = playfile(tmp, "import " + shellQuote(a) + " --video 1 --audio 2" + project);
    EXPECT_EQ(linked.status, 0);
    EXPECT_EQ(playfile(tmp, "import " + shellQuote(b) + " --video 0 --audio 2" + project).status, 0);
    EXPECT_NE(linked.out.find("my clip.mov as clip E"), std::string::npos) << linked.out;
    EXPECT_NE(linked.out.find("(linked on drive A)"), std::string::npos) << linked.out;

    const std::string drive = tmp.file("drive b");
    auto copied = playfile(tmp, "import " + shellQuote(a) + " missing.mov --copy --video 1 --audio 4 --drive " +
                                    shellQuote("B=" + drive) + project);
    EXPECT_EQ(copied.status, 1);
    EXPECT_NE(copied.out.find("(copied to drive B)"), std::string::npos) << copied.out;
    EXPECT_EQ(copied.err, std::vector<std::string>{"playfile: import: missing.mov: no such file"});

    ASSERT_TRUE(EditManager::openProject(W((tmp.path() / "proj").string()), false));
    CookieVec clips = EditManager::getProjdb()->search(1, Edit::eLogClip);
    ASSERT_EQ(clips.size(), 3u);
    EXPECT_EQ(Edit::findCookiesForShot(clips[0]).size(), 3u);
    EXPECT_EQ(Edit::findCookiesForShot(clips[1]).size(), 2u); // a sound file: two channels
    EXPECT_EQ(Edit::findCookiesForShot(clips[2]).size(), 5u);
    auto copy = SystemCache::findEntryForCookie(convertCookie(clips[2], 'S', 4));
    ASSERT_TRUE(copy);
    EXPECT_EQ(readFile(U(copy->getPhysicalFilename(false))), readFile(a));
    EXPECT_EQ(U(getPath(copy->getPhysicalFilename(false))), drive + "/video/");
    EXPECT_EQ(inconsistencies(*EditManager::getProjdb()), "");
    EditManager::closeProject();
}

namespace {

namespace fs = std::filesystem;

// Every file and link below the drive's root that the project does not name, as paths
// relative to the root.
std::vector<std::string> unnamedFiles(ProjectDatabase& db, const fs::path& root) {
    std::vector<std::string> out;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) continue;
        const std::string relative = it->path().lexically_relative(root).string();
        ProjectDatabase::Read r(db);
        sql::Query q(r.db(), "SELECT 1 FROM files WHERE path = ?1");
        q.bind(1, relative);
        if (!q.next()) out.push_back(relative);
    }
    return out;
}

std::string integrity(ProjectDatabase& db) {
    ProjectDatabase::Read r(db);
    sql::Query q(r.db(), "PRAGMA integrity_check");
    return q.next() ? q.text(0).str() : "no answer";
}

// Starts the playfile program with args; its pid. Everything the child needs is made
// before the fork: the test process has threads, so the child only calls exec.
pid_t start(const std::vector<std::string>& args, const std::string& log) {
    const std::string program = PLAYFILE_BUILD_DIR "/tools/playfile", logSetting = "PLAYFILE_LOG=" + log;
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> env{const_cast<char*>(logSetting.c_str())};
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "PLAYFILE_LOG=", 13) != 0) env.push_back(*e);
    env.push_back(nullptr);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::execve(argv[0], argv.data(), env.data());
        ::_exit(127);
    }
    ::close(null);
    return pid;
}

} // namespace

// Imports killed at random moments (while starting, copying, storing the clip or naming
// the file), then one normal command: the drive holds only files the project names, and
// the database is sound.
TEST(ImportCommand, KilledImportsLeaveNothingTheProjectDoesNotNameOnceItIsOpenedAgain) {
    if (!fs::exists(PLAYFILE_BUILD_DIR "/tools/playfile")) GTEST_SKIP() << "playfile not built";
    testing_support::TempDir tmp;
    const std::string big = makeFile(tmp.path() / "big.mov", 24 << 20), small = makeFile(tmp.path() / "small.mov", 100);
    const std::string project = tmp.file("proj"), log = tmp.file("playfile.log");
    auto import = [&](const std::string& file, bool copy) {
        std::vector<std::string> args{"import", file, "--video", "1", "--audio", "2", "--project", project};
        if (copy) args.push_back("--copy");
        return start(args, log);
    };
    // How long one import takes here, to kill the others anywhere within it.
    const auto t0 = std::chrono::steady_clock::now();
    int status = -1;
    ASSERT_EQ(::waitpid(import(big, true), &status, 0) > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);
    const auto span = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0);

    std::mt19937 rng(7);
    for (int i = 0; i < 10; ++i) {
        const pid_t pid = import(big, i % 3 != 2);
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % (span.count() + 1)));
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    ASSERT_TRUE(fs::exists(project + "/media"));
    ASSERT_EQ(::waitpid(import(small, false), &status, 0) > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);

    ASSERT_TRUE(EditManager::openProject(W(project), false));
    auto db = EditManager::getProjdb();
    EXPECT_EQ(unnamedFiles(*db, project + "/media"), std::vector<std::string>{});
    EXPECT_EQ(integrity(*db), "ok");
    EXPECT_EQ(inconsistencies(*db), "");
    EditManager::closeProject();
}

using ImportRecovery = OnBothDatabases<ProjectTest>;
PLAYFILE_ON_BOTH_DATABASES(ImportRecovery);

// What a killed import can leave, one case each: the next opening puts a stored clip's
// pending file in place and removes the rest of it, and touches nothing else; while an
// import runs it waits for another opening.
TEST_P(ImportRecovery, AKilledImportsLeftoversArePutInPlaceOrRemovedAndNothingElse) {
    const fs::path video = driveRoot / "video";
    Cookie stored = importClip("stored", source("a.mov"), 0), handedOut;
    {
        ProjectDatabase::Write w(*db());
        handedOut = ProjectDatabase::newCookie(w.db(), 'E');
        ASSERT_TRUE(w.commit());
    }
    // The stored clip's file, as the import names it on drive A.
    const std::string storedName = U(convertCookie(stored, 'V', 0).asWString()) + ".mov";
    {
        ProjectDatabase::Write w(*db());
        MediaFileInfo f(MaterialFilename(DriveId('A'), W("video/" + storedName)), 100);
        ASSERT_TRUE(records::insertFile(w.db(), convertCookie(stored, 'V', 0), records::eHighRes, 1, f));
        ASSERT_TRUE(w.commit());
    }
    const std::string lost = U(convertCookie(handedOut, 'V', 0).asWString()) + ".mov";
    const std::string foreign = "V0badf00d_000003e8_00.mov";
    struct Case {
        std::string name;
        const char* after; // what is left under that name afterwards: "same", "gone", or the new name
    };
    const std::vector<Case> cases = {
        {"." + storedName + ".import", storedName.c_str()}, // stored, then killed before the rename
        {"." + lost + ".import", "gone"},                   // copied, killed before the clip was stored
        {".." + lost + ".import.Ab12Cd", "gone"},           // killed while copying
        {"." + lost + ".import.tmp123_4", "gone"},          // killed while making the link
        {"." + lost + ".Xy34Zw", "gone"},                   // an older build's copy
        {"." + storedName + ".Xy34Zw", "same"},             // a task copying a stored clip's file
        {lost, "gone"},                                     // placed before the clip was stored
        {foreign, "same"},                                  // another project's
        {"notes.txt", "same"},
    };
    for (const Case& c : cases) makeFile(video / c.name, 10);

    {
        ImportLock running(*db(), false);
        const ImportRecoveryReport busy = recoverInterruptedImports(*db());
        EXPECT_TRUE(busy.skipped);
        for (const Case& c : cases) EXPECT_TRUE(fs::exists(video / c.name)) << c.name;
    }
    reopen();
    for (const Case& c : cases) {
        const std::string after = c.after;
        EXPECT_EQ(fs::exists(video / c.name), after == "same") << c.name;
        if (after != "same" && after != "gone") EXPECT_TRUE(fs::exists(video / after)) << c.name;
    }
}
