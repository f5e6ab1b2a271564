// Configuration store. Lock: one mutex guards the in-process values and the file's
// values; it is a leaf lock.
#include "host/os/Config.h"

#include "host/threads/PlainMutex.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>

namespace {

struct Store {
    PlainMutex mutex;
    std::map<std::string, std::string> set GUARDED_BY(mutex);
    std::map<std::string, std::string> file GUARDED_BY(mutex);
    bool fileLoaded GUARDED_BY(mutex) = false;
};

Store& store() {
    static Store* s = new Store; // never destroyed: read from static initialisers and at exit
    return *s;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return {};
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

std::string configPath() {
    if (const char* p = std::getenv("PLAYFILE_CONFIG"); p && *p) return p;
    std::filesystem::path dir;
    if (const char* x = std::getenv("XDG_CONFIG_HOME"); x && *x) dir = x;
    else if (const char* h = std::getenv("HOME"); h && *h) dir = std::filesystem::path(h) / ".config";
    else return {};
    return (dir / "playfile" / "playfile.conf").string();
}

void loadFile(Store& s) REQUIRES(s.mutex) {
    s.fileLoaded = true;
    s.file.clear();
    std::string path = configPath();
    if (path.empty()) return;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        size_t c = line.find_first_of("#;");
        if (c != std::string::npos) line.resize(c);
        line = trim(line);
        if (line.empty() || line[0] == '[') continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = trim(line.substr(0, eq));
        if (!key.empty()) s.file[key] = trim(line.substr(eq + 1));
    }
}

std::optional<std::string> lookup(const char* name) {
    Store& s = store();
    PlainMutex::Lock lock(s.mutex);
    if (auto it = s.set.find(name); it != s.set.end()) return it->second;
    std::string env = std::string("PLAYFILE_") + name;
    if (const char* v = std::getenv(env.c_str())) return std::string(v);
    if (!s.fileLoaded) loadFile(s);
    if (auto it = s.file.find(name); it != s.file.end()) return it->second;
    return std::nullopt;
}

} // namespace

int config_int(const char* name, int defaultValue) {
    auto v = lookup(name);
    if (!v) return defaultValue;
    std::string text = trim(*v);
    errno = 0;
    char* end = nullptr;
    long n = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno == ERANGE || n < INT32_MIN || n > INT32_MAX)
        return defaultValue;
    return int(n);
}

String config_string(const char* name, const String& defaultValue) {
    auto v = lookup(name);
    return v ? String(*v) : defaultValue;
}

void setConfigValue(const char* name, const String& value) {
    PlainMutex::Lock lock(store().mutex);
    store().set[name] = std::string(value.view());
}

void setConfigValue(const char* name, int value) { setConfigValue(name, String(std::to_string(value))); }

void clearConfigValue(const char* name) {
    PlainMutex::Lock lock(store().mutex);
    store().set.erase(name);
}

void reloadConfig() {
    PlainMutex::Lock lock(store().mutex);
    store().fileLoaded = false;
}
