// A seat of a project on a PostgreSQL server: other seats' commits reach its caches of
// edits and of the material directory within a second, and a run of reads goes on when
// the server ends the seat's sessions. The other seat is a second ProjectDatabase of its
// own connections, as another machine's would be.
#include "ProjectFixture.h"

#include "host/project/MaterialRecords.h"
#include "host/project/ProjectCatalog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <set>
#include <thread>

using namespace project_test;

namespace {

class ServerSeat : public ProjectTest {
protected:
    ProjectKind projectKind() const override { return ProjectKind::eServer; }

    Zn::Ptr<ProjectDatabase> otherSeat() {
        WString error;
        auto other = ProjectDatabase::open(W(location), false, error);
        EXPECT_TRUE(other) << U(error);
        return other;
    }
    static bool write(ProjectDatabase& seat, const char* sql) {
        ProjectDatabase::Write w(seat);
        sql::Query q(w.db(), sql);
        if (!q.run()) w.fail();
        return w.commit();
    }
    // How long until seen() holds, polling; a negative time when it never does in 5 s.
    static double secondsUntil(const std::function<bool()>& seen) {
        const auto start = std::chrono::steady_clock::now();
        const auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
        while (elapsed() < 5) {
            if (seen()) return elapsed();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return -1;
    }
    // Ends every session of the project's database but the asking one, waiting for each.
    long long endSessions() {
        std::string error;
        long long ended = server->run("SELECT count(*) FROM (SELECT pid FROM pg_stat_activity WHERE datname = "
                                      "current_database() AND pid <> pg_backend_pid() OFFSET 0) s "
                                      "WHERE pg_terminate_backend(pid, 5000)",
                                      &error);
        EXPECT_EQ(error, "");
        return ended;
    }
};

TEST_F(ServerSeat, AnotherSeatsCommitsReachThisSeatsCachesWithinASecond) {
    const Cookie clip = importClip("clip", source("clip.mov"), 2);
    ASSERT_TRUE(clip.valid());
    auto other = otherSeat();
    ASSERT_TRUE(other);

    // The material directory: a file moved, and an entry this seat had found missing.
    ASSERT_EQ(U(SystemCache::findEntryForCookie(video(clip))->getMaterialFilename().getPath()), source("clip.mov"));
    const Cookie later = Cookie('V', clip.id1(), clip.id2() + 100, 0);
    EXPECT_FALSE(SystemCache::findEntryForCookie(later));
    ASSERT_TRUE(write(*other, "UPDATE files SET path = '/elsewhere/clip.mov' WHERE type = 86"));
    double took = secondsUntil([&] {
        return U(SystemCache::findEntryForCookie(video(clip))->getMaterialFilename().getPath()) == "/elsewhere/clip.mov";
    });
    EXPECT_GE(took, 0) << "the other seat's move never reached this seat";
    EXPECT_LT(took, 1.0);

    {
        ProjectDatabase::Write w(*other);
        ASSERT_TRUE(records::ensureMaterial(w.db(), later, 1));
        ASSERT_TRUE(w.commit());
    }
    took = secondsUntil([&] { return bool(SystemCache::findEntryForCookie(later)); });
    EXPECT_GE(took, 0);
    EXPECT_LT(took, 1.0);

    // The edits: a name changed by the other seat.
    EditPtr e;
    ASSERT_TRUE(e.i_open(clip));
    EXPECT_EQ(U(e->getName()), "clip");
    ASSERT_TRUE(write(*other, "UPDATE edits SET name = 'renamed elsewhere'"));
    took = secondsUntil([&] {
        EditPtr fresh;
        return fresh.i_open(clip) && U(fresh->getName()) == "renamed elsewhere";
    });
    EXPECT_GE(took, 0);
    EXPECT_LT(took, 1.0);
}

TEST_F(ServerSeat, ReadsGoOnWhenTheServerEndsTheSeatsSessions) {
    const Cookie clip = importClip("clip", source("clip.mov"), 2);
    ASSERT_TRUE(clip.valid());
    // Several readers at once, so that the pool holds more than one session to lose.
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t)
        readers.emplace_back([&] {
            for (int i = 0; i < 20; ++i) ProjectCatalog::edits();
        });
    for (auto& t : readers) t.join();

    int failed = 0;
    for (int i = 0; i < 60; ++i) {
        if (i == 20 || i == 40) EXPECT_GT(endSessions(), 0) << "no session of the seat to end";
        // Uncached reads: each one a transaction on a pooled session.
        if (ProjectCatalog::edits().size() != 1 || !ProjectCatalog::editExists(clip) ||
            ProjectCatalog::mediaFiles().size() != 3)
            ++failed;
    }
    EXPECT_EQ(failed, 0);
    // Writes go on too, and other seats' commits are heard again by the new listener.
    EXPECT_TRUE(importClip("after", source("after.mov"), 1).valid());
    auto other = otherSeat();
    ASSERT_TRUE(other);
    const uint64_t before = db()->stateGeneration();
    ASSERT_TRUE(write(*other, "UPDATE edits SET name = 'renamed'"));
    EXPECT_GE(secondsUntil([&] { return db()->stateGeneration() != before; }), 0);
}

TEST_F(ServerSeat, TwoSeatsNeverMakeTheSameCookie) {
    auto other = otherSeat();
    ASSERT_TRUE(other);
    std::vector<Cookie> mine, theirs;
    auto make = [](ProjectDatabase& seat, std::vector<Cookie>& out) {
        for (int i = 0; i < 200; ++i) {
            ProjectDatabase::Write w(seat);
            out.push_back(ProjectDatabase::newCookie(w.db(), 'E'));
            // Every other number is given back: a rolled-back write must not reuse it.
            if (i % 2 == 0) w.commit();
        }
    };
    std::thread t([&] { make(*other, theirs); });
    make(*db(), mine);
    t.join();
    std::set<Cookie> all(mine.begin(), mine.end());
    all.insert(theirs.begin(), theirs.end());
    EXPECT_EQ(all.size(), 400u);
    EXPECT_EQ(all.count(Cookie()), 0u);
}

// A database whose project is of another schema, or not a project at all, is refused
// with its reason and left as it was.
TEST_F(ServerSeat, AnotherSchemaOrAnotherApplicationIsRefusedAndLeftAlone) {
    EditManager::closeProject();
    const struct {
        const char* change;
        const char* reason;
    } cases[] = {
        {"UPDATE settings SET value = 2 WHERE key = 'schema_version'", "newer than this program reads (1)"},
        {"UPDATE settings SET value = 0 WHERE key = 'schema_version'", "unknown schema version 0"},
        {"UPDATE settings SET value = 7 WHERE key = 'application_id'", "is not a playfile project"},
    };
    for (const auto& c : cases) {
        std::string failure;
        server->run("UPDATE settings SET value = CASE key WHEN 'schema_version' THEN 1 ELSE 1886152292 END "
                    "WHERE key IN ('schema_version', 'application_id')",
                    &failure);
        server->run(c.change, &failure);
        ASSERT_EQ(failure, "");
        const long long editsBefore = server->run("SELECT count(*) FROM edits");
        WString error;
        EXPECT_FALSE(ProjectDatabase::open(W(location), true, error)) << c.change;
        EXPECT_NE(U(error).find(c.reason), std::string::npos) << U(error);
        EXPECT_EQ(U(error).rfind("project database postgresql://", 0), 0u) << U(error);
        EXPECT_EQ(server->run("SELECT count(*) FROM edits"), editsBefore);
    }
}

} // namespace
