// The project file: creation, reopening, and refusal of files it must not touch.
#include "ProjectFixture.h"

#include "host/project/EditInfo.h"
#include "host/project/EditModifier.h"
#include "host/project/ProjectImporter.h"
#include "host/project/Sqlite.h"

#include <chrono>
#include <thread>

using namespace project_test;
namespace fs = std::filesystem;

namespace {

// Opens the project in folder and expects a refusal naming why, with the project file
// left exactly as it was (also when asked to create a project).
void expectRefused(const fs::path& folder, const std::string& why) {
    fs::path file = folder / ProjectDatabase::kFileName;
    std::string before = readFile(file);
    for (bool create : {false, true}) {
        WString error;
        EXPECT_FALSE(EditManager::openProject(W(folder.string()), create, &error));
        EXPECT_NE(U(error).find(why), std::string::npos) << U(error);
        EXPECT_EQ(U(error).find('\n'), std::string::npos) << U(error);
    }
    EXPECT_EQ(readFile(file), before) << "the refused file was changed";
    EXPECT_EQ(EditManager::getProjdb(), nullptr);
}

// A closed project with a few clips, its file fully checkpointed.
fs::path makeProject(const testing_support::TempDir& tmp, const std::string& name, int clips) {
    fs::path folder = tmp.path() / name;
    EXPECT_TRUE(EditManager::openProject(W(folder.string()), true));
    for (int i = 0; i < clips; ++i) {
        std::string src = makeFile(tmp.path() / "src" / (name + std::to_string(i) + ".mov"), 100);
        EXPECT_TRUE(ProjectImporter().importFile(W(src)).ok);
    }
    EditManager::closeProject();
    return folder;
}

} // namespace

TEST(ProjectDatabase, CreatesOnlyWhenAskedAndKeepsEverythingAcrossReopening) {
    testing_support::TempDir tmp;
    fs::path folder = tmp.path() / "new project";
    WString error;
    EXPECT_FALSE(EditManager::openProject(W(folder.string()), false, &error));
    EXPECT_NE(U(error).find("no project in"), std::string::npos) << U(error);
    EXPECT_FALSE(fs::exists(folder));

    fs::path folder2 = makeProject(tmp, "p", 3);
    ASSERT_TRUE(EditManager::openProject(W(folder2.string()), false, &error)) << U(error);
    CookieVec clips = EditManager::getProjdb()->search(1, Edit::eLogClip);
    EXPECT_EQ(clips.size(), 3u);
    EXPECT_EQ(inconsistencies(*EditManager::getProjdb()), "");
    // No temporary files of the creation are left behind.
    for (auto& e : fs::directory_iterator(folder2))
        EXPECT_EQ(e.path().filename().string().find(".new"), std::string::npos) << e.path();
    EditManager::closeProject();
}

TEST(ProjectDatabase, SearchMatchesLogTypeOrFlagsByMaskInCreationOrder) {
    testing_support::TempDir tmp;
    ASSERT_TRUE(EditManager::openProject(W((tmp.path() / "p").string()), true));
    EditPtr seq = EditManager::createEdit(W("sequence"), Edit::eLogSequence);
    EditPtr clip = EditManager::createEdit(W("clip"), Edit::eLogClip, Edit::eImported);
    EditPtr bin = EditManager::createEdit(W("bin"), 64);
    auto db = EditManager::getProjdb();
    EXPECT_EQ(db->search(1, 32844), (CookieVec{clip->getCookie(), bin->getCookie()}));
    EXPECT_EQ(db->search(1, 2), CookieVec{seq->getCookie()});
    EXPECT_EQ(db->search(2, Edit::eImported), CookieVec{clip->getCookie()});
    EXPECT_TRUE(db->search(1, 1024).empty());
    EXPECT_TRUE(db->search(7, ~0u).empty());
    for (const Cookie& c : db->search(1, ~0u)) EXPECT_NE(c.id2(), Cookie::kFillerWord);
    EditManager::closeProject();
}

TEST(ProjectDatabase, RefusesFilesThatAreNotIntactProjectsOfThisSchemaWithoutTouchingThem) {
    testing_support::TempDir tmp;
    auto fileOf = [](const fs::path& folder) { return folder / ProjectDatabase::kFileName; };

    for (auto [name, size, why] : {std::tuple{"garbage", 5000, "is not a database file"}, {"empty", 0, "is empty"}}) {
        makeFile(fileOf(tmp.path() / name), size_t(size), '!');
        expectRefused(tmp.path() / name, why);
    }

    fs::path other = tmp.path() / "other";
    {
        fs::create_directories(other);
        sqlite::Connection c;
        ASSERT_TRUE(c.open(fileOf(other).string(), sqlite::Connection::eCreate));
        ASSERT_TRUE(c.exec("CREATE TABLE t(x); INSERT INTO t VALUES(1);"));
    }
    expectRefused(other, "is not a playfile project");

    for (int version : {0, 2, 99}) {
        fs::path v = makeProject(tmp, "version" + std::to_string(version), 1);
        {
            sqlite::Connection c;
            ASSERT_TRUE(c.open(fileOf(v).string(), sqlite::Connection::eReadWrite));
            ASSERT_TRUE(c.exec(("PRAGMA user_version=" + std::to_string(version)).c_str()));
        }
        expectRefused(v, version > ProjectDatabase::kSchemaVersion ? "newer than this program reads"
                                                                      : "unknown schema version 0");
    }

    // Damage inside the file: a page overwritten, and the file cut short.
    fs::path damaged = makeProject(tmp, "damaged", 20);
    std::string bytes = readFile(fileOf(damaged));
    ASSERT_GT(bytes.size(), 5u * 4096);
    for (size_t i = 4 * 4096 + 8; i < 5 * 4096; ++i) bytes[i] = char(0xA5);
    testing_support::writeFile(fileOf(damaged), bytes);
    expectRefused(damaged, "is damaged");

    fs::path cut = makeProject(tmp, "cut", 20);
    fs::resize_file(fileOf(cut), 3 * 4096);
    expectRefused(cut, "is damaged");
}

// Edits and directory entries are kept in memory between look-ups; a change made through
// another connection (as another process would make it) is seen once the state has been
// asked again a millisecond later, a change made here at once.
TEST_F(ProjectTest, KeptRowsFollowChangesMadeHereAndElsewhere) {
    Cookie clip = importClip("before", makeFile(sources / "a.mov", 10), 1);
    ASSERT_EQ(U(EditInfo(clip).getName()), "before");
    ASSERT_TRUE(SystemCache::findEntryForCookie(video(clip)));

    WString error;
    auto other = ProjectDatabase::open(W(projectDir.string()), false, error);
    ASSERT_TRUE(other) << U(error);
    {
        ProjectDatabase::Write w(*other);
        ASSERT_TRUE(w.db().exec("UPDATE edits SET name = 'elsewhere'; DELETE FROM files WHERE type = 86;"
                                "DELETE FROM material WHERE type = 86;"));
        ASSERT_TRUE(w.commit());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    EXPECT_EQ(U(EditInfo(clip).getName()), "elsewhere");
    EXPECT_FALSE(SystemCache::findEntryForCookie(video(clip)));

    EditPtr edit;
    edit.i_open(clip);
    {
        EditModifier m(edit);
        edit->setName(W("here"));
    }
    EXPECT_EQ(U(EditInfo(clip).getName()), "here");
    ASSERT_EQ(SystemCache::addFile(video(clip), W((sources / "a.mov").string()), 0), 1);
    EXPECT_TRUE(SystemCache::findEntryForCookie(video(clip)));
}
