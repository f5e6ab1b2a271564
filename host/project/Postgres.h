// The PostgreSQL implementation of the database layer (SqlConnection.h), over libpq: one
// connection to a server, statements prepared on the server once per connection, and
// the waiting for notifications that tells a seat of other seats' commits. A connection
// that the server dropped (a restart, pg_terminate_backend) is made again when the next
// transaction begins. Nothing outside host/project uses it.
#pragma once

#include "host/project/SqlConnection.h"

#include <functional>
#include <string>

struct pg_conn;

namespace pg {

class Connection final : public sql::Connection {
public:
    Connection() = default;
    ~Connection() override;

    // Connects to uri (a libpq connection URI or "key=value" string); false with
    // lastError() set when the server cannot be reached or refuses.
    bool open(const std::string& uri);
    void close() override;
    bool isOpen() const noexcept override { return conn_ != nullptr; }
    sql::Dialect dialect() const noexcept override { return sql::Dialect::ePostgres; }

    bool exec(const char* sql) override;
    int64_t scalar(const char* sql, int64_t fallback = -1) override;

    // A repeatable-read, read-only transaction. Both this and begin() reconnect once
    // when the server has dropped the connection.
    bool beginRead() override;
    // A transaction holding the project's write lock (a transaction-level advisory
    // lock, so that seats write one after the other as processes do on one file).
    bool begin(bool immediate) override;
    // Sends the commit notice (see setCommitNotice) with the commit.
    bool commit() override;
    void rollback() override;
    bool inTransaction() const override;
    int64_t changes() const override { return changes_; }

    // Statements sent with every commit of this connection (a NOTIFY for other seats).
    void setCommitNotice(std::string sql) { commitNotice_ = std::move(sql); }
    // Called after the connection has been made again, so that the owner forgets what
    // it kept from before.
    void setOnReconnect(std::function<void()> f) { onReconnect_ = std::move(f); }

    // Waits up to timeoutMs for notifications on this connection (which has run LISTEN),
    // or for wakeFd to become readable. Answers how many arrived whose payload is not
    // ignored, or -1 when the connection is lost.
    int waitForNotifications(int wakeFd, int timeoutMs, const std::string& ignored);

private:
    friend class Statement;
    std::unique_ptr<sql::Statement> prepare(const char* sql) override;
    // Runs sql, making the connection again once first when the server dropped it.
    bool execReconnecting(const char* sql);
    bool reconnect();
    void failFromConnection();

    pg_conn* conn_ = nullptr;
    std::string uri_;
    std::string commitNotice_;
    std::function<void()> onReconnect_;
    int64_t changes_ = 0;
    std::string lastState_; // the SQLSTATE of exec's last failure
    unsigned statements_ = 0; // names of prepared statements: s1, s2, ...
};

// A connection URI without its password, for messages.
std::string withoutPassword(const std::string& uri);

} // namespace pg
