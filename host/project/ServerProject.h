// The project database on a PostgreSQL server, which the seats of a facility share: the
// same schema as a project file, in the database that the connection URI names. Every
// write takes the project's write lock on the server, item numbers come from a server
// sequence, and every commit announces itself (NOTIFY playfile_changes) so that the
// other seats' caches forget what it changed: a listening connection on a thread of
// its own counts the announcements of other seats into outsideChanges, within a few
// milliseconds of their commits. A connection that the server dropped is made again,
// and counted as a change, since announcements may have been missed meanwhile.
//
// Threads: listener_ belongs to the listening thread once it runs; stop_ and wakeFd_
// end it. No lock is taken.
#pragma once

#include "host/project/Postgres.h"
#include "host/project/ProjectDatabase.h"

#include <atomic>
#include <string>
#include <thread>

class ServerProject final : public ProjectDatabase {
public:
    // See ProjectDatabase::open; uri is the connection URI.
    static Zn::Ptr<ProjectDatabase> open(const WString& uri, bool create, WString& error);
    ~ServerProject() override;

    WString path() const override;
    bool isShared() const noexcept override { return true; }

protected:
    std::unique_ptr<sql::Connection> connect() const override;
    uint64_t outsideChanges() const override { return outsideChanges_.load(); }

private:
    explicit ServerProject(std::string uri);
    bool check(pg::Connection& db, bool create, WString& error);
    bool startListening(WString& error);
    void listen();

    const std::string uri_;
    // Tells this object's own announcements from other seats'.
    const std::string token_;
    mutable std::atomic<uint64_t> outsideChanges_{0};

    std::atomic<bool> stop_{false};
    int wakeFd_ = -1; // an eventfd that ends the listening thread's wait
    pg::Connection listener_; // used by the listening thread only, once it runs
    std::thread thread_;
};
