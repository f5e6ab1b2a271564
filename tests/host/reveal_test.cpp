// Showing files in the file browser: the configured program gets each path as one
// argument; a file manager on a real session bus (a dbus-daemon started here, with a small
// FileManager1 service on it) gets the files as URIs; without one, xdg-open (a script put
// first in PATH) gets the folders.
#include "host/os/Config.h"
#include "host/os/Reveal.h"
#include "host/core/Strings.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <dbus/dbus.h>

#include <atomic>
#include <cstdio>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using testing_support::ScopedEnv;
using testing_support::TempDir;

extern char** environ;

namespace {

// A script that appends each of its arguments to a file, each followed by a NUL byte.
std::string recordingScript(const TempDir& dir, const std::string& name, const std::string& record) {
    std::string path = dir.file(name);
    testing_support::writeFile(path, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\" >> '" + record + "'; done\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

std::vector<std::string> recorded(const std::string& record) {
    std::string bytes = testing_support::readFile(record);
    std::vector<std::string> out;
    for (size_t start = 0, nul; (nul = bytes.find('\0', start)) != std::string::npos; start = nul + 1)
        out.push_back(bytes.substr(start, nul - start));
    return out;
}

// A private session bus: dbus-daemon with a configuration of our own (no activatable
// services, so only what a test puts on the bus answers).
class SessionBus {
public:
    explicit SessionBus(const TempDir& dir) {
        std::string socket = dir.file("bus");
        address_ = "unix:path=" + socket;
        std::string conf = dir.file("bus.conf");
        testing_support::writeFile(conf, "<busconfig><type>session</type><listen>" + address_ +
                                             "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                                             "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                                             "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>");
        std::string arg = "--config-file=" + conf;
        char* argv[] = {const_cast<char*>("dbus-daemon"), const_cast<char*>(arg.c_str()),
                        const_cast<char*>("--nofork"), nullptr};
        // Its complaints about resource limits it may not raise are noise here.
        posix_spawn_file_actions_t quiet;
        posix_spawn_file_actions_init(&quiet);
        posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
        int rc = ::posix_spawnp(&pid_, "dbus-daemon", &quiet, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&quiet);
        if (rc != 0) {
            pid_ = -1;
            return;
        }
        // The socket file appears at bind(), before the daemon listens: wait until a
        // connection is accepted, or a client started in between is refused.
        for (int i = 0; i < 500 && !accepts(socket); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~SessionBus() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool running() const { return pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0; }
    const std::string& address() const { return address_; }

private:
    static bool accepts(const std::string& socket) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket.c_str());
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool ok = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        if (fd >= 0) ::close(fd);
        return ok;
    }

    pid_t pid_ = -1;
    std::string address_;
};

// The FileManager1 service: owns the name and records the URIs of each ShowItems call.
class FakeFileManager {
public:
    explicit FakeFileManager(const std::string& address) {
        DBusError err;
        dbus_error_init(&err);
        conn_ = dbus_connection_open_private(address.c_str(), &err);
        if (conn_ && dbus_bus_register(conn_, &err) &&
            dbus_bus_request_name(conn_, "org.freedesktop.FileManager1", DBUS_NAME_FLAG_DO_NOT_QUEUE, &err) ==
                DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
            thread_ = std::thread([this] { serve(); });
        dbus_error_free(&err);
    }
    ~FakeFileManager() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (conn_) {
            dbus_connection_close(conn_);
            dbus_connection_unref(conn_);
        }
    }
    bool ready() const { return thread_.joinable(); }
    std::vector<std::vector<std::string>> calls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

private:
    void serve() {
        while (!stop_ && dbus_connection_read_write(conn_, 20)) {
            while (DBusMessage* m = dbus_connection_pop_message(conn_)) {
                if (dbus_message_is_method_call(m, "org.freedesktop.FileManager1", "ShowItems")) record(m);
                dbus_message_unref(m);
            }
        }
    }
    void record(DBusMessage* m) {
        std::vector<std::string> uris;
        DBusMessageIter args, list;
        if (dbus_message_iter_init(m, &args) && dbus_message_iter_get_arg_type(&args) == DBUS_TYPE_ARRAY) {
            dbus_message_iter_recurse(&args, &list);
            for (; dbus_message_iter_get_arg_type(&list) == DBUS_TYPE_STRING; dbus_message_iter_next(&list)) {
                const char* s = nullptr;
                dbus_message_iter_get_basic(&list, &s);
                uris.push_back(s);
            }
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(uris);
        }
        DBusMessage* reply = dbus_message_new_method_return(m);
        dbus_connection_send(conn_, reply, nullptr);
        dbus_connection_flush(conn_);
        dbus_message_unref(reply);
    }

    DBusConnection* conn_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_; // guards calls_
    std::vector<std::vector<std::string>> calls_;
};

// Files in a folder whose names need quoting and encoding; created for real.
std::vector<WString> awkwardFiles(const TempDir& dir) {
    std::vector<WString> files;
    for (const char* name : {"plain.mov", "with space 'q' \"dq\".mov", "new\nline$(x).wav", "-dash \xC3\xA9.mov"}) {
        testing_support::writeFile(dir.path() / name, "x");
        files.push_back(fromUTF8(dir.file(name).c_str()));
    }
    return files;
}

} // namespace

TEST(Reveal, ConfiguredProgramGetsEachAbsolutePathAsOneArgument) {
    TempDir dir;
    std::string record = dir.file("args");
    std::vector<WString> files = awkwardFiles(dir);
    std::string script = recordingScript(dir, "show files", record);
    setConfigValue("RevealCommand", String(script));
    EXPECT_EQ(Zn::revealFilesInOS(files), Zn::RevealRoute::eCommand);
    std::vector<std::string> expected;
    for (const WString& f : files) expected.emplace_back(toUTF8(f).view());
    EXPECT_EQ(recorded(record), expected);

    // A relative name is given from the current folder; the environment names the program too.
    clearConfigValue("RevealCommand");
    std::filesystem::remove(record);
    ScopedEnv env("PLAYFILE_RevealCommand", script);
    std::filesystem::path cwd = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    Zn::RevealRoute route = Zn::revealFilesInOS({WString(L"plain.mov")});
    std::filesystem::current_path(cwd);
    EXPECT_EQ(route, Zn::RevealRoute::eCommand);
    EXPECT_EQ(recorded(record), std::vector<std::string>{dir.file("plain.mov")});
}

TEST(Reveal, ConfiguredProgramThatCannotRunOrFailsShowsNothing) {
    TempDir dir;
    ScopedEnv missing("PLAYFILE_RevealCommand", dir.file("no such program"));
    EXPECT_EQ(Zn::revealFilesInOS({fromUTF8(dir.file("a.mov").c_str())}), Zn::RevealRoute::eNone);
    ScopedEnv failing("PLAYFILE_RevealCommand", "false");
    EXPECT_EQ(Zn::revealFilesInOS({fromUTF8(dir.file("a.mov").c_str())}), Zn::RevealRoute::eNone);
    EXPECT_EQ(Zn::revealFilesInOS({}), Zn::RevealRoute::eNone);
}

TEST(Reveal, FileManagerOnTheSessionBusSelectsTheFiles) {
    TempDir dir;
    SessionBus bus(dir);
    if (!bus.running()) GTEST_SKIP() << "dbus-daemon could not be started";
    FakeFileManager fm(bus.address());
    ASSERT_TRUE(fm.ready());
    ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", bus.address());
    ScopedEnv noCommand("PLAYFILE_RevealCommand", nullptr);
    // An xdg-open that records, to prove it is not used.
    std::string opened = dir.file("opened");
    recordingScript(dir, "xdg-open", opened);
    ScopedEnv path("PATH", dir.path().string() + ":" + std::getenv("PATH"));

    std::vector<WString> files = awkwardFiles(dir);
    EXPECT_EQ(Zn::revealFilesInOS(files), Zn::RevealRoute::eFileManager);
    auto calls = fm.calls();
    ASSERT_EQ(calls.size(), 1u);
    std::string folder = Zn::fileUri(fromUTF8(dir.path().c_str()));
    EXPECT_EQ(calls[0], (std::vector<std::string>{folder + "/plain.mov", folder + "/with%20space%20%27q%27%20%22dq%22.mov",
                                                   folder + "/new%0Aline%24%28x%29.wav", folder + "/-dash%20%C3%A9.mov"}));
    EXPECT_FALSE(std::filesystem::exists(opened));
}

TEST(Reveal, WithoutAFileManagerTheFoldersAreOpened) {
    TempDir dir;
    SessionBus bus(dir);
    if (!bus.running()) GTEST_SKIP() << "dbus-daemon could not be started";
    ScopedEnv noCommand("PLAYFILE_RevealCommand", nullptr);
    std::string opened = dir.file("opened");
    recordingScript(dir, "xdg-open", opened);
    ScopedEnv path("PATH", dir.path().string() + ":" + std::getenv("PATH"));
    std::filesystem::create_directory(dir.path() / "sub dir");
    std::vector<WString> files = {fromUTF8(dir.file("a.mov").c_str()), fromUTF8(dir.file("sub dir/b.mov").c_str()),
                                  fromUTF8(dir.file("c.wav").c_str())};

    // A bus with nobody owning the file manager's name, then no bus at all.
    for (const std::string& address : {bus.address(), "unix:path=" + dir.file("no-bus")}) {
        ScopedEnv env("DBUS_SESSION_BUS_ADDRESS", address);
        std::filesystem::remove(opened);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Zn::revealFilesInOS(files), Zn::RevealRoute::eFolder);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_EQ(recorded(opened), (std::vector<std::string>{dir.path().string(), dir.file("sub dir")}));
    }
}

TEST(Reveal, ABusThatNeverAnswersTimesOut) {
    TempDir dir;
    // A socket that accepts connections (through its backlog) but never speaks.
    std::string socketPath = dir.file("mute");
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socketPath.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(fd, 4), 0);
    ScopedEnv env("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + socketPath);
    auto start = std::chrono::steady_clock::now();
    std::string why;
    EXPECT_FALSE(Zn::showItemsOverDBus({"file:///x"}, 300, &why));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(why.empty());
    ::close(fd);
}
