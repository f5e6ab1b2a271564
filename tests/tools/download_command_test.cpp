// `playfile localise`, `playfile download` and `playfile reveal` as a person runs them on a
// project made by `playfile import` from media in a folder counted as remote: the files
// they write, the settings file, free-space checks on a small file system, a download
// killed with SIGKILL and run again, two downloads into one folder at once, Ctrl-C, and
// the usage errors.
#include "support/ProgramRun.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

using namespace testing_support;
using json = nlohmann::ordered_json;
namespace fs = std::filesystem;

namespace {

class DownloadCommands : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(PLAYFILE_BUILD_DIR "/tools/playfile")) GTEST_SKIP() << "playfile not built";
        project = " --project " + shellQuote(tmp.file("proj"));
        remote = tmp.path() / "remote";
        fs::create_directories(remote);
        ::setenv("PLAYFILE_REMOTE_PREFIXES", remote.c_str(), 1);
        ASSERT_EQ(playfile(tmp, "drives add A " + shellQuote(tmp.file("drive A")) + project).status, 0);
    }
    void TearDown() override { ::unsetenv("PLAYFILE_REMOTE_PREFIXES"); }

    // Imports a remote file of n bytes (linked where it is); answers the clip's cookie.
    std::string clip(const std::string& name, size_t n) {
        writePatternedFile(remote / name, n);
        Outcome o = playfile(tmp, "import " + shellQuote((remote / name).string()) + " --video 1 --audio 1" + project);
        EXPECT_EQ(o.status, 0) << (o.err.empty() ? "" : o.err[0]);
        return json::parse(playfile(tmp, "clips --json" + project).out).back()["cookie"];
    }
    Outcome run(const std::string& args) { return playfile(tmp, args + project); }
    // Waits until `file` + ".partial" holds at least `bytes`, then sends the signal to
    // each process; false when they ended first.
    static bool signalMidFile(const std::vector<pid_t>& pids, const fs::path& file, uint64_t bytes, int signal) {
        const fs::path partial = file.string() + ".partial";
        for (auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
             std::chrono::steady_clock::now() < limit;) {
            std::error_code ec;
            if (fs::file_size(partial, ec) >= bytes && !ec) {
                for (pid_t pid : pids) ::kill(pid, signal);
                return true;
            }
            if (::waitpid(pids[0], nullptr, WNOHANG) == pids[0]) return false;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return false;
    }
    // Every file of the folder: none is a ".partial", each is as long as its source.
    static void expectWhole(const fs::path& folder, const std::map<std::string, fs::path>& sources) {
        size_t n = 0;
        for (const auto& e : fs::directory_iterator(folder)) {
            const std::string name = e.path().filename().string();
            EXPECT_EQ(name.find(".partial"), std::string::npos) << name;
            auto it = sources.find(name);
            if (it == sources.end()) continue;
            ++n;
            EXPECT_EQ(readFile(e.path()), readFile(it->second)) << name;
        }
        EXPECT_EQ(n, sources.size());
    }

    TempDir tmp{"playfile-download-command"};
    std::string project;
    fs::path remote;
};

} // namespace

TEST_F(DownloadCommands, LocaliseDownloadAndRevealOnAnImportedProject) {
    const std::string a = clip("a.mov", 3000), b = clip("b.mov", 5000);
    Outcome o = run("download " + a + " b --location " + shellQuote(tmp.file("out")) + " --naming file --proxy-ext m4v" +
                    " --save-settings " + shellQuote(tmp.file("s.json")));
    ASSERT_EQ(o.status, 0) << (o.err.empty() ? "" : o.err[0]);
    EXPECT_NE(o.out.find("2 file(s) copied"), std::string::npos) << o.out;
    expectWhole(tmp.file("out"), {{"a.mov", remote / "a.mov"}, {"b.mov", remote / "b.mov"}});
    EXPECT_EQ(json::parse(readFile(tmp.file("s.json"))),
              json::parse(R"({"Location":")" + tmp.file("out") + R"(","ProxyExt":"m4v","Naming":"file"})"));

    // The settings file, with the naming changed on the command line.
    o = run("download a --settings " + shellQuote(tmp.file("s.json")) + " --naming clip");
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(readFile(tmp.file("out/a.mov")), readFile(remote / "a.mov"));

    o = run("localise b");
    ASSERT_EQ(o.status, 0) << (o.err.empty() ? "" : o.err[0]);
    json clips = json::parse(run("clips --json").out);
    EXPECT_TRUE(clips[0]["files"][0]["remote"]);
    EXPECT_FALSE(clips[1]["files"][0]["remote"]);
    EXPECT_EQ(clips[1]["files"][0]["physical"], tmp.file("drive A/video/b.mov"));
    o = run("localise");
    EXPECT_EQ(o.status, 0);
    EXPECT_NE(o.out.find("1 file(s) copied"), std::string::npos) << o.out;
    EXPECT_EQ(readFile(tmp.file("drive A/video/a.mov")), readFile(remote / "a.mov"));
    EXPECT_EQ(readFile(remote / "a.mov").size(), 3000u) << "the remote file stays";

    // Reveal, observed through the configured program.
    writeFile(tmp.file("reveal.sh"), "#!/bin/sh\necho \"$@\" > " + shellQuote(tmp.file("revealed.txt")) + "\n");
    fs::permissions(tmp.file("reveal.sh"), fs::perms::owner_all);
    const std::string reveal = "PLAYFILE_RevealCommand=" + shellQuote(tmp.file("reveal.sh"));
    o = playfile(tmp, "reveal a" + project, reveal);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(readFile(tmp.file("revealed.txt")), tmp.file("drive A/video/a.mov") + "\n");
    fs::remove(tmp.file("drive A/video/b.mov"));
    fs::remove(tmp.file("revealed.txt"));
    o = playfile(tmp, "reveal b" + project, reveal);
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err.size(), 1u);
    EXPECT_FALSE(fs::exists(tmp.file("revealed.txt")));

    writeFile(tmp.file("bad.json"), "{\"Location\": \"/x\", \"ProxyExt\": \"\"}");
    writeFile(tmp.file("broken.json"), "{\"Location\": ");
    for (const std::string& bad : std::vector<std::string>{"download a", "download --location x", "download a --location x --naming Clip", "download a --location x --proxy-ext ''",
          "download a --settings " + shellQuote(tmp.file("bad.json")), "download a --settings " + shellQuote(tmp.file("broken.json")),
          "download a --settings " + shellQuote(tmp.file("none.json")), "download nosuch --location x",
          "localise nosuch", "localise --to Z", "localise --to AB", "reveal", "reveal a b", "reveal nosuch"}) {
        SCOPED_TRACE(bad);
        o = run(bad);
        EXPECT_EQ(o.status, 2);
        EXPECT_EQ(o.err.size(), 1u);
    }
}

// Free space on a small file system of its own (a private mount): the download needs
// strictly less than the free bytes, localising onto a drive the free bytes at most; a
// copy that hits a size limit says the disk is full and leaves nothing.
TEST_F(DownloadCommands, FreeSpaceChecksAndAFullDisk) {
    const std::string a = clip("a.mov", 1000), b = clip("b.mov", 3 << 20), c = clip("c.mov", 1000);
    const std::string program = shellQuote(PLAYFILE_BUILD_DIR "/tools/playfile");
    const std::string mnt = tmp.file("small"), out = tmp.file("out.txt");
    fs::create_directories(mnt);
    // Inside the mount: the source grows (sparse) to exactly the free bytes, then a
    // download there is refused and a localise onto a drive there goes ahead.
    const std::string script =
        "export PLAYFILE_LOG=" + shellQuote(tmp.file("playfile.log")) + "\n" +
        "mount -t tmpfs -o size=4m playfile-test " + shellQuote(mnt) + " || exit 99\n" +
        program + " drives add B " + shellQuote(mnt + "/B") + project + " >/dev/null\n" +
        "mkdir " + shellQuote(mnt + "/dl") + "\n" +
        "free=$(( $(stat -f -c '%a' " + shellQuote(mnt) + ") * $(stat -f -c '%S' " + shellQuote(mnt) + ") ))\n" +
        "truncate -s $free " + shellQuote((remote / "a.mov").string()) + "\n" + "echo free=$free\n" +
        program + " download " + a + " --location " + shellQuote(mnt + "/dl") + project + "; echo download=$?\n" +
        program + " localise " + a + " --to B" + project + "; echo localise=$?\n" +
        "ls -A " + shellQuote(mnt + "/B/video") + "\n" +
        "free=$(( $(stat -f -c '%a' " + shellQuote(mnt) + ") * $(stat -f -c '%S' " + shellQuote(mnt) + ") ))\n" +
        "truncate -s $(( free + 1 )) " + shellQuote((remote / "c.mov").string()) + "\n" +
        program + " localise " + c + " --to B" + project + "; echo more=$?\n";
    writeFile(tmp.file("space.sh"), script);
    const CommandResult r = runCommand("unshare -m sh " + shellQuote(tmp.file("space.sh")) + " 2>&1");
    if (r.exitCode == 99) GTEST_SKIP() << "cannot mount a tmpfs here: " << r.out;
    const std::string free = r.out.substr(r.out.find("free=") + 5, r.out.find('\n') - r.out.find("free=") - 5);
    EXPECT_NE(r.out.find("Not enough space on the destination drive: "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(free + " bytes) free, "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("download=1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("localise=0"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\na.mov\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("more=1"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("c.mov"), std::string::npos) << r.out;
    size_t refusals = 0;
    for (const std::string& l : lines(r.out)) refusals += l.find("Not enough space") != std::string::npos;
    EXPECT_EQ(refusals, 4u) << "each refusal: its log line, and one line on standard error\n" << r.out;

    // A size limit below the file's size: the write fails as a full disk would.
    const CommandResult full = runCommand("ulimit -f 1024; PLAYFILE_LOG=" + shellQuote(tmp.file("playfile.log")) + " " + program + " download " + b + " --location " +
                                          shellQuote(tmp.file("dl")) + project + " 2>&1");
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_NE(full.out.find("There is not enough space on the disk (error 2)"), std::string::npos) << full.out;
    EXPECT_TRUE(fs::is_empty(tmp.file("dl")));
}

TEST_F(DownloadCommands, AKilledDownloadRunAgainCompletesAndTwoAtOnceBothComplete) {
    const std::string big = clip("big.mov", size_t(64) << 20), small = clip("small.mov", 64 << 10);
    const fs::path location = tmp.path() / "location";
    const std::vector<std::string> args = {"download", "--project", tmp.file("proj"), big,
                                           small,      "--location", location.string()};
    pid_t pid = startPlayfile(tmp, args);
    if (!signalMidFile({pid}, location / "big.mov", 8 << 20, SIGKILL)) {
        exitOf(pid);
        GTEST_SKIP() << "the copy finished before it could be caught in the middle";
    }
    EXPECT_EQ(exitOf(pid), -SIGKILL);
    EXPECT_FALSE(fs::exists(location / "big.mov")) << "no short file under its final name";

    Outcome again = run("download " + big + " " + small + " --location " + shellQuote(location.string()));
    EXPECT_EQ(again.status, 0) << (again.err.empty() ? "" : again.err[0]);
    EXPECT_NE(again.out.find("Discarded an unfinished copy left by an earlier run: " + (location / "big.mov").string() +
                             ".partial"),
              std::string::npos)
        << again.out;
    expectWhole(location, {{"big.mov", remote / "big.mov"}, {"small.mov", remote / "small.mov"}});

    // Two processes into one folder at once.
    const fs::path shared = tmp.path() / "shared";
    std::vector<std::string> to = args;
    to.back() = shared.string();
    const pid_t first = startPlayfile(tmp, to, "1"), second = startPlayfile(tmp, to, "2");
    EXPECT_EQ(exitOf(first), 0) << readFile(tmp.file("1stderr.txt"));
    EXPECT_EQ(exitOf(second), 0) << readFile(tmp.file("2stderr.txt"));
    expectWhole(shared, {{"big.mov", remote / "big.mov"}, {"small.mov", remote / "small.mov"}});
}

TEST_F(DownloadCommands, CtrlCStopsTheCopyInHandAndRemovesItsPartial) {
    const std::string big = clip("big.mov", size_t(96) << 20);
    const fs::path location = tmp.path() / "location";
    pid_t pid = startPlayfile(tmp, {"localise", "--project", tmp.file("proj"), big, "--to", "A"});
    const fs::path dst = tmp.path() / "drive A" / "video" / "big.mov";
    if (!signalMidFile({pid}, dst, 8 << 20, SIGINT)) {
        exitOf(pid);
        GTEST_SKIP() << "the copy finished before it could be caught in the middle";
    }
    EXPECT_EQ(exitOf(pid), 1);
    const std::vector<std::string> err = lines(readFile(tmp.file("stderr.txt")));
    ASSERT_EQ(err.size(), 1u);
    EXPECT_NE(err[0].find("stopped"), std::string::npos) << err[0];
    EXPECT_FALSE(fs::exists(dst));
    EXPECT_FALSE(fs::exists(dst.string() + ".partial"));
    json clips = json::parse(run("clips --json").out);
    EXPECT_TRUE(clips[0]["files"][0]["remote"]) << "the clip stays on its remote media";
}
