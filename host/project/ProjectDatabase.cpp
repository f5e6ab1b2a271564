// What both kinds of project database share: choosing one by location, the reader pool,
// the transactions, item numbers and settings.
#include "host/project/ProjectDatabase.h"

#include "host/core/Strings.h"
#include "host/os/Log.h"
#include "host/project/ServerProject.h"
#include "host/project/SqliteProject.h"

namespace {

std::atomic<uint64_t> g_instances{0};

} // namespace

ProjectDatabase::ProjectDatabase(const WString& folder) : folder_(folder), instanceId_(g_instances.fetch_add(1) + 1) {}

ProjectDatabase::~ProjectDatabase() { closeConnections(); }

void ProjectDatabase::closeConnections() {
    {
        PlainMutex::Lock lock(poolMutex_);
        idle_.clear();
    }
    PlainMutex::Lock lock(writeMutex_);
    writer_.reset();
}

bool ProjectDatabase::isServerLocation(const WString& location) {
    return location.startsWith(L"postgresql://") || location.startsWith(L"postgres://");
}

Zn::Ptr<ProjectDatabase> ProjectDatabase::open(const WString& location, bool create, WString& error) {
    error = WString();
    if (location.empty()) {
        error = WString(L"no project folder given");
        return nullptr;
    }
    if (isServerLocation(location)) return ServerProject::open(location, create, error);
    return SqliteProject::open(location, create, error);
}

std::unique_ptr<sql::Connection> ProjectDatabase::takeReader() const {
    {
        PlainMutex::Lock lock(poolMutex_);
        if (!idle_.empty()) {
            auto conn = std::move(idle_.back());
            idle_.pop_back();
            return conn;
        }
    }
    return connect();
}

void ProjectDatabase::giveBackReader(std::unique_ptr<sql::Connection> conn) const {
    PlainMutex::Lock lock(poolMutex_);
    // Enough connections for the threads that read at once; a burst beyond that closes.
    if (idle_.size() < 16) idle_.push_back(std::move(conn));
}

namespace {

// A connection that is not open: every query on it fails.
class Closed final : public sql::Connection {
public:
    sql::Dialect dialect() const noexcept override { return sql::Dialect::eSqlite; }
    bool isOpen() const noexcept override { return false; }
    void close() override {}
    bool exec(const char*) override { return false; }
    int64_t scalar(const char*, int64_t fallback) override { return fallback; }
    bool beginRead() override { return false; }
    bool begin(bool) override { return false; }
    bool commit() override { return false; }
    void rollback() override {}
    bool inTransaction() const override { return false; }
    int64_t changes() const override { return 0; }

private:
    std::unique_ptr<sql::Statement> prepare(const char*) override { return nullptr; }
};

} // namespace

ProjectDatabase::Read::Read(const ProjectDatabase& db) : owner_(db), conn_(db.takeReader()) {
    if (!conn_) {
        conn_ = std::make_unique<Closed>();
        return;
    }
    ok_ = conn_->beginRead();
}

ProjectDatabase::Read::~Read() {
    if (!conn_->isOpen()) return;
    if (conn_->inTransaction() && !conn_->commit()) conn_->rollback();
    owner_.giveBackReader(std::move(conn_));
}

ProjectDatabase::Write::Write(ProjectDatabase& db) : owner_(db), lock_(db.writeMutex_) {
    ok_ = writer().begin(true);
    if (!ok_) LogBoth("ProjectDatabase: cannot start a write: %s\n", writer().lastError().c_str());
}

ProjectDatabase::Write::~Write() {
    if (!done_) writer().rollback();
}

bool ProjectDatabase::Write::commit() {
    done_ = true;
    if (ok_ && writer().commit()) {
        owner_.localCommits_.fetch_add(1);
        return true;
    }
    LogBoth("ProjectDatabase: write of %s failed: %s\n", toUTF8(owner_.path()).c_str(),
            writer().lastError().c_str());
    writer().rollback();
    ok_ = false;
    return false;
}

CookieVec ProjectDatabase::search(int field, unsigned mask) const {
    CookieVec out;
    if (field != 1 && field != 2) return out;
    Read r(*this);
    if (!r.ok()) return out;
    const char* sql = field == 2 ? "SELECT id1, id2 FROM edits WHERE (flags & ?1) <> 0 ORDER BY id2, id1"
                                 : "SELECT id1, id2 FROM edits WHERE (log_type & ?1) <> 0 ORDER BY id2, id1";
    sql::Query q(r.db(), sql);
    q.bind(1, int64_t(mask));
    while (q.next()) out.add(Cookie('E', uint32_t(q.int64(0)), uint32_t(q.int64(1))));
    return out;
}

Cookie ProjectDatabase::newCookie(sql::Connection& db, CookieType type) {
    int64_t word = setting(db, "project_word", 2);
    int64_t next;
    if (db.dialect() == sql::Dialect::ePostgres) {
        // The sequence hands every seat numbers of its own, whatever their transactions do.
        do {
            sql::Query q(db, "SELECT nextval('item_numbers')");
            if (!q.next()) return Cookie();
            next = q.int64(0);
        } while (next == int64_t(Cookie::kFillerWord));
    } else {
        next = setting(db, "next_id", 1000);
        if (next == int64_t(Cookie::kFillerWord)) ++next;
        if (!setSetting(db, "next_id", next + 1)) return Cookie();
    }
    return Cookie(type, uint32_t(word), uint32_t(next));
}

int64_t ProjectDatabase::nextItemNumber(sql::Connection& db) {
    if (db.dialect() != sql::Dialect::ePostgres) return setting(db, "next_id", 1000);
    sql::Query q(db, "SELECT CASE WHEN is_called THEN last_value + 1 ELSE last_value END FROM item_numbers");
    return q.next() ? q.int64(0) : 1000;
}

int64_t ProjectDatabase::setting(sql::Connection& db, const char* key, int64_t fallback) {
    sql::Query q(db, "SELECT value FROM settings WHERE key = ?1");
    q.bind(1, key);
    return q.next() ? q.int64(0) : fallback;
}

bool ProjectDatabase::setSetting(sql::Connection& db, const char* key, int64_t value) {
    sql::Query q(db, "INSERT INTO settings(key, value) VALUES(?1, ?2) "
                     "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
    q.bind(1, key).bind(2, value);
    return q.run();
}
