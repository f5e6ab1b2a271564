// A real project for the media database tests: a project folder (or a database of its
// own on the tests' PostgreSQL server) and a media drive 'A' (with a space and a
// non-ASCII letter in its root) in a temporary folder, made current for the test and
// closed after it, plus helpers to make source media and to check that the project's
// records hang together. OnBothDatabases runs a fixture's tests on both kinds of project.
#pragma once

#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/Edit.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectDatabase.h"
#include "host/project/ProjectImporter.h"
#include "host/project/SystemCache.h"
#include "support/PostgresServer.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

namespace project_test {

inline WString W(const std::string& utf8) { return fromUTF8(utf8.c_str()); }
inline std::string U(const WString& w) { return toUTF8(w).str(); }

// A file of n bytes whose content depends on seed, so that copies can be told apart.
inline std::string makeFile(const std::filesystem::path& path, size_t n, char seed = 'a') {
    std::filesystem::create_directories(path.parent_path());
    std::string content(n, seed);
    for (size_t i = 0; i < n; ++i) content[i] = char(seed + i % 23);
    testing_support::writeFile(path, content);
    return path.string();
}

using testing_support::readFile;

// Failures (as text) of the project's cross-table rules: every imported clip has one
// material entry per channel (video variant 0, sound channels 1..n) with a file, and
// no material entry, file or channel is left without its owner.
inline std::string inconsistencies(ProjectDatabase& db) {
    static const std::pair<const char*, const char*> kRules[] = { // what breaking it means; its breaches
        {"material without its clip; ", "SELECT count(*) FROM material m WHERE NOT EXISTS "
                                        "(SELECT 1 FROM edits e WHERE e.id1 = m.id1 AND e.id2 = m.id2)"},
        {"file without its entry; ", "SELECT count(*) FROM files f WHERE NOT EXISTS (SELECT 1 FROM material m "
                                     "WHERE m.id1 = f.id1 AND m.id2 = f.id2 AND m.type = f.type AND m.idx = f.idx)"},
        {"clip whose channels and material files differ; ",
         "SELECT count(*) FROM edits e WHERE (e.flags & 1) <> 0 AND "
         "(SELECT count(*) FROM channels c WHERE c.id1 = e.id1 AND c.id2 = e.id2) <> "
         "(SELECT count(*) FROM material m JOIN files f ON f.id1 = m.id1 AND f.id2 = m.id2 AND "
         "f.type = m.type AND f.idx = m.idx AND f.role = 0 WHERE m.id1 = e.id1 AND m.id2 = e.id2)"},
        {"clip whose references and channels differ; ",
         "SELECT count(*) FROM edits e WHERE (e.flags & 1) <> 0 AND "
         "(SELECT count(*) FROM refs x WHERE x.id1 = e.id1 AND x.id2 = e.id2 AND x.selector = 2) <> "
         "(SELECT count(*) FROM channels c WHERE c.id1 = e.id1 AND c.id2 = e.id2)"}};
    std::string out;
    ProjectDatabase::Read r(db);
    for (auto [broken, sql] : kRules) {
        sql::Query q(r.db(), sql);
        if (!q.next() || q.int64(0) != 0) out += broken;
    }
    return out;
}

enum class ProjectKind { eFolder, eServer };

inline std::string projectKindName(const ::testing::TestParamInfo<ProjectKind>& info) {
    return info.param == ProjectKind::eServer ? "Postgres" : "Sqlite";
}
inline void PrintTo(ProjectKind kind, std::ostream* os) {
    *os << (kind == ProjectKind::eServer ? "a project on the server" : "a project file");
}

class ProjectTest : public ::testing::Test {
protected:
    virtual ProjectKind projectKind() const { return ProjectKind::eFolder; }

    void SetUp() override {
        projectDir = tmp.path() / "project folder";
        driveRoot = tmp.path() / "drive Ä";
        sources = tmp.path() / "sources";
        location = projectDir.string();
        if (projectKind() == ProjectKind::eServer) {
            server = std::make_unique<testing_support::PostgresDatabase>();
            if (!server->ok()) GTEST_SKIP() << "no PostgreSQL server for the test: " << server->why();
            location = server->uri();
        }
        WString error;
        ASSERT_TRUE(EditManager::openProject(W(location), true, &error)) << U(error);
        ASSERT_TRUE(DiskManager::addDrive(DriveId('A'), W(driveRoot.string()), W("Drive A"), "import,render", &error))
            << U(error);
    }
    void TearDown() override {
        EditManager::closeProject();
        server.reset();
    }

    std::string source(const std::string& name, size_t n = 1000, char seed = 'a') {
        return makeFile(sources / name, n, seed);
    }
    Zn::Ptr<ProjectDatabase> db() { return EditManager::getProjdb(); }
    // A clip with one video channel and audioChannels sound channels, all its material in
    // the file at path; its video material and the material of its sound channels.
    static Cookie importClip(const std::string& name, const std::string& path, int audioChannels) {
        ClipRecord r;
        r.name = W(name);
        r.videoChannels = 1;
        r.audioChannels = audioChannels;
        r.file = MediaFileInfo(MaterialFilename(DriveId(), W(path)), 100);
        std::vector<Cookie> made = ProjectImporter::registerClips({r});
        return made.empty() ? Cookie() : made.front();
    }
    static Cookie video(const Cookie& clip) { return convertCookie(clip, 'V', 0); }
    static Cookie sound(const Cookie& clip, unsigned channel) { return convertCookie(clip, 'S', uint8_t(channel)); }
    void reopen() {
        EditManager::closeProject();
        WString error;
        ASSERT_TRUE(EditManager::openProject(W(location), false, &error)) << U(error);
    }

    testing_support::TempDir tmp{"playfile-project"};
    std::filesystem::path projectDir, driveRoot, sources;
    std::string location; // the project folder, or the server database's URI
    std::unique_ptr<testing_support::PostgresDatabase> server;
};

// Fixture's tests (TEST_P) on a project file and on a project on the server:
// INSTANTIATE_TEST_SUITE_P(Databases, Suite, ::testing::Values(ProjectKind::eFolder,
// ProjectKind::eServer), projectKindName).
template <class Fixture>
class OnBothDatabases : public Fixture, public ::testing::WithParamInterface<ProjectKind> {
protected:
    ProjectKind projectKind() const override { return this->GetParam(); }
};

#define PLAYFILE_ON_BOTH_DATABASES(Suite)                                                                      \
    INSTANTIATE_TEST_SUITE_P(Databases, Suite,                                                                 \
                             ::testing::Values(project_test::ProjectKind::eFolder, project_test::ProjectKind::eServer), \
                             project_test::projectKindName)

} // namespace project_test
