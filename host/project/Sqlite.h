// The SQLite implementation of the database layer (SqlConnection.h): one connection to a
// project file. Nothing outside host/project uses it.
#pragma once

#include "host/project/SqlConnection.h"

#include <cstdint>
#include <string>

struct sqlite3;

namespace sqlite {

class Connection final : public sql::Connection {
public:
    enum eMode { eReadOnly, eReadWrite, eCreate };

    Connection() = default;
    ~Connection() override;

    // Opens path; false with lastError() set when it cannot be opened.
    bool open(const std::string& path, eMode mode);
    void close() override;
    bool isOpen() const noexcept override { return db_ != nullptr; }
    sql::Dialect dialect() const noexcept override { return sql::Dialect::eSqlite; }

    bool exec(const char* sql) override;
    int64_t scalar(const char* sql, int64_t fallback = -1) override;

    bool beginRead() override { return exec("BEGIN"); }
    // begin(true) is BEGIN IMMEDIATE: the file's write lock at once.
    bool begin(bool immediate) override;
    bool commit() override;
    void rollback() override;
    bool inTransaction() const override;
    int64_t changes() const override;

private:
    friend class Statement;
    std::unique_ptr<sql::Statement> prepare(const char* sql) override;
    void fail(int code);

    sqlite3* db_ = nullptr;
};

} // namespace sqlite
