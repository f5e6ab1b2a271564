// The SQLite connection and query layer of the media database.
#include "host/project/Sqlite.h"

#include "host/core/Strings.h"

#include <sqlite3.h>

namespace sqlite {

Query::Query(Connection& db, const char* sql) : db_(db) {
    stmt_ = db.statement(sql);
    ok_ = stmt_ != nullptr;
}

Query::~Query() {
    if (stmt_) {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
}

Query& Query::bind(int i, int64_t v) {
    if (stmt_) sqlite3_bind_int64(stmt_, i, v);
    return *this;
}

Query& Query::bind(int i, double v) {
    if (stmt_) sqlite3_bind_double(stmt_, i, v);
    return *this;
}

Query& Query::bind(int i, const String& v) {
    if (stmt_) sqlite3_bind_text(stmt_, i, v.c_str(), int(v.size()), SQLITE_TRANSIENT);
    return *this;
}

Query& Query::bind(int i, const WString& v) { return bind(i, toUTF8(v)); }

bool Query::next() {
    if (!stmt_ || !ok_) return false;
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) {
        ok_ = false;
        db_.fail(rc);
    }
    return false;
}

bool Query::run() {
    while (next()) {
    }
    return ok_;
}

int64_t Query::int64(int col) const { return sqlite3_column_int64(stmt_, col); }
double Query::real(int col) const { return sqlite3_column_double(stmt_, col); }
bool Query::isNull(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }

String Query::text(int col) const {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
    return p ? String(p, size_t(sqlite3_column_bytes(stmt_, col))) : String("");
}

WString Query::wtext(int col) const {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
    return p ? fromUTF8(p, sqlite3_column_bytes(stmt_, col)) : WString(L"");
}

Connection::~Connection() { close(); }

bool Connection::open(const std::string& path, eMode mode) {
    close();
    int flags = SQLITE_OPEN_NOMUTEX; // each connection is used by one thread at a time
    switch (mode) {
    case eReadOnly: flags |= SQLITE_OPEN_READONLY; break;
    case eReadWrite: flags |= SQLITE_OPEN_READWRITE; break;
    case eCreate: flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE; break;
    }
    int rc = sqlite3_open_v2(path.c_str(), &db_, flags, nullptr);
    if (rc != SQLITE_OK) {
        lastCode_ = rc;
        lastError_ = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        close();
        return false;
    }
    sqlite3_extended_result_codes(db_, 1);
    // Another process (or this one's writer) may hold the write lock for a moment.
    sqlite3_busy_timeout(db_, 10000);
    return true;
}

void Connection::close() {
    for (auto& [sql, stmt] : cache_) sqlite3_finalize(stmt);
    cache_.clear();
    if (db_) sqlite3_close_v2(db_);
    db_ = nullptr;
}

sqlite3_stmt* Connection::statement(const char* sql) {
    if (!db_) {
        lastError_ = "the database is not open";
        lastCode_ = SQLITE_MISUSE;
        return nullptr;
    }
    auto it = cache_.find(sql);
    if (it != cache_.end()) return it->second;
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
    if (rc != SQLITE_OK) {
        fail(rc);
        return nullptr;
    }
    cache_.emplace(sql, stmt);
    return stmt;
}

void Connection::fail(int code) {
    lastCode_ = code;
    lastError_ = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(code);
}

bool Connection::exec(const char* sql) {
    if (!db_) return false;
    char* msg = nullptr;
    int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &msg);
    if (rc != SQLITE_OK) {
        lastCode_ = rc;
        lastError_ = msg ? msg : sqlite3_errstr(rc);
        sqlite3_free(msg);
        return false;
    }
    return true;
}

int64_t Connection::scalar(const char* sql, int64_t fallback) {
    if (!db_) return fallback;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        fail(sqlite3_errcode(db_));
        return fallback;
    }
    int64_t v = fallback;
    int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) v = sqlite3_column_int64(stmt, 0);
    else if (rc != SQLITE_DONE) fail(rc);
    sqlite3_finalize(stmt);
    return v;
}

bool Connection::begin(bool immediate) { return exec(immediate ? "BEGIN IMMEDIATE" : "BEGIN"); }
bool Connection::commit() { return exec("COMMIT"); }

void Connection::rollback() {
    if (db_ && !sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

bool Connection::inTransaction() const { return db_ && !sqlite3_get_autocommit(db_); }
int64_t Connection::changes() const { return db_ ? sqlite3_changes64(db_) : 0; }

} // namespace sqlite
