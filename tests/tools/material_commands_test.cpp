// The project commands as a person runs them on a project made by `playfile import`:
// drives (list, add), clips, status (its JSON members), space (local, remote with mount
// points, what the server holds), their usage errors and exit statuses.
#include "support/ProgramRun.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

using namespace testing_support;
using json = nlohmann::ordered_json;

namespace {

class ProjectCommands : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::filesystem::exists(PLAYFILE_BUILD_DIR "/tools/playfile")) GTEST_SKIP() << "playfile not built";
        project = " --project " + shellQuote(tmp.file("proj"));
        remote = tmp.file("remote");
        std::filesystem::create_directories(remote);
        std::filesystem::create_directories(tmp.path() / "src");
        writeFile(tmp.path() / "src" / "here.mov", std::string(500, 'h'));
        writeFile(std::filesystem::path(remote) / "far.mov", std::string(300, 'f'));
        for (auto f : {tmp.file("src/here.mov"), remote + "/far.mov"})
            ASSERT_EQ(playfile(tmp, "import " + shellQuote(f) + " --video 1 --audio 2" + project).status, 0);
    }
    // The command with the remote folder named in PLAYFILE_REMOTE_PREFIXES.
    Outcome run(const std::string& args) {
        return playfile(tmp, args + project, "PLAYFILE_REMOTE_PREFIXES=" + shellQuote(remote));
    }
    json runJson(const std::string& args) {
        Outcome o = run(args + " --json");
        EXPECT_EQ(o.status, 0) << args << ": " << (o.err.empty() ? "" : o.err[0]);
        return json::parse(o.out, nullptr, false);
    }

    TempDir tmp{"playfile-material-commands"};
    std::string project, remote;
};

TEST_F(ProjectCommands, DrivesListAndAdd) {
    json drives = runJson("drives");
    ASSERT_EQ(drives.size(), 1u);
    EXPECT_EQ(drives[0]["id"], "A");
    EXPECT_EQ(drives[0]["tasks"], json::array({"import", "render"}));
    EXPECT_GT(drives[0]["freeBytes"].get<uint64_t>(), 0u);
    EXPECT_EQ(drives[0]["video"], drives[0]["root"].get<std::string>() + "/video/");

    EXPECT_EQ(run("drives add B " + shellQuote(tmp.file("drive b")) + " --tasks render").status, 0);
    EXPECT_TRUE(std::filesystem::is_directory(tmp.file("drive b/sound")));
    drives = runJson("drives");
    ASSERT_EQ(drives.size(), 2u);
    EXPECT_EQ(drives[1]["tasks"], json::array({"render"}));

    Outcome bad = run("drives add 0 " + shellQuote(tmp.file("x")));
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.err.size(), 1u);
    EXPECT_EQ(run("drives remove B").status, 2);
}

TEST_F(ProjectCommands, ClipsShowWhereEachFileLies) {
    std::filesystem::remove(tmp.path() / "src" / "here.mov");
    json clips = runJson("clips");
    ASSERT_EQ(clips.size(), 2u);
    EXPECT_EQ(clips[0]["name"], "here");
    EXPECT_EQ(clips[0]["channels"], json({{"video", 1}, {"audio", 2}}));
    ASSERT_EQ(clips[0]["files"].size(), 3u);
    for (const auto& [clip, exists, remote] : {std::tuple{0, false, false}, {1, true, true}}) {
        const json& f = clips[clip]["files"][0];
        EXPECT_EQ(f["role"], "high-res");
        EXPECT_EQ(f["drive"], "A");
        EXPECT_EQ(f["linked"], true);
        EXPECT_EQ(f["exists"], exists) << clip;
        EXPECT_EQ(f["remote"], remote) << clip;
    }
    Outcome text = run("clips");
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("missing, linked, local"), std::string::npos) << text.out;
}

TEST_F(ProjectCommands, StatusAnswersWithItsFixedMembers) {
    json all = runJson("status here far");
    ASSERT_EQ(all.size(), 2u);
    std::vector<std::string> keys;
    for (auto& [k, v] : all[0].items()) keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"item", "name", "logType", "offline", "remote", "local", "available",
                                              "canDownload", "files"}));
    EXPECT_EQ(all[0]["offline"], false);
    EXPECT_EQ(all[0]["remote"], json({{"highRes", false}, {"proxy", false}, {"both", false}}));
    EXPECT_EQ(all[1]["remote"], json({{"highRes", true}, {"proxy", false}, {"both", true}}));
    EXPECT_EQ(all[1]["canDownload"]["highRes"], true);
    const json& f = all[1]["files"][0];
    EXPECT_EQ(f["highResStatus"], 2);
    EXPECT_EQ(f["location"], remote + "/far.mov");
    EXPECT_EQ(f["fileName"], "");
    EXPECT_EQ(f["materialFile"].get<std::string>().substr(0, 8), "A:video/");

    Outcome missing = run("status here nope");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, std::vector<std::string>{"playfile: status: no clip or log 'nope' in the project"});
    EXPECT_EQ(run("status").status, 2);
}

TEST_F(ProjectCommands, SpaceDescribesASharedProject) {
    json space = runJson("space --remote '' /srv/media --server-media here --server-proxies far");
    EXPECT_EQ(space["type"], 2);
    EXPECT_EQ(space["mountPoints"], json::array({"", "/srv/media"}));
    ASSERT_EQ(space["server"].size(), 2u);
    EXPECT_EQ(space["server"][0]["media"].size(), 3u);
    EXPECT_EQ(space["server"][1]["proxies"], true);
    // An empty mount path holds every file: all linked media is remote, none local.
    json status = runJson("status here");
    EXPECT_EQ(status[0]["remote"]["highRes"], true);
    EXPECT_EQ(status[0]["local"]["highRes"], false);
    EXPECT_EQ(status[0]["canDownload"]["highRes"], true);

    EXPECT_EQ(runJson("space --remote /srv/media")["mountPoints"], json::array({"/srv/media"}));
    status = runJson("status here");
    EXPECT_EQ(status[0]["local"]["highRes"], true);
    EXPECT_EQ(status[0]["canDownload"]["highRes"], false);
    EXPECT_EQ(runJson("space --local")["type"], 0);
    EXPECT_EQ(run("space --local --remote /x").status, 2);
    EXPECT_EQ(run("space --server-media nope").status, 1);
}

TEST_F(ProjectCommands, EachCommandHelpsAndRefusesABadLine) {
    for (const char* cmd : {"drives", "clips", "status", "space"}) {
        Outcome help = playfile(tmp, std::string(cmd) + " --help");
        EXPECT_EQ(help.status, 0) << cmd;
        EXPECT_EQ(help.out.rfind("usage: playfile " + std::string(cmd), 0), 0u) << cmd;
        Outcome noProject = playfile(tmp, std::string(cmd) + " x --bogus");
        EXPECT_EQ(noProject.status, 2) << cmd;
        EXPECT_EQ(noProject.err.size(), 1u) << cmd;
        Outcome absent = playfile(tmp, std::string(cmd) + (std::string(cmd) == "status" ? " x" : "") +
                                           " --project " + shellQuote(tmp.file("none")));
        EXPECT_EQ(absent.status, 1) << cmd;
        EXPECT_EQ(absent.err.size(), 1u) << cmd;
    }
}

} // namespace
