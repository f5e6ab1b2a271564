// ProjectDatabase (the host's `projdb`): the database of a project, which holds its edits,
// material directory, media drives and project-space description. Two implementations
// share this interface and one schema: the embedded default, one SQLite file in a project
// folder (SqliteProject.h), and a database on a PostgreSQL server that several seats
// share (ServerProject.h), chosen by the location given to open(). Opening checks the
// schema (a damaged project, or one of another schema version, is refused and never
// written), and the object hands out transactions: any number of concurrent readers,
// each on a connection of its own that sees one committed state, and one writer at a
// time. Every write is one transaction.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/project/SqlConnection.h"
#include "host/threads/PlainMutex.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class ImportLock;

class ProjectDatabase : public iObject {
public:
    // The schema this program writes and the only one it reads. A SQLite project keeps
    // them in the file's user_version and application id; a server project in its
    // settings table ("schema_version", "application_id").
    static constexpr int kSchemaVersion = 1;
    static constexpr int32_t kApplicationId = 0x706c6664; // "plfd"
    static constexpr const char* kFileName = "project.playfile";

    // Whether location names a project on a PostgreSQL server (a connection URI,
    // "postgresql://..." or "postgres://...") rather than a project folder.
    static bool isServerLocation(const WString& location);

    // Opens the project at location (a folder, or a server URI); with create, makes a
    // new empty one when there is none. Answers null with a one-line reason in error
    // when the project is missing, damaged, of an unknown schema version or cannot be
    // opened; in those cases it is left exactly as it was.
    static Zn::Ptr<ProjectDatabase> open(const WString& location, bool create, WString& error);

    ~ProjectDatabase() override;

    // The project folder; empty for a project on a server.
    const WString& folder() const noexcept { return folder_; }
    // Where the project is, for messages: its file, or its URI without the password.
    virtual WString path() const = 0;
    // Whether other seats may use the project at the same time (a server project).
    virtual bool isShared() const noexcept = 0;

    // The project's edits whose field matches mask, in creation order: field 1 compares
    // the log type, field 2 the edit flags (Edit::eFlags); an edit matches when the
    // bitwise AND with mask is not zero. Empty when nothing matches.
    CookieVec search(int field, unsigned mask) const;

    // A read transaction on a connection of its own: everything read through it comes
    // from one committed state of the database.
    class Read {
    public:
        explicit Read(const ProjectDatabase& db);
        ~Read();
        Read(const Read&) = delete;
        Read& operator=(const Read&) = delete;
        sql::Connection& db() { return *conn_; }
        bool ok() const noexcept { return ok_; }

    private:
        const ProjectDatabase& owner_;
        std::unique_ptr<sql::Connection> conn_;
        bool ok_ = false;
    };

    // The write transaction: holds the project's write lock (this process's and, on a
    // server, the project's among all seats) from construction to destruction. Nothing
    // is stored unless commit() succeeds; a Write destroyed without commit rolls back.
    class SCOPED_CAPABILITY Write {
    public:
        explicit Write(ProjectDatabase& db) ACQUIRE(db.writeMutex_);
        ~Write() RELEASE();
        Write(const Write&) = delete;
        Write& operator=(const Write&) = delete;
        sql::Connection& db() { return writer(); }
        bool ok() const noexcept { return ok_; }
        // Marks the transaction failed (a step that went wrong); commit then rolls back.
        void fail() noexcept { ok_ = false; }
        // Commits when every step succeeded; false (and rolled back) otherwise.
        bool commit();
        // The reason of the last failure, for the caller's message.
        std::string error() const { return writer().lastError(); }

    private:
        // The write connection. A Write holds owner_.writeMutex_ for its whole life, which
        // the analysis cannot see inside its members, so this one access is not analysed.
        sql::Connection& writer() const NO_THREAD_SAFETY_ANALYSIS { return *owner_.writer_; }

        ProjectDatabase& owner_;
        PlainMutex::Lock lock_;
        bool ok_ = false;
        bool done_ = false;
    };

    // New identifier words for an item of this project: the project's own first word and
    // the next number of its counter (never the filler's 647). Inside a write
    // transaction. On a server the counter is a sequence, so no two seats ever get the
    // same number.
    static Cookie newCookie(sql::Connection& db, CookieType type);
    // The number newCookie hands out next (every number below it may be in use).
    static int64_t nextItemNumber(sql::Connection& db);

    // A number for the project's present state, for the row caches (RowCache.h): it
    // changes after every commit made through this object, and soon after a commit made
    // by another process or seat (see outsideChanges of the implementations). Equal
    // numbers mean no commit in between, as far as this process can tell.
    uint64_t stateGeneration() const { return localCommits_.load() + outsideChanges(); }
    // Unique among the ProjectDatabase objects of the process.
    uint64_t instanceId() const noexcept { return instanceId_; }

    // Small named values of the project (project-space type and the like).
    static int64_t setting(sql::Connection& db, const char* key, int64_t fallback);
    static bool setSetting(sql::Connection& db, const char* key, int64_t value);

protected:
    explicit ProjectDatabase(const WString& folder);
    // A new connection for a reader (or the writer); null, with the reason logged, when
    // it cannot be made.
    virtual std::unique_ptr<sql::Connection> connect() const = 0;
    // Commits of other processes or seats seen so far (or a guess that counts up when in
    // doubt).
    virtual uint64_t outsideChanges() const = 0;
    // Drops the pooled readers (before the implementation closes what they depend on).
    void closeConnections();

    // writeMutex_ guards writer_ and is held for the whole of a Write. It may be taken
    // with an Edit's or an FsysDirectoryEntry's own lock held (they write themselves
    // through it), so a thread holding it takes no such lock that another thread can
    // hold; nor does it start a second Write (the mutex is not re-entrant).
    PlainMutex writeMutex_ ACQUIRED_BEFORE(poolMutex_);
    std::unique_ptr<sql::Connection> writer_ GUARDED_BY(writeMutex_);

private:
    friend class ImportLock;
    std::unique_ptr<sql::Connection> takeReader() const;
    void giveBackReader(std::unique_ptr<sql::Connection> conn) const;

    WString folder_;
    const uint64_t instanceId_;
    // Commits made through writer_.
    std::atomic<uint64_t> localCommits_{0};

    // poolMutex_ guards idle_ only; it is held for a push or a pop and never while a
    // query runs, so it may be taken with writeMutex_ held.
    mutable PlainMutex poolMutex_;
    mutable std::vector<std::unique_ptr<sql::Connection>> idle_ GUARDED_BY(poolMutex_);
};

using projdb = ProjectDatabase;
