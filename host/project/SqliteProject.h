// The embedded project database: one SQLite file (project.playfile) in the project
// folder. Readers run in WAL mode, so they never wait for the writer and always see a
// committed state; commits of other processes are noticed through SQLite's
// data_version, asked at most once a millisecond.
#pragma once

#include "host/project/ProjectDatabase.h"
#include "host/project/Sqlite.h"

class SqliteProject final : public ProjectDatabase {
public:
    // See ProjectDatabase::open; folder is the project folder.
    static Zn::Ptr<ProjectDatabase> open(const WString& folder, bool create, WString& error);
    ~SqliteProject() override;

    WString path() const override;
    bool isShared() const noexcept override { return false; }

protected:
    std::unique_ptr<sql::Connection> connect() const override;
    uint64_t outsideChanges() const override;

private:
    explicit SqliteProject(const WString& folder);
    bool openWriter(WString& error) EXCLUDES(writeMutex_);

    std::string file_;
    // Changes seen by watch_, and when it was last asked.
    mutable std::atomic<uint64_t> outsideChanges_{0};
    mutable std::atomic<int64_t> lastWatch_{0}; // steady clock, nanoseconds
    // watchMutex_ guards watch_ and lastVersion_; held for one PRAGMA, no other lock
    // taken with it held.
    mutable PlainMutex watchMutex_;
    mutable sqlite::Connection watch_ GUARDED_BY(watchMutex_);
    mutable int64_t lastVersion_ GUARDED_BY(watchMutex_) = -1;
};
