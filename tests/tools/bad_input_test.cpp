// Bad files and bad arguments: every command that reads a file, given a missing file, a
// folder, an unreadable file, an empty file or garbage, says so in one line on standard
// error and exits with 1; a bad command line gives one line and 2; nothing crashes.
#include "support/ProgramRun.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <unistd.h>

using namespace testing_support;

namespace {

void expectOneLine(const Outcome& r, int status, const std::string& context, const std::string& mentions = "") {
    EXPECT_EQ(r.status, status) << context;
    ASSERT_EQ(r.err.size(), 1u) << context << (r.err.empty() ? std::string() : ": " + r.err[0] + " ...");
    EXPECT_EQ(r.err[0].rfind("playfile: ", 0), 0u) << context << ": " << r.err[0];
    EXPECT_NE(r.err[0].find(mentions), std::string::npos) << context << ": " << r.err[0];
}

} // namespace

TEST(BadFiles, EveryCommandReportsOneLineAndStatusOne) {
    TempDir dir;
    namespace fs = std::filesystem;
    // The program may run as another user (below), so the folder is open to everyone.
    fs::permissions(dir.path(), fs::perms::all);
    std::string garbage(6000, '\0');
    std::mt19937 rng(11);
    for (char& c : garbage) c = char(rng());
    std::ofstream(dir.file("garbage.mov"), std::ios::binary) << garbage;
    std::ofstream(dir.file("empty.mp4"));
    fs::create_directory(dir.file("folder.mov"));
    std::ofstream(dir.file("locked.wav")) << "RIFF";
    fs::permissions(dir.file("locked.wav"), fs::perms::none);
    // Root reads any file: the unreadable case then runs as an unprivileged user.
    std::string asUser;
    if (geteuid() == 0 && runCommand("command -v setpriv").exitCode == 0)
        asUser = "setpriv --reuid=65534 --regid=65534 --clear-groups";

    const std::vector<std::pair<std::string, std::string>> files = {
        {dir.file("missing.mp4"), "no such file"}, {dir.file("folder.mov"), "is a directory"},
        {dir.file("empty.mp4"), "is empty"},       {dir.file("garbage.mov"), ""},
        {dir.file("locked.wav"), "cannot be read"}};
    const std::vector<std::string> commands = {"probe F",         "probe --json F",      "frames F --md5",
                                               "audio F --md5",   "header show F",       "header parse F",
                                               "header lookup k --in F", "bench sequential F", "bench preopen F",
                                               "import F --project P"};
    for (const auto& [file, why] : files) {
        const bool locked = file.find("locked") != std::string::npos;
        if (locked && geteuid() == 0 && asUser.empty()) continue;
        for (std::string command : commands) {
            command.replace(command.find(" F") + 1, 1, shellQuote(file));
            // A project of its own, made by the user the command runs as.
            if (const size_t p = command.find(" P"); p != std::string::npos)
                command.replace(p + 1, 1, shellQuote(file + ".project"));
            const Outcome r = playfile(dir, command, locked ? asUser : "");
            expectOneLine(r, 1, command, why);
            if (command.find("--json") == std::string::npos) {
                EXPECT_EQ(r.out, "") << command;
            }
        }
    }
}

TEST(BadFiles, ReadsOutsideTheMediaAreFailuresNamingTheLimit) {
    TempDir dir;
    const std::string y4m = dir.file("short.y4m"), wav = dir.file("short.wav");
    ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc2=size=64x48:rate=25:duration=0.2 " + shellQuote(y4m)));
    ASSERT_TRUE(ffmpeg("-f lavfi -i sine=r=8000:d=0.1 " + shellQuote(wav)));
    expectOneLine(playfile(dir, "frames " + shellQuote(y4m) + " --start 5"), 1, "start past the end", "has 5 frames");
    expectOneLine(playfile(dir, "frames " + shellQuote(y4m) + " --start 3 --count 3"), 1, "run past the end");
    expectOneLine(playfile(dir, "frames " + shellQuote(wav)), 1, "no video");
    expectOneLine(playfile(dir, "audio " + shellQuote(y4m)), 1, "no audio");
    expectOneLine(playfile(dir, "audio " + shellQuote(wav) + " --stream 1"), 1, "no stream", "no stream 1");
    expectOneLine(playfile(dir, "audio " + shellQuote(wav) + " --channel 1"), 1, "no channel", "no channel 1");
    expectOneLine(playfile(dir, "audio " + shellQuote(wav) + " --start 800"), 1, "samples past the end");
    expectOneLine(playfile(dir, "frames " + shellQuote(y4m) + " --out " + shellQuote(wav)), 1, "out is a file");
}

TEST(BadArguments, EachGivesOneLineAndStatusTwo) {
    TempDir dir;
    const std::string f = dir.file("any.y4m");
    ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc2=size=64x48:rate=25:duration=0.2 " + shellQuote(f)));
    const std::string q = shellQuote(f);
    for (const std::string& args : std::vector<std::string>{"", "nosuch", "probe", "probe " + q + " --json=yes", "frames", "frames " + q + " " + q + " --out d", "audio " + q + " " + q + " --out o.wav",
          "frames " + q + " --count 0", "frames " + q + " --count x", "frames " + q + " --start -1",
          "frames " + q + " --start", "frames " + q + " --format bogus", "frames " + q + " --inflight 65",
          "frames " + q + " --bogus", "frames " + q + " --out d --format yuv420p",
          "frames " + q + " --out d --format rgba --image ppm", "frames " + q + " --image png",
          "frames " + q + " --out d --image gif", "audio", "audio " + q + " --channel x", "audio " + q + " --block 0",
          "audio " + q + " --count 99999999999999999999", "header", "header frob", "header parse",
          "header parse " + q + " --v1 --v2", "header show", "header lookup", "header show " + q + " --v1", "bench",
          "bench fly " + q, "bench random", "bench random " + q + " " + q, "bench sequential " + q + " --passes 0",
          "import " + q, "import --project p", "import " + q + " --project", "import " + q + " --project p --video 2",
          "import " + q + " --project p --frob", "demo extra", "demo --seconds 0", "demo --dir"}) {
        const Outcome r = playfile(dir, args);
        expectOneLine(r, 2, "'" + args + "'");
        EXPECT_EQ(r.out, "") << args;
    }
    // Every command's help is on standard output with status 0.
    for (const char* command : {"probe", "frames", "audio", "header", "import", "bench", "demo"}) {
        const Outcome r = playfile(dir, std::string(command) + " --help");
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_EQ(r.out.rfind(std::string("usage: playfile ") + command, 0), 0u) << command;
        EXPECT_NE(r.out.find("Exit status"), std::string::npos) << command;
    }
}
