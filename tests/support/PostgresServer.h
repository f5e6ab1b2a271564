// A real PostgreSQL server for the tests of projects on a server: initdb and pg_ctl in a
// temporary folder, run as an unprivileged user (the server refuses root), reachable
// only through a Unix socket in that folder, stopped at the end.
//
// Under ctest one server serves the whole run: the fixture program (postgres_fixture)
// starts it in the folder that PLAYFILE_TEST_POSTGRES names and stops it afterwards. A
// test program run on its own starts a server of its own on first use and stops it when
// it exits. Each test works in a database of its own (PostgresDatabase).
#pragma once

#include <string>

namespace testing_support {

class PostgresServer {
public:
    // Starts a server in folder (made, and given to the server's user); false with the
    // reason in error. durable keeps the server's fsync on (for measurements).
    static bool start(const std::string& folder, bool durable, std::string& error);
    // Stops the server in folder and removes the folder.
    static void stop(const std::string& folder);
    // The connection URI of the server's administrator on database name.
    static std::string uri(const std::string& folder, const std::string& database);
    // The folder of the server the tests use, started when needed; empty with the reason
    // in error when there is none (the server's programs are not installed, say).
    static std::string shared(std::string& error);
};

// A database of its own on the tests' server, dropped at the end of its scope.
class PostgresDatabase {
public:
    PostgresDatabase();
    // On the server in folder (see PostgresServer::start) rather than the tests' one.
    explicit PostgresDatabase(const std::string& folder);
    ~PostgresDatabase();
    PostgresDatabase(const PostgresDatabase&) = delete;
    PostgresDatabase& operator=(const PostgresDatabase&) = delete;

    // False, with the reason in why(), when there is no server to make it on.
    bool ok() const noexcept { return !uri_.empty(); }
    const std::string& why() const noexcept { return why_; }
    // Its connection URI, for ProjectDatabase::open and --project.
    const std::string& uri() const noexcept { return uri_; }

    // Runs sql on it as the administrator; the first column of the first row as an
    // integer (-1 when there is none, or on failure with the reason in error).
    long long run(const std::string& sql, std::string* error = nullptr) const;

private:
    void create();

    std::string folder_, name_, uri_, why_;
};

} // namespace testing_support
