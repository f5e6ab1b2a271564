// The server project: its schema on PostgreSQL, checking and creating it, its connections
// and the thread that listens for other seats' commits.
#include "host/project/ServerProject.h"

#include "host/core/Strings.h"
#include "host/os/Log.h"

#include <chrono>
#include <cstdio>
#include <random>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

// The tables of a project file (see SqliteProject.cpp for what each holds) in the
// server's types: identifier words need 64-bit integers, times double precision, and
// text compares byte by byte as it does in a file. Item numbers come from a sequence.
const char kSchema[] = R"sql(
CREATE TABLE settings(key TEXT COLLATE "C" PRIMARY KEY, value BIGINT);
CREATE SEQUENCE item_numbers START 1000;
CREATE TABLE edits(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL,
    name TEXT COLLATE "C" NOT NULL DEFAULT '',
    log_type BIGINT NOT NULL,
    flags BIGINT NOT NULL DEFAULT 0,
    sample_rate BIGINT NOT NULL DEFAULT 48000,
    decode_options TEXT COLLATE "C" NOT NULL DEFAULT '',
    audio_metadata TEXT COLLATE "C" NOT NULL DEFAULT '',
    PRIMARY KEY(id1, id2));
CREATE TABLE channels(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL,
    chan BIGINT NOT NULL, kind BIGINT NOT NULL, flags BIGINT NOT NULL DEFAULT 1,
    PRIMARY KEY(id1, id2, chan),
    FOREIGN KEY(id1, id2) REFERENCES edits(id1, id2) ON DELETE CASCADE);
CREATE TABLE refs(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL,
    selector BIGINT NOT NULL, seq BIGINT NOT NULL,
    type BIGINT NOT NULL, rid1 BIGINT NOT NULL, rid2 BIGINT NOT NULL, ridx BIGINT NOT NULL,
    PRIMARY KEY(id1, id2, selector, seq),
    FOREIGN KEY(id1, id2) REFERENCES edits(id1, id2) ON DELETE CASCADE);
CREATE TABLE segments(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL,
    chan BIGINT NOT NULL, start DOUBLE PRECISION NOT NULL, finish DOUBLE PRECISION NOT NULL,
    kind BIGINT NOT NULL,
    type BIGINT NOT NULL DEFAULT 0, rid1 BIGINT NOT NULL DEFAULT 0, rid2 BIGINT NOT NULL DEFAULT 0,
    ridx BIGINT NOT NULL DEFAULT 255,
    effect TEXT COLLATE "C" NOT NULL DEFAULT '',
    PRIMARY KEY(id1, id2, chan, start),
    FOREIGN KEY(id1, id2) REFERENCES edits(id1, id2) ON DELETE CASCADE);
CREATE TABLE modifications(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL, seq BIGINT NOT NULL,
    mod_type BIGINT NOT NULL, value BIGINT NOT NULL,
    PRIMARY KEY(id1, id2, seq),
    FOREIGN KEY(id1, id2) REFERENCES edits(id1, id2) ON DELETE CASCADE);
CREATE TABLE material(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL, type BIGINT NOT NULL, idx BIGINT NOT NULL,
    kind BIGINT NOT NULL DEFAULT 1,
    start_offset BIGINT NOT NULL DEFAULT 0,
    header TEXT COLLATE "C" NOT NULL DEFAULT '',
    PRIMARY KEY(id1, id2, type, idx));
CREATE TABLE files(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL, type BIGINT NOT NULL, idx BIGINT NOT NULL,
    role BIGINT NOT NULL, seq BIGINT NOT NULL,
    drive TEXT COLLATE "C" NOT NULL, path TEXT COLLATE "C" NOT NULL,
    link_target TEXT COLLATE "C" NOT NULL DEFAULT '',
    storage BIGINT NOT NULL DEFAULT 0,
    status BIGINT NOT NULL DEFAULT 0,
    size BIGINT NOT NULL DEFAULT 0,
    PRIMARY KEY(id1, id2, type, idx, role, seq),
    FOREIGN KEY(id1, id2, type, idx) REFERENCES material(id1, id2, type, idx) ON DELETE CASCADE);
CREATE INDEX files_by_name ON files(drive, path);
CREATE INDEX files_by_target ON files(link_target) WHERE link_target <> '';
CREATE TABLE drives(
    id TEXT COLLATE "C" PRIMARY KEY,
    seq BIGINT NOT NULL UNIQUE,
    name TEXT COLLATE "C" NOT NULL DEFAULT '',
    root TEXT COLLATE "C" NOT NULL,
    video_folder TEXT COLLATE "C" NOT NULL DEFAULT 'video',
    sound_folder TEXT COLLATE "C" NOT NULL DEFAULT 'sound',
    tasks TEXT COLLATE "C" NOT NULL DEFAULT '');
CREATE TABLE mount_points(
    seq BIGINT PRIMARY KEY,
    path TEXT COLLATE "C" NOT NULL DEFAULT '',
    alt_path TEXT COLLATE "C" NOT NULL DEFAULT '');
CREATE TABLE server_logs(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL,
    has_proxies BIGINT NOT NULL DEFAULT 0,
    PRIMARY KEY(id1, id2));
CREATE TABLE server_media(
    id1 BIGINT NOT NULL, id2 BIGINT NOT NULL, seq BIGINT NOT NULL,
    type BIGINT NOT NULL, mid1 BIGINT NOT NULL, mid2 BIGINT NOT NULL, midx BIGINT NOT NULL,
    path TEXT COLLATE "C" NOT NULL DEFAULT '',
    PRIMARY KEY(id1, id2, seq));
)sql";

constexpr const char* kChannel = "playfile_changes";

// A word that identifies this project's items: never 0, never the filler's first word.
int64_t makeProjectWord() {
    std::random_device rd;
    std::mt19937_64 rng((uint64_t(rd()) << 32) ^ uint64_t(rd()));
    uint32_t w = 0;
    while (w < 2) w = uint32_t(rng());
    return w;
}

std::string makeToken() {
    std::random_device rd;
    char buf[48];
    std::snprintf(buf, sizeof buf, "%d-%08x%08x", int(getpid()), unsigned(rd()), unsigned(rd()));
    return buf;
}

} // namespace

ServerProject::ServerProject(std::string uri) : ProjectDatabase(WString()), uri_(std::move(uri)), token_(makeToken()) {}

ServerProject::~ServerProject() {
    stop_ = true;
    if (wakeFd_ >= 0) {
        uint64_t one = 1;
        if (::write(wakeFd_, &one, sizeof one) < 0) {
            // The thread still ends at its next wait's time-out.
        }
    }
    if (thread_.joinable()) thread_.join();
    if (wakeFd_ >= 0) ::close(wakeFd_);
    closeConnections();
}

WString ServerProject::path() const { return fromUTF8(pg::withoutPassword(uri_).c_str()); }

Zn::Ptr<ProjectDatabase> ServerProject::open(const WString& uri, bool create, WString& error) {
    Zn::Ptr<ServerProject> db(new ServerProject(toUTF8(uri).str()));
    auto writer = std::make_unique<pg::Connection>();
    if (!writer->open(db->uri_)) {
        error = WString(L"cannot reach the project database ") + db->path() + L": " + fromUTF8(writer->lastError().c_str());
        return nullptr;
    }
    if (!db->check(*writer, create, error)) return nullptr;
    writer->setCommitNotice(std::string("NOTIFY ") + kChannel + ", '" + db->token_ + "'");
    ServerProject* self = db.get();
    writer->setOnReconnect([self] { self->outsideChanges_.fetch_add(1); });
    {
        PlainMutex::Lock lock(db->writeMutex_);
        db->writer_ = std::move(writer);
    }
    if (!db->startListening(error)) return nullptr;
    return db;
}

// Refuses a database that holds no project of this schema (making one there first with
// create), without writing to it otherwise. Two seats creating at once make one project:
// the creation is one transaction under a lock of its own and looks again inside it.
bool ServerProject::check(pg::Connection& db, bool create, WString& error) {
    auto refuse = [&](const std::string& why) {
        error = WString(L"project database ") + path() + L" " + fromUTF8(why.c_str());
        return false;
    };
    const char* exists = "SELECT count(*) FROM pg_tables WHERE schemaname = current_schema() AND tablename = 'settings'";
    if (db.scalar(exists, -1) == 0) {
        if (!create) return refuse("holds no project");
        bool made = db.exec("BEGIN; SELECT pg_advisory_xact_lock(1886152293)");
        if (made && db.scalar(exists, -1) == 0) {
            char settings[200];
            std::snprintf(settings, sizeof settings,
                          "INSERT INTO settings VALUES ('application_id', %d), ('schema_version', %d), "
                          "('project_word', %lld)",
                          kApplicationId, kSchemaVersion, (long long)makeProjectWord());
            made = db.exec(kSchema) && db.exec(settings);
        }
        if (!made || !db.commit()) {
            std::string why = db.lastError();
            db.rollback();
            return refuse("cannot be created: " + why);
        }
    }
    int64_t app = db.scalar("SELECT value FROM settings WHERE key = 'application_id'", INT64_MIN);
    if (app != kApplicationId) return refuse("is not a playfile project");
    int64_t version = db.scalar("SELECT value FROM settings WHERE key = 'schema_version'", -1);
    if (version > kSchemaVersion)
        return refuse("has schema version " + std::to_string(version) + ", newer than this program reads (" +
                      std::to_string(kSchemaVersion) + ")");
    if (version != kSchemaVersion) return refuse("has an unknown schema version " + std::to_string(version));
    return true;
}

std::unique_ptr<sql::Connection> ServerProject::connect() const {
    auto conn = std::make_unique<pg::Connection>();
    if (!conn->open(uri_)) {
        LogBoth("ProjectDatabase: cannot connect a reader to %s: %s\n", toUTF8(path()).c_str(),
                conn->lastError().c_str());
        return nullptr;
    }
    conn->setOnReconnect([this] { outsideChanges_.fetch_add(1); });
    return conn;
}

bool ServerProject::startListening(WString& error) {
    const std::string command = std::string("LISTEN ") + kChannel;
    if (!listener_.open(uri_) || !listener_.exec(command.c_str())) {
        error = WString(L"cannot listen for other seats' changes on ") + path() + L": " +
                fromUTF8(listener_.lastError().c_str());
        return false;
    }
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { listen(); });
    return true;
}

void ServerProject::listen() {
    const std::string command = std::string("LISTEN ") + kChannel;
    while (!stop_) {
        int seen = listener_.waitForNotifications(wakeFd_, 1000, token_);
        if (seen > 0) outsideChanges_.fetch_add(uint64_t(seen));
        if (seen >= 0) continue;
        // Lost: whatever was announced meanwhile is unknown, so count a change once
        // listening again.
        listener_.close();
        while (!stop_) {
            if (listener_.open(uri_) && listener_.exec(command.c_str())) {
                outsideChanges_.fetch_add(1);
                break;
            }
            pollfd wake{wakeFd_, POLLIN, 0};
            ::poll(&wake, 1, 200);
        }
    }
}
