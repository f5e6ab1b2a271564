// Starting and stopping the tests' PostgreSQL server, and the tests' databases on it.
#include "support/PostgresServer.h"

#include <libpq-fe.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <pwd.h>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace testing_support {

namespace {

constexpr const char* kAdmin = "playfile";

// Where initdb and pg_ctl are: pg_config's answer, else the newest installed version.
std::string serverBin() {
    if (FILE* p = ::popen("pg_config --bindir 2>/dev/null", "r")) {
        char buf[512] = {};
        bool got = std::fgets(buf, sizeof buf, p) != nullptr;
        ::pclose(p);
        std::string dir = got ? std::string(buf) : "";
        while (!dir.empty() && (dir.back() == '\n' || dir.back() == ' ')) dir.pop_back();
        if (!dir.empty() && fs::exists(fs::path(dir) / "initdb")) return dir;
    }
    std::string best;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator("/usr/lib/postgresql", ec))
        if (fs::exists(e.path() / "bin" / "initdb") && e.path().string() > best) best = e.path().string();
    return best.empty() ? best : best + "/bin";
}

// Runs command (output to log) as the server's user; true when it succeeds.
bool runAsServerUser(const std::string& command, const std::string& log, uid_t uid, gid_t gid) {
    std::string line = command + " >>'" + log + "' 2>&1";
    if (::getuid() == 0)
        line = "setpriv --reuid=" + std::to_string(uid) + " --regid=" + std::to_string(gid) + " --clear-groups " + line;
    return std::system(line.c_str()) == 0;
}

std::string tail(const std::string& log) {
    std::ifstream in(log);
    std::stringstream s;
    s << in.rdbuf();
    std::string text = s.str();
    return text.size() > 600 ? text.substr(text.size() - 600) : text;
}

// The folder of the server this process started itself, stopped at exit.
struct OwnServer {
    std::string folder;
    ~OwnServer() {
        if (!folder.empty()) PostgresServer::stop(folder);
    }
};

} // namespace

bool PostgresServer::start(const std::string& folder, bool durable, std::string& error) {
    const std::string bin = serverBin();
    if (bin.empty()) {
        error = "the PostgreSQL server programs are not installed (scripts/bootstrap installs them)";
        return false;
    }
    uid_t uid = ::getuid();
    gid_t gid = ::getgid();
    if (uid == 0) {
        const passwd* pw = ::getpwnam("postgres");
        if (!pw) pw = ::getpwnam("nobody");
        if (!pw) {
            error = "no unprivileged user to run the server as";
            return false;
        }
        uid = pw->pw_uid;
        gid = pw->pw_gid;
    }
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec || ::chown(folder.c_str(), uid, gid) != 0) {
        error = "cannot prepare " + folder;
        return false;
    }
    fs::permissions(folder, fs::perms::owner_all, ec);
    const std::string log = folder + "/server.log";
    const std::string data = folder + "/data";
    std::string options = "-c listen_addresses='' -c unix_socket_directories='" + folder +
                          "' -c max_connections=300 -c shared_buffers=32MB";
    if (!durable) options += " -c fsync=off -c synchronous_commit=off -c full_page_writes=off";
    if (!runAsServerUser("'" + bin + "/initdb' -D '" + data + "' -A trust -U " + kAdmin +
                             " --locale=C -E UTF8 --no-sync --no-instructions",
                         log, uid, gid) ||
        !runAsServerUser("'" + bin + "/pg_ctl' -D '" + data + "' -l '" + folder + "/run.log' -w -t 60 -o \"" +
                             options + "\" start",
                         log, uid, gid)) {
        error = "the PostgreSQL server did not start: " + tail(log) + tail(folder + "/run.log");
        return false;
    }
    return true;
}

void PostgresServer::stop(const std::string& folder) {
    const std::string bin = serverBin();
    const std::string data = folder + "/data";
    if (!bin.empty() && fs::exists(data)) {
        const std::string pid = data + "/postmaster.pid";
        std::string line = "'" + bin + "/pg_ctl' -D '" + data + "' -m immediate -w stop >/dev/null 2>&1";
        if (::getuid() == 0) {
            const passwd* pw = ::getpwnam("postgres");
            if (!pw) pw = ::getpwnam("nobody");
            if (pw)
                line = "setpriv --reuid=" + std::to_string(pw->pw_uid) + " --regid=" + std::to_string(pw->pw_gid) +
                       " --clear-groups " + line;
        }
        if (fs::exists(pid) && std::system(line.c_str()) != 0) std::fprintf(stderr, "cannot stop the server\n");
    }
    std::error_code ec;
    fs::remove_all(folder, ec);
}

std::string PostgresServer::uri(const std::string& folder, const std::string& database) {
    return std::string("postgresql://") + kAdmin + "@/" + database + "?host=" + folder;
}

std::string PostgresServer::shared(std::string& error) {
    if (const char* fixture = std::getenv("PLAYFILE_TEST_POSTGRES")) {
        if (fs::exists(fs::path(fixture) / "data" / "postmaster.pid")) return fixture;
        std::ifstream why(fs::path(fixture) / "error");
        std::getline(why, error);
        if (error.empty()) error = "the tests' PostgreSQL server is not running in " + std::string(fixture);
        return "";
    }
    static std::mutex mutex;
    static OwnServer own;
    static std::string failure;
    std::lock_guard<std::mutex> lock(mutex);
    if (own.folder.empty() && failure.empty()) {
        char name[] = "/tmp/playfile-pg-XXXXXX";
        if (!::mkdtemp(name)) {
            failure = "cannot make a folder for the server";
        } else if (!start(name, false, failure)) {
            stop(name);
        } else {
            own.folder = name;
        }
    }
    error = failure;
    return own.folder;
}

namespace {

long long runOn(const std::string& uri, const std::string& sql, std::string* error) {
    PGconn* c = PQconnectdb(uri.c_str());
    long long v = -1;
    if (PQstatus(c) != CONNECTION_OK) {
        if (error) *error = PQerrorMessage(c);
    } else {
        PGresult* r = PQexec(c, sql.c_str());
        ExecStatusType s = PQresultStatus(r);
        if (s == PGRES_TUPLES_OK && PQntuples(r) > 0) v = std::atoll(PQgetvalue(r, 0, 0));
        if (s != PGRES_TUPLES_OK && s != PGRES_COMMAND_OK && error) *error = PQresultErrorMessage(r);
        PQclear(r);
    }
    PQfinish(c);
    return v;
}

std::atomic<int> g_databases{0};

} // namespace

PostgresDatabase::PostgresDatabase() {
    folder_ = PostgresServer::shared(why_);
    if (!folder_.empty()) create();
}

PostgresDatabase::PostgresDatabase(const std::string& folder) : folder_(folder) { create(); }

void PostgresDatabase::create() {
    name_ = "t" + std::to_string(::getpid()) + "_" + std::to_string(g_databases.fetch_add(1));
    std::string error;
    runOn(PostgresServer::uri(folder_, "postgres"), "CREATE DATABASE " + name_, &error);
    if (!error.empty()) {
        why_ = "cannot make a database on the tests' server: " + error;
        return;
    }
    uri_ = PostgresServer::uri(folder_, name_);
}

PostgresDatabase::~PostgresDatabase() {
    if (uri_.empty()) return;
    // The server drops it on its own time: waiting would cost the test most of a second
    // while the sessions of the closed project end.
    PGconn* c = PQconnectdb(PostgresServer::uri(folder_, "postgres").c_str());
    if (PQstatus(c) == CONNECTION_OK) PQsendQuery(c, ("DROP DATABASE " + name_ + " WITH (FORCE)").c_str());
    PQfinish(c);
}

long long PostgresDatabase::run(const std::string& sql, std::string* error) const {
    return runOn(uri_, sql, error);
}

} // namespace testing_support
