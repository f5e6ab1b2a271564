// The database layer under the project database: one connection, its cached prepared
// statements and their execution, with two implementations (the embedded SQLite file in
// Sqlite.h, a PostgreSQL server in Postgres.h). Statements are written once, in the SQL
// both understand, with numbered parameters (?1, ?2, ...); errors are return values, with
// the connection's last message kept for the caller. Nothing outside host/project uses it.
//
// A connection, and every Query on it, is used by one thread at a time.
#pragma once

#include "host/core/LightweightString.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace sql {

enum class Dialect { eSqlite, ePostgres };

// One prepared statement of a connection, as its implementation runs it. Binding indices
// start at 1, column indices at 0.
class Statement {
public:
    virtual ~Statement() = default;
    virtual void bindInt(int i, int64_t v) = 0;
    virtual void bindReal(int i, double v) = 0;
    virtual void bindText(int i, const String& v) = 0;
    // 1 a row, 0 done, -1 failed (the connection keeps the reason).
    virtual int step() = 0;
    virtual int64_t int64(int col) const = 0;
    virtual double real(int col) const = 0;
    virtual String text(int col) const = 0;
    virtual bool isNull(int col) const = 0;
    // Back to before the first step, bindings cleared.
    virtual void reset() = 0;
};

class Connection {
public:
    virtual ~Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    virtual Dialect dialect() const noexcept = 0;
    virtual bool isOpen() const noexcept = 0;
    virtual void close() = 0;

    // Runs one or more statements without results; false on the first failure.
    virtual bool exec(const char* sql) = 0;
    // The first column of the first row of sql as an integer, or fallback on failure.
    virtual int64_t scalar(const char* sql, int64_t fallback = -1) = 0;

    // Transaction control. A read transaction sees one committed state from its first
    // statement to its end. begin(true) starts a write transaction holding the project's
    // write lock, taken at once, so that a writer waits for another writer up front
    // rather than failing mid-way.
    virtual bool beginRead() = 0;
    virtual bool begin(bool immediate) = 0;
    virtual bool commit() = 0;
    virtual void rollback() = 0;
    virtual bool inTransaction() const = 0;
    // Rows changed by the last statement.
    virtual int64_t changes() const = 0;

    const std::string& lastError() const noexcept { return lastError_; }
    int lastErrorCode() const noexcept { return lastCode_; }

    // The cached prepared statement of sql (a string literal: cached by its address);
    // null with lastError() set when it cannot be prepared.
    Statement* statement(const char* sql);

protected:
    Connection() = default;
    virtual std::unique_ptr<Statement> prepare(const char* sql) = 0;
    // Forgets every prepared statement (the connection was closed or reset).
    void dropStatements() { cache_.clear(); }
    void setError(int code, std::string message) {
        lastCode_ = code;
        lastError_ = std::move(message);
    }

private:
    std::map<const char*, std::unique_ptr<Statement>> cache_;
    std::string lastError_;
    int lastCode_ = 0;
};

// One execution of a connection's cached prepared statement. The statement is reset when
// the Query goes out of scope, so a cached statement never keeps a read open.
class Query {
public:
    Query(Connection& db, const char* sql) : stmt_(db.statement(sql)), ok_(stmt_ != nullptr) {}
    ~Query() {
        if (stmt_) stmt_->reset();
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& bind(int i, int64_t v) {
        if (stmt_) stmt_->bindInt(i, v);
        return *this;
    }
    Query& bind(int i, int v) { return bind(i, int64_t(v)); }
    Query& bind(int i, unsigned v) { return bind(i, int64_t(v)); }
    Query& bind(int i, uint64_t v) { return bind(i, int64_t(v)); }
    Query& bind(int i, double v) {
        if (stmt_) stmt_->bindReal(i, v);
        return *this;
    }
    Query& bind(int i, const String& v) {
        if (stmt_) stmt_->bindText(i, v);
        return *this;
    }
    Query& bind(int i, const WString& v);
    Query& bind(int i, const char* v) { return bind(i, String(v)); }

    // Advances to the next row: true when there is one. An error ends the rows and is
    // kept in ok()/the connection's lastError().
    bool next();
    // Runs a statement that returns no rows; true on success.
    bool run();
    bool ok() const noexcept { return ok_; }

    int64_t int64(int col) const { return stmt_->int64(col); }
    double real(int col) const { return stmt_->real(col); }
    String text(int col) const { return stmt_->text(col); }
    WString wtext(int col) const;
    bool isNull(int col) const { return stmt_->isNull(col); }

private:
    Statement* stmt_;
    bool ok_;
};

} // namespace sql
