// `playfile import` as a person runs it: exit statuses, messages and the project it
// leaves behind.
#include "ProjectFixture.h"
#include "support/ProgramRun.h"

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
