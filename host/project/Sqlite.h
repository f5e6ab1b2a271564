// A thin layer over one SQLite connection for the media database: prepared statements
// cached per connection, typed binding and reading with the host's string types, and
// errors as return values with the connection's last message kept for the caller.
// Nothing outside host/project uses it.
#pragma once

#include "host/core/LightweightString.h"

#include <cstdint>
#include <map>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace sqlite {

class Connection;

// One execution of a cached prepared statement. Binding indices start at 1, column
// indices at 0. The statement is reset when the Query goes out of scope, so a cached
// statement never keeps a read transaction open.
class Query {
public:
    Query(Connection& db, const char* sql);
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& bind(int i, int64_t v);
    Query& bind(int i, int v) { return bind(i, int64_t(v)); }
    Query& bind(int i, unsigned v) { return bind(i, int64_t(v)); }
    Query& bind(int i, uint64_t v) { return bind(i, int64_t(v)); }
    Query& bind(int i, double v);
    Query& bind(int i, const String& v);
    Query& bind(int i, const WString& v);
    Query& bind(int i, const char* v) { return bind(i, String(v)); }

    // Advances to the next row: true when there is one. An error ends the rows and is
    // kept in ok()/the connection's lastError().
    bool next();
    // Runs a statement that returns no rows; true on success.
    bool run();
    bool ok() const noexcept { return ok_; }

    int64_t int64(int col) const;
    double real(int col) const;
    String text(int col) const;
    WString wtext(int col) const;
    bool isNull(int col) const;

private:
    Connection& db_;
    sqlite3_stmt* stmt_ = nullptr;
    bool ok_ = true;
};

class Connection {
public:
    enum eMode { eReadOnly, eReadWrite, eCreate };

    Connection() = default;
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Opens path; false with lastError() set when it cannot be opened.
    bool open(const std::string& path, eMode mode);
    void close();
    bool isOpen() const noexcept { return db_ != nullptr; }

    // Runs one or more statements without results; false on the first failure.
    bool exec(const char* sql);
    // The first column of the first row of sql as an integer, or fallback on failure.
    int64_t scalar(const char* sql, int64_t fallback = -1);

    // Transaction control. begin(true) takes the write lock at once (BEGIN IMMEDIATE),
    // so that a writer waits for another writer up front rather than failing mid-way.
    bool begin(bool immediate);
    bool commit();
    void rollback();
    bool inTransaction() const;

    const std::string& lastError() const noexcept { return lastError_; }
    int lastErrorCode() const noexcept { return lastCode_; }
    int64_t changes() const;

private:
    friend class Query;
    sqlite3_stmt* statement(const char* sql);
    void fail(int code);

    sqlite3* db_ = nullptr;
    // Prepared statements by their text's address; the texts are string literals.
    std::map<const char*, sqlite3_stmt*> cache_;
    std::string lastError_;
    int lastCode_ = 0;
};

} // namespace sqlite
