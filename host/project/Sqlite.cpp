// The SQLite connection and statements of the database layer.
#include "host/project/Sqlite.h"

#include <sqlite3.h>

namespace sqlite {

class Statement final : public sql::Statement {
public:
    Statement(Connection& db, sqlite3_stmt* stmt) : db_(db), stmt_(stmt) {}
    ~Statement() override { sqlite3_finalize(stmt_); }

    void bindInt(int i, int64_t v) override { sqlite3_bind_int64(stmt_, i, v); }
    void bindReal(int i, double v) override { sqlite3_bind_double(stmt_, i, v); }
    void bindText(int i, const String& v) override {
        sqlite3_bind_text(stmt_, i, v.c_str(), int(v.size()), SQLITE_TRANSIENT);
    }
    int step() override {
        int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return 1;
        if (rc == SQLITE_DONE) return 0;
        db_.fail(rc);
        return -1;
    }
    int64_t int64(int col) const override { return sqlite3_column_int64(stmt_, col); }
    double real(int col) const override { return sqlite3_column_double(stmt_, col); }
    String text(int col) const override {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
        return p ? String(p, size_t(sqlite3_column_bytes(stmt_, col))) : String("");
    }
    bool isNull(int col) const override { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }
    void reset() override {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }

private:
    Connection& db_;
    sqlite3_stmt* stmt_;
};

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
        setError(rc, db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
        close();
        return false;
    }
    sqlite3_extended_result_codes(db_, 1);
    // Another process (or this one's writer) may hold the write lock for a moment.
    sqlite3_busy_timeout(db_, 10000);
    return true;
}

void Connection::close() {
    dropStatements();
    if (db_) sqlite3_close_v2(db_);
    db_ = nullptr;
}

std::unique_ptr<sql::Statement> Connection::prepare(const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
    if (rc != SQLITE_OK) {
        fail(rc);
        return nullptr;
    }
    return std::make_unique<Statement>(*this, stmt);
}

void Connection::fail(int code) { setError(code, db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(code)); }

bool Connection::exec(const char* sql) {
    if (!db_) return false;
    char* msg = nullptr;
    int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &msg);
    if (rc != SQLITE_OK) {
        setError(rc, msg ? msg : sqlite3_errstr(rc));
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
