// Records stored as whole JSON documents: text and files.
#include "host/core/JSON.h"

#include "host/core/Strings.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool fail(String* error, const std::string& why) {
    if (error) *error = String(why);
    return false;
}

std::string systemError(const std::string& what, const std::string& path) {
    return what + " \"" + path + "\": " + std::strerror(errno);
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes.remove_prefix(size_t(n));
    }
    return true;
}

} // namespace

String JSON::toText(const iPersistable& record, int indent) {
    Builder b;
    record.write(b);
    return b.text(indent);
}

bool JSON::fromText(iPersistable& record, std::string_view text, String* error) {
    String why;
    Zn::Ptr<Element> root = parse(text, &why);
    if (!root) return fail(error, std::string(why.view()));
    if (!record.read(root)) return fail(error, "the JSON document does not hold usable values");
    return true;
}

bool JSON::saveToFile(const iPersistable& record, const WString& path, String* error) {
    std::string target(toUTF8(path).view());
    std::string text(toText(record).view());
    text += '\n';
    // A temporary name of this process and call, so that concurrent saves do not meet.
    static std::atomic<unsigned> saves{0};
    std::string temp = target + ".tmp" + std::to_string(::getpid()) + "-" + std::to_string(saves++);
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return fail(error, systemError("cannot create", temp));
    bool ok = writeAll(fd, text) && ::fsync(fd) == 0;
    std::string why = ok ? std::string() : systemError("cannot write", temp);
    if (::close(fd) != 0 && ok) {
        ok = false;
        why = systemError("cannot write", temp);
    }
    if (ok && ::rename(temp.c_str(), target.c_str()) != 0) {
        ok = false;
        why = systemError("cannot rename into", target);
    }
    if (!ok) ::unlink(temp.c_str());
    return ok || fail(error, why);
}

bool JSON::loadFromFile(iPersistable& record, const WString& path, String* error) {
    std::string name(toUTF8(path).view());
    int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return fail(error, systemError("cannot open", name));
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return fail(error, "\"" + name + "\" is not a regular file");
    }
    // Read one byte past the limit, so that an oversized file is refused by parse().
    std::string text;
    char buf[65536];
    while (text.size() <= kMaxTextBytes) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            std::string why = systemError("cannot read", name);
            ::close(fd);
            return fail(error, why);
        }
        if (n == 0) break;
        text.append(buf, size_t(n));
    }
    ::close(fd);
    if (!fromText(record, text, error)) {
        if (error) *error = String("\"" + name + "\": ") + *error;
        return false;
    }
    return true;
}
