// The freedesktop FileManager1.ShowItems call over the session bus, on libdbus-1, through a
// private connection that is closed again after the call.
#include "host/os/Reveal.h"

#include <dbus/dbus.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <sys/stat.h>

namespace {

// Where the session bus listens; empty when there is none to try. An address that would
// make libdbus start a bus of its own (autolaunch) is not used.
std::string sessionBusAddress() {
    if (const char* a = std::getenv("DBUS_SESSION_BUS_ADDRESS"); a && *a) {
        std::string addr(a);
        return addr.starts_with("autolaunch:") ? std::string() : addr;
    }
    if (const char* r = std::getenv("XDG_RUNTIME_DIR"); r && *r) {
        std::string path = std::string(r) + "/bus";
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return "unix:path=" + path;
    }
    return {};
}

struct Error {
    DBusError e;
    Error() { dbus_error_init(&e); }
    ~Error() { dbus_error_free(&e); }
    std::string text(const char* what) const {
        return std::string(what) + (dbus_error_is_set(&e) ? std::string(": ") + e.message : std::string());
    }
};

struct ConnectionCloser {
    void operator()(DBusConnection* c) const {
        dbus_connection_close(c);
        dbus_connection_unref(c);
    }
};
struct MessageUnref {
    void operator()(DBusMessage* m) const { dbus_message_unref(m); }
};
using Connection = std::unique_ptr<DBusConnection, ConnectionCloser>;
using Message = std::unique_ptr<DBusMessage, MessageUnref>;

bool fail(std::string* why, const std::string& text) {
    if (why) *why = text;
    return false;
}

// Sends a call and waits for its answer; null (with the error) on failure or time-out.
Message call(DBusConnection* c, DBusMessage* m, int timeoutMs, Error& err) {
    return Message(dbus_connection_send_with_reply_and_block(c, m, timeoutMs, &err.e));
}

} // namespace

bool Zn::showItemsOverDBus(const std::vector<std::string>& uris, int timeoutMs, std::string* why) {
    std::string address = sessionBusAddress();
    if (address.empty()) return fail(why, "no session bus");
    Error err;
    Connection c(dbus_connection_open_private(address.c_str(), &err.e));
    if (!c) return fail(why, err.text("cannot connect to the session bus"));
    dbus_connection_set_exit_on_disconnect(c.get(), FALSE);

    // libdbus waits without a time-out while a connection authenticates, so the
    // authentication is driven here, one bounded read/write at a time.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!dbus_connection_get_is_authenticated(c.get())) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !dbus_connection_get_is_connected(c.get()))
            return fail(why, "the session bus did not accept the connection");
        dbus_connection_read_write(c.get(), int(left.count()));
    }

    // The bus's Hello, sent by hand so that its wait is bounded like the call's.
    Message hello(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "Hello"));
    if (!hello || !call(c.get(), hello.get(), timeoutMs, err)) return fail(why, err.text("the session bus did not answer"));

    Message show(dbus_message_new_method_call("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                                              "org.freedesktop.FileManager1", "ShowItems"));
    if (!show) return fail(why, "out of memory");
    DBusMessageIter args, list;
    dbus_message_iter_init_append(show.get(), &args);
    if (!dbus_message_iter_open_container(&args, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING, &list))
        return fail(why, "out of memory");
    for (const std::string& uri : uris) {
        // The URIs are percent-encoded ASCII, so always valid strings for the bus.
        const char* s = uri.c_str();
        dbus_message_iter_append_basic(&list, DBUS_TYPE_STRING, &s);
    }
    dbus_message_iter_close_container(&args, &list);
    const char* startupId = "";
    dbus_message_iter_append_basic(&args, DBUS_TYPE_STRING, &startupId);
    if (!call(c.get(), show.get(), timeoutMs, err)) return fail(why, err.text("no file manager answered"));
    return true;
}
