// `playfile relocate` as a person runs it on a project made by `playfile import`: the
// JSON outcome and the human output, usage errors, a relocation killed with SIGKILL in
// the middle of a large file (and run again), and Ctrl-C stopping between files.
#include "support/ProgramRun.h"

#include "host/core/Strings.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectDatabase.h"
#include "host/project/SystemCache.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <thread>

using namespace testing_support;
using json = nlohmann::ordered_json;
namespace fs = std::filesystem;

namespace {

class RelocateCommand : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(PLAYFILE_BUILD_DIR "/tools/playfile")) GTEST_SKIP() << "playfile not built";
        project = " --project " + shellQuote(tmp.file("proj"));
        driveB = tmp.path() / "drive B";
        ASSERT_EQ(playfile(tmp, "drives add A " + shellQuote(tmp.file("drive A")) + project).status, 0);
        ASSERT_EQ(playfile(tmp, "drives add B " + shellQuote(driveB.string()) + " --tasks render" + project).status, 0);
    }
    // Imports a file of n bytes (linked where it is); answers the clip's cookie and the
    // path of its material file on a drive.
    std::pair<std::string, std::string> clip(const std::string& name, size_t n) {
        fs::create_directories(tmp.path() / "src");
        writePatternedFile(tmp.path() / "src" / name, n);
        EXPECT_EQ(playfile(tmp, "import " + shellQuote(tmp.file("src/" + name)) + " --video 1 --audio 0" + project).status,
                  0);
        json clips = json::parse(playfile(tmp, "clips --json" + project).out);
        const json& last = clips.back();
        return {last["cookie"], last["files"][0]["path"]};
    }
    Outcome run(const std::string& args) { return playfile(tmp, "relocate" + project + " " + args); }

    // Starts the program on its own; answers its process id.
    pid_t start(const std::string& args) {
        std::vector<std::string> words = {"relocate", "--project", tmp.file("proj")};
        for (size_t at = 0, next; at < args.size(); at = next + 1) {
            next = args.find(' ', at);
            if (next == std::string::npos) next = args.size();
            if (next > at) words.push_back(args.substr(at, next - at));
        }
        return startPlayfile(tmp, words);
    }
    // Waits until the copy of the file at rel on drive B is under way (its temporary holds
    // at least `bytes`), then sends the signal; false when the program ended first.
    bool signalMidFile(pid_t pid, const std::string& rel, uint64_t bytes, int signal) {
        const fs::path folder = (driveB / rel).parent_path();
        const std::string prefix = "." + fs::path(rel).filename().string() + ".";
        for (auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
             std::chrono::steady_clock::now() < limit;) {
            std::error_code ec;
            for (const auto& e : fs::directory_iterator(folder, ec)) {
                if (e.path().filename().string().rfind(prefix, 0) == 0 && e.file_size(ec) >= bytes) {
                    ::kill(pid, signal);
                    return true;
                }
            }
            if (::waitpid(pid, nullptr, WNOHANG) == pid) return false;
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        return false;
    }
    // The names of the temporaries beside the file at rel on drive B.
    std::vector<std::string> temporariesOf(const std::string& rel) const {
        std::vector<std::string> out;
        const std::string prefix = "." + fs::path(rel).filename().string() + ".";
        std::error_code ec;
        for (const auto& e : fs::directory_iterator((driveB / rel).parent_path(), ec))
            if (e.path().filename().string().rfind(prefix, 0) == 0) out.push_back(e.path().filename().string());
        return out;
    }

    TempDir tmp{"playfile-relocate-command"};
    std::string project;
    fs::path driveB;
};

} // namespace

TEST_F(RelocateCommand, JsonOutcomeHumanOutputAndUsageErrors) {
    auto [a, aPath] = clip("a.mov", 3000);
    auto [b, bPath] = clip("b.mov", 5000);
    Outcome o = run("--to B " + a + " " + b + " --json");
    ASSERT_EQ(o.status, 0) << (o.err.empty() ? "" : o.err[0]);
    json j = json::parse(o.out);
    std::vector<std::string> texts;
    for (const auto& l : j["lines"]) texts.push_back(l["text"]);
    EXPECT_EQ(texts, (std::vector<std::string>{"Building file list",
                                               "Source contains 2 item(s), referencing 2 material file(s)", "",
                                               "2 file(s) to process", "", "Material copy finished."}));
    EXPECT_EQ(j["outcome"], "done");
    EXPECT_EQ(j["files"], 2);
    EXPECT_EQ(j["failures"], 0);
    EXPECT_EQ(j["bytes"], 8000);
    EXPECT_EQ(readFile(driveB / aPath), readFile(tmp.path() / "src" / "a.mov"));

    o = run("--to B " + a + " " + b + " --move");
    EXPECT_EQ(o.status, 0);
    EXPECT_NE(o.out.find("== Building file list\n"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("2 file(s) processed, 0 failed"), std::string::npos) << o.out;
    o = run("--to A --from B");
    EXPECT_EQ(o.status, 0);
    EXPECT_NE(o.out.find("There is no material to relocate."), std::string::npos) << o.out;

    for (const std::string& bad : std::vector<std::string>{a, "--to B", "--to B --from A " + a, "--to Z " + a,
                                                           "--to B nosuchclip", "--to BB " + a, "--to B --from B", "--to 0 " + a}) {
        SCOPED_TRACE(bad);
        o = run(bad);
        EXPECT_EQ(o.status, 2);
        EXPECT_EQ(o.err.size(), 1u);
    }
}

// Killed in the middle of a large file: no file under its final name that is not whole,
// a sound project database still naming the old place for the file whose move did not
// complete; run again, it completes.
TEST_F(RelocateCommand, KilledMidFileLeavesNothingHalfDoneAndARunAgainCompletes) {
    auto [s1, s1Path] = clip("s1.mov", 64 << 10);
    auto [s2, s2Path] = clip("s2.mov", 64 << 10);
    auto [big, bigPath] = clip("big.mov", size_t(160) << 20);
    const std::string args = "--to B " + s1 + " " + s2 + " " + big + " --move";
    pid_t pid = start(args);
    if (!signalMidFile(pid, bigPath, 16 << 20, SIGKILL)) {
        exitOf(pid);
        GTEST_SKIP() << "the copy finished before it could be caught in the middle";
    }
    EXPECT_EQ(exitOf(pid), -SIGKILL);

    for (const auto& [rel, name] : {std::pair{s1Path, "s1.mov"}, {s2Path, "s2.mov"}, {bigPath, "big.mov"}}) {
        if (fs::exists(driveB / rel)) {
            EXPECT_EQ(fs::file_size(driveB / rel), fs::file_size(tmp.path() / "src" / name));
        }
    }
    EXPECT_FALSE(fs::exists(driveB / bigPath));
    {
        WString error;
        ASSERT_TRUE(EditManager::openProject(fromUTF8(tmp.file("proj").c_str()), false, &error)) << toUTF8(error).c_str();
        {
            ProjectDatabase::Read r(*EditManager::getProjdb());
            sql::Query q(r.db(), "PRAGMA integrity_check");
            ASSERT_TRUE(q.next());
            EXPECT_EQ(q.text(0).str(), "ok");
        }
        auto driveOf = [](const std::string& clip) {
            Cookie c(String(clip.c_str()), false);
            auto entry = SystemCache::findEntryForCookie(convertCookie(c, 'V', 0));
            return entry && entry->hasFile() ? entry->getFile().getMaterialFilename().getDriveChar() : '?';
        };
        // The small files may or may not have been committed before the kill; the
        // directory names the new place only for a whole file there.
        for (const auto& [clip, rel] : {std::pair{s1, s1Path}, {s2, s2Path}}) {
            const char d = driveOf(clip);
            EXPECT_TRUE(d == 'A' || (d == 'B' && fs::exists(driveB / rel))) << clip << " on " << d;
        }
        EXPECT_EQ(driveOf(big), 'A') << "its move did not complete";
        EditManager::closeProject();
    }
    EXPECT_FALSE(temporariesOf(bigPath).empty()) << "the killed copy's temporary is there to be removed";

    Outcome again = run(args);
    EXPECT_EQ(again.status, 0) << (again.err.empty() ? "" : again.err[0]);
    EXPECT_EQ(fs::file_size(driveB / bigPath), fs::file_size(tmp.path() / "src" / "big.mov"));
    json clips = json::parse(playfile(tmp, "clips --json" + project).out);
    for (const auto& c : clips) EXPECT_EQ(c["files"][0]["drive"], "B") << c["name"];
    for (const auto& rel : {s1Path, s2Path, bigPath}) EXPECT_EQ(temporariesOf(rel), std::vector<std::string>{}) << rel;
}

TEST_F(RelocateCommand, CtrlCStopsBetweenFilesAndSaysSo) {
    auto [big, bigPath] = clip("big.mov", size_t(96) << 20);
    auto [after, afterPath] = clip("after.mov", 1000);
    pid_t pid = start("--to B " + big + " " + after);
    if (!signalMidFile(pid, bigPath, 8 << 20, SIGINT)) {
        exitOf(pid);
        GTEST_SKIP() << "the copy finished before it could be caught in the middle";
    }
    EXPECT_EQ(exitOf(pid), 1);
    const std::vector<std::string> err = lines(readFile(tmp.file("stderr.txt")));
    ASSERT_EQ(err.size(), 1u);
    EXPECT_NE(err[0].find("stopped"), std::string::npos) << err[0];
    EXPECT_EQ(fs::file_size(driveB / bigPath), fs::file_size(tmp.path() / "src" / "big.mov")) << "the file in hand ends";
    EXPECT_FALSE(fs::exists(driveB / afterPath)) << "the next one does not start";
    EXPECT_NE(readFile(tmp.file("stdout.txt")).find("Material copy finished."), std::string::npos);
}
