// Seats sharing one project on a PostgreSQL server through the playfile program: four
// processes importing at once, a fifth listing what they made, and `playfile space`
// editing the remote project space on the server where every seat sees it.
#include "support/PostgresServer.h"
#include "support/ProgramRun.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sys/wait.h>

using namespace testing_support;
namespace fs = std::filesystem;

namespace {

class ServerProjectCommands : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(PLAYFILE_BUILD_DIR "/tools/playfile")) GTEST_SKIP() << "playfile not built";
        if (!server.ok()) GTEST_SKIP() << "no PostgreSQL server for the test: " << server.why();
    }
    long long count(const std::string& sql) { return server.run(sql); }

    TempDir tmp{"playfile-server-project"};
    PostgresDatabase server;
};

TEST_F(ServerProjectCommands, FourSeatsImportingAtOnceLoseNothingAndAFifthSeesItAll) {
    constexpr int kSeats = 4, kFiles = 250;
    std::vector<pid_t> seats;
    for (int s = 0; s < kSeats; ++s) {
        const fs::path folder = tmp.path() / ("seat" + std::to_string(s));
        fs::create_directories(folder);
        std::vector<std::string> args = {"import", "--project", server.uri(), "--drive",
                                         "A=" + (tmp.path() / "drive").string(), "--video", "1", "--audio", "2"};
        for (int f = 0; f < kFiles; ++f) {
            const fs::path file = folder / ("take " + std::to_string(f) + ".mov");
            writeFile(file, "seat " + std::to_string(s) + " file " + std::to_string(f));
            args.push_back(file.string());
        }
        seats.push_back(startPlayfile(tmp, args, "seat" + std::to_string(s)));
        ASSERT_GT(seats.back(), 0);
    }
    std::set<std::string> cookies;
    for (int s = 0; s < kSeats; ++s) {
        int status = -1;
        ASSERT_EQ(::waitpid(seats[size_t(s)], &status, 0), seats[size_t(s)]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << readFile(tmp.path() / ("seat" + std::to_string(s) + "stderr.txt"));
        for (const std::string& line : lines(readFile(tmp.path() / ("seat" + std::to_string(s) + "stdout.txt")))) {
            const size_t at = line.find(" as clip ");
            if (at != std::string::npos) cookies.insert(line.substr(at + 9, line.find(' ', at + 9) - at - 9));
        }
    }
    EXPECT_EQ(cookies.size(), size_t(kSeats * kFiles)) << "a cookie handed out twice, or a clip not reported";

    // Every clip whole: three material entries, each with its file, and the references.
    EXPECT_EQ(count("SELECT count(*) FROM edits WHERE (flags & 1) <> 0"), kSeats * kFiles);
    EXPECT_EQ(count("SELECT count(*) FROM material m JOIN files f USING (id1, id2, type, idx) WHERE f.role = 0"),
              3 * kSeats * kFiles);
    EXPECT_EQ(count("SELECT count(*) FROM edits e WHERE (SELECT count(*) FROM material m WHERE m.id1 = e.id1 AND "
                    "m.id2 = e.id2) <> 3 OR (SELECT count(*) FROM refs r WHERE r.id1 = e.id1 AND r.id2 = e.id2 AND "
                    "r.selector = 2) <> 3"),
              0);
    EXPECT_EQ(count("SELECT count(*) FROM drives"), 1);

    Outcome fifth = playfile(tmp, "clips --json --project " + shellQuote(server.uri()));
    ASSERT_EQ(fifth.status, 0) << (fifth.err.empty() ? "" : fifth.err[0]);
    auto listed = nlohmann::json::parse(fifth.out, nullptr, false);
    ASSERT_TRUE(listed.is_array());
    std::set<std::string> seen;
    for (const auto& clip : listed) {
        seen.insert(clip["cookie"].get<std::string>());
        EXPECT_EQ(clip["files"].size(), 3u) << clip["cookie"];
    }
    EXPECT_EQ(seen, cookies);
}

TEST_F(ServerProjectCommands, SpaceEditsTheServersTablesThatEverySeatReads) {
    const std::string project = " --project " + shellQuote(server.uri());
    writeFile(tmp.path() / "clip.mov", "media");
    ASSERT_EQ(playfile(tmp, "import " + shellQuote(tmp.file("clip.mov")) + " --video 1 --audio 2 --drive A=" +
                                shellQuote(tmp.file("drive")) + project)
                  .status,
              0);
    Outcome set = playfile(tmp, "space --remote /mnt/share /mnt/other --server-media clip --server-proxies clip" + project);
    ASSERT_EQ(set.status, 0) << (set.err.empty() ? "" : set.err[0]);
    EXPECT_EQ(count("SELECT value FROM settings WHERE key = 'project_space_type'"), 2);
    EXPECT_EQ(count("SELECT count(*) FROM mount_points"), 2);
    EXPECT_EQ(count("SELECT count(*) FROM server_media"), 3);
    EXPECT_EQ(count("SELECT has_proxies FROM server_logs"), 1);
    // Another seat's view of the project: the same space.
    Outcome seen = playfile(tmp, "space --json" + project);
    ASSERT_EQ(seen.status, 0);
    auto j = nlohmann::json::parse(seen.out, nullptr, false);
    EXPECT_EQ(j["type"], 2);
    EXPECT_EQ(j["mountPoints"], nlohmann::json::array({"/mnt/share", "/mnt/other"}));
    ASSERT_EQ(j["server"].size(), 1u) << seen.out;
    EXPECT_EQ(j["server"][0]["media"].size(), 3u) << seen.out;
}

// The material commands on a server project, in the order a person would use them.
TEST_F(ServerProjectCommands, TheMaterialCommandsWorkOnTheServerAsOnAFolder) {
    const std::string project = " --project " + shellQuote(server.uri());
    writeFile(tmp.path() / "take.mov", std::string(4096, 't'));
    ASSERT_EQ(playfile(tmp, "import " + shellQuote(tmp.file("take.mov")) + " --copy --video 1 --audio 2 --drive A=" +
                                shellQuote(tmp.file("a")) + project)
                  .status,
              0);
    ASSERT_EQ(playfile(tmp, "drives add B " + shellQuote(tmp.file("b")) + project).status, 0);
    auto run = [&](const std::string& args) {
        Outcome o = playfile(tmp, args + " --json" + project);
        EXPECT_EQ(o.status, 0) << args << ": " << (o.err.empty() ? "" : o.err[0]);
        return nlohmann::json::parse(o.out, nullptr, false);
    };
    EXPECT_EQ(run("drives").size(), 2u);
    auto answer = run("status take");
    const auto status = answer.is_array() ? answer[0] : answer;
    EXPECT_EQ(status["available"]["highRes"], true) << status.dump();
    EXPECT_EQ(status["offline"], false) << status.dump();
    auto moved = run("relocate --to B --move take");
    // One record per material: the clip's three share the one file.
    EXPECT_EQ(moved["files"], 3) << moved.dump();
    EXPECT_EQ(moved["failures"], 0) << moved.dump();
    auto clips = run("clips");
    ASSERT_EQ(clips.size(), 1u);
    for (const auto& f : clips[0]["files"]) {
        EXPECT_EQ(f["drive"], "B") << f.dump();
        EXPECT_EQ(f["exists"], true) << f.dump();
    }
    EXPECT_EQ(count("SELECT count(*) FROM files WHERE drive = 'B'"), 3);
}

TEST_F(ServerProjectCommands, AServerThatHoldsNoProjectOrCannotBeReachedIsRefusedWithItsReason) {
    Outcome none = playfile(tmp, "clips --project " + shellQuote(server.uri()));
    EXPECT_EQ(none.status, 1);
    ASSERT_FALSE(none.err.empty());
    EXPECT_NE(none.err[0].find("holds no project"), std::string::npos) << none.err[0];
    EXPECT_EQ(count("SELECT count(*) FROM pg_tables WHERE tablename = 'settings'"), 0) << "a look must not create";

    Outcome unreachable = playfile(tmp, "clips --project 'postgresql://nobody:secret@/none?host=" + tmp.file("nowhere") + "'");
    EXPECT_EQ(unreachable.status, 1);
    ASSERT_FALSE(unreachable.err.empty());
    EXPECT_NE(unreachable.err[0].find("cannot reach the project database"), std::string::npos) << unreachable.err[0];
    EXPECT_EQ(unreachable.err[0].find("secret"), std::string::npos) << "the password is never shown";
}

} // namespace
