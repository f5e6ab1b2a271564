// Logging: formatting, the log file, the console and the attached sinks.
//
// Lock: g_mutex guards the file, the console flag and the sink list; it is a leaf lock
// (nothing else is taken while it is held, and sinks must not log).
#include "host/os/Log.h"

#include "host/core/Strings.h"
#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <locale.h>
#include <vector>

namespace {

struct LogState {
    PlainMutex mutex;
    FILE* file GUARDED_BY(mutex) = nullptr;
    bool fileTried GUARDED_BY(mutex) = false;
    bool console GUARDED_BY(mutex) = true;
    std::vector<iLogSink*> sinks GUARDED_BY(mutex);
};

LogState& state() {
    static LogState* s = new LogState; // never destroyed: logging works during exit
    return *s;
}

std::string logPath() {
    if (const char* p = std::getenv("PLAYFILE_LOG"); p && *p) return p;
    std::filesystem::path dir;
    if (const char* x = std::getenv("XDG_STATE_HOME"); x && *x) dir = x;
    else if (const char* h = std::getenv("HOME"); h && *h) dir = std::filesystem::path(h) / ".local/state";
    else return {};
    dir /= "playfile";
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    return (dir / "playfile.log").string();
}

// Formats in a UTF-8 locale so that "%ls" arguments with non-ASCII characters convert.
std::string format(const char* fmt, va_list args) {
    static locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
    locale_t previous = utf8 ? uselocale(utf8) : locale_t(0);
    char small[512];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    std::string out;
    if (n >= 0 && size_t(n) < sizeof small) {
        out.assign(small, size_t(n));
    } else if (n >= 0) {
        out.resize(size_t(n) + 1);
        std::vsnprintf(out.data(), out.size(), fmt, args);
        out.resize(size_t(n));
    } else {
        out = std::string("(unprintable log line: ") + fmt + ")\n";
    }
    if (previous) uselocale(previous);
    return out;
}

void emit(const std::string& text, bool console) {
    LogState& s = state();
    PlainMutex::Lock lock(s.mutex);
    if (!s.fileTried) {
        s.fileTried = true;
        std::string path = logPath();
        if (!path.empty()) s.file = std::fopen(path.c_str(), "ae");
    }
    if (s.file) {
        std::fwrite(text.data(), 1, text.size(), s.file);
        std::fflush(s.file);
    }
    if (console && s.console) {
        std::fwrite(text.data(), 1, text.size(), stderr);
    }
    for (iLogSink* sink : s.sinks) sink->write(text, console);
}

} // namespace

void LogBoth(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string text = format(fmt, args);
    va_end(args);
    emit(text, true);
}

void Log(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string text = format(fmt, args);
    va_end(args);
    emit(text, false);
}

void LogStringW(const WString& text) {
    std::string line(toUTF8(text).view());
    if (line.empty() || line.back() != '\n') line += '\n';
    emit(line, false);
}

void Logging::addSink(iLogSink* sink) {
    PlainMutex::Lock lock(state().mutex);
    state().sinks.push_back(sink);
}

void Logging::removeSink(iLogSink* sink) {
    PlainMutex::Lock lock(state().mutex);
    auto& v = state().sinks;
    v.erase(std::remove(v.begin(), v.end(), sink), v.end());
}

void Logging::setConsole(bool on) {
    PlainMutex::Lock lock(state().mutex);
    state().console = on;
}

void Logging::reopen() {
    PlainMutex::Lock lock(state().mutex);
    if (state().file) std::fclose(state().file);
    state().file = nullptr;
    state().fileTried = false;
}

std::string Logging::formatv(const char* fmt, va_list args) { return format(fmt, args); }
