// `playfile extract` on a project made by `playfile import`: the new clip with its video
// and sound files of the section, as JSON and as text, and the usage errors.
#include "support/ProgramRun.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

using namespace testing_support;
using json = nlohmann::ordered_json;
namespace fs = std::filesystem;

namespace {

class ExtractCommand : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(PLAYFILE_BUILD_DIR "/tools/playfile")) GTEST_SKIP() << "playfile not built";
        project = " --project " + shellQuote(tmp.file("proj"));
        source = tmp.file("take one.mov");
        ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc2=size=128x96:rate=25:duration=1 -f lavfi -i "
                           "sine=frequency=440:sample_rate=48000:duration=1 -ac 2 -c:v prores_ks -c:a pcm_s16le " +
                           shellQuote(source)));
        ASSERT_EQ(playfile(tmp, "import " + shellQuote(source) + project).status, 0);
    }
    static std::string probe(const std::string& path, const std::string& entry) {
        return runCommand("ffprobe -v error -show_entries stream=" + entry + " -of csv=p=0 " + shellQuote(path)).out;
    }

    TempDir tmp;
    std::string project, source;
};

TEST_F(ExtractCommand, WritesTheSectionAsANewClip) {
    Outcome r = playfile(tmp, "extract 'take one' --start 0.2 --end 0.6 --json" + project);
    ASSERT_EQ(r.status, 0) << (r.err.empty() ? "" : r.err.front());
    const json out = json::parse(r.out);
    ASSERT_EQ(out["files"].size(), 2u);
    const std::string videoFile = out["files"][0], soundFile = out["files"][1];
    EXPECT_EQ(fs::path(videoFile).extension(), ".mov");
    EXPECT_EQ(fs::path(soundFile).extension(), ".wav");
    EXPECT_EQ(probe(videoFile, "codec_name,nb_frames"), "prores,10\n"); // frames 5 to 14
    EXPECT_EQ(probe(soundFile, "codec_name,channels,duration_ts"), "pcm_s16le,2,19200\n");
    EXPECT_EQ(out["name"], "take one extract");

    // The project has it: one video and two sound channels, the sound channels on one file.
    const json clips = json::parse(playfile(tmp, "clips --json" + project).out);
    const json& made = clips.back();
    EXPECT_EQ(made["cookie"], out["clip"]);
    EXPECT_EQ(made["name"], "take one extract");
    EXPECT_EQ(made["files"].size(), 3u) << made.dump();

    // As text: the cookie, then the files.
    r = playfile(tmp, "extract 'take one' --start 0 --end 0.04" + project);
    ASSERT_EQ(r.status, 0);
    const auto lines = testing_support::lines(r.out);
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[lines.size() - 3].rfind('E', 0), 0u) << r.out;
}

TEST_F(ExtractCommand, RefusesSectionsAndDrivesItCannotUse) {
    struct Case {
        const char* args;
        int status;
    } cases[] = {
        {"'take one' --start 1 --end 1", 2},
        {"'take one' --start 0.5 --end 0.2", 2},
        {"'take one' --start -1 --end 0.5", 2},
        {"'take one' --start x --end 0.5", 2},
        {"'take one' --start 0 --end 0.5 --to Z", 2},
        {"nobody --start 0 --end 0.5", 2},
        {"--start 0 --end 0.5", 2},
    };
    for (const Case& c : cases) {
        const Outcome r = playfile(tmp, std::string("extract ") + c.args + project);
        EXPECT_EQ(r.status, c.status) << c.args;
        ASSERT_FALSE(r.err.empty()) << c.args;
        EXPECT_EQ(r.err.front().rfind("playfile: extract: ", 0), 0u) << r.err.front();
    }
    const json clips = json::parse(playfile(tmp, "clips --json" + project).out);
    EXPECT_EQ(clips.size(), 1u);
}

} // namespace
