// `playfile import` as a person runs it: exit statuses, messages and the project it
// leaves behind.
#include "ProjectFixture.h"

#include <cstdlib>
#include <sys/wait.h>

using namespace project_test;
namespace fs = std::filesystem;

namespace {

struct ToolRun {
    int status;
    std::string out, err;
};

ToolRun playfile(const testing_support::TempDir& tmp, const std::string& args) {
    std::string tool = std::string(PLAYFILE_BUILD_DIR) + "/tools/playfile";
    std::string out = tmp.file("out.txt"), err = tmp.file("err.txt");
    int rc = std::system((tool + " " + args + " >'" + out + "' 2>'" + err + "'").c_str());
    return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, readAll(out), readAll(err)};
}

} // namespace

TEST(ImportCommand, ImportsLinkedOrCopiedAndReportsFailuresInOneLineEach) {
    if (!fs::exists(std::string(PLAYFILE_BUILD_DIR) + "/tools/playfile")) GTEST_SKIP() << "playfile not built";
    testing_support::TempDir tmp;
    std::string a = makeFile(tmp.path() / "my clip.mov", 700), b = makeFile(tmp.path() / "voice.wav", 300);
    std::string project = "'" + (tmp.path() / "proj").string() + "'";

    // The files are not real media, so the channel layout is given rather than asked for.
    ToolRun linked = playfile(tmp, "import '" + a + "' --video 1 --audio 2 --project " + project);
    EXPECT_EQ(linked.status, 0) << linked.err;
    ToolRun sound = playfile(tmp, "import '" + b + "' --video 0 --audio 2 --project " + project);
    EXPECT_EQ(sound.status, 0) << sound.err;
    ToolRun unknown = playfile(tmp, "import '" + a + "' --project " + project);
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(std::count(unknown.err.begin(), unknown.err.end(), '\n'), 1) << unknown.err;
    EXPECT_NE(linked.out.find("my clip.mov as clip E"), std::string::npos) << linked.out;
    EXPECT_NE(linked.out.find("(linked on drive A)"), std::string::npos) << linked.out;

    std::string drive = (tmp.path() / "drive b").string();
    ToolRun copied = playfile(tmp, "import '" + a + "' missing.mov --copy --video 1 --audio 4 --drive 'B=" + drive +
                                   "' --project " + project);
    EXPECT_EQ(copied.status, 1);
    EXPECT_NE(copied.out.find("(copied to drive B)"), std::string::npos) << copied.out;
    EXPECT_EQ(copied.err, "playfile: import: missing.mov: no such file\n");

    for (const char* bad : {"--project", "x.mov", "x.mov --project p --video 2", "x.mov --project p --frob"}) {
        ToolRun r = playfile(tmp, std::string("import ") + bad);
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    ToolRun help = playfile(tmp, "import --help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("otherwise the library\nis asked"), std::string::npos);

    ASSERT_TRUE(EditManager::openProject(W((tmp.path() / "proj").string()), false));
    CookieVec clips = EditManager::getProjdb()->search(1, Edit::eLogClip);
    ASSERT_EQ(clips.size(), 3u);
    EXPECT_EQ(Edit::findCookiesForShot(clips[0]).size(), 3u);
    EXPECT_EQ(Edit::findCookiesForShot(clips[1]).size(), 2u); // a sound file: two channels
    EXPECT_EQ(Edit::findCookiesForShot(clips[2]).size(), 5u);
    auto copy = SystemCache::findEntryForCookie(convertCookie(clips[2], 'S', 4));
    ASSERT_TRUE(copy);
    EXPECT_EQ(readAll(U(copy->getPhysicalFilename(false))), readAll(a));
    EXPECT_EQ(U(getPath(copy->getPhysicalFilename(false))), drive + "/video/");
    EXPECT_EQ(inconsistencies(*EditManager::getProjdb()), "");
    EditManager::closeProject();
}
