// Diagnostic logging. LogBoth writes a printf-formatted line to the log file and the
// console; Log writes to the log file only. The log file is PLAYFILE_LOG, else
// $XDG_STATE_HOME/playfile/playfile.log (~/.local/state/... when unset). Sinks attached
// with Logging::addSink see every line as formatted, so tests can assert exact texts.
// Wide strings are printed with "%ls" and come out as UTF-8.
#pragma once

#include "host/core/LightweightString.h"

#include <cstdarg>
#include <string>

void LogBoth(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogStringW(const WString& text);

class iLogSink {
public:
    virtual ~iLogSink() = default;
    // One formatted text as passed to the log (normally a line ending in "\n").
    virtual void write(const std::string& text, bool console) = 0;
};

namespace Logging {
void addSink(iLogSink* sink);
void removeSink(iLogSink* sink);
// Whether LogBoth also writes to standard error (default true). A program with its own
// console output turns it off.
void setConsole(bool on);
// Re-reads PLAYFILE_LOG and reopens the log file (tests point it at a temporary file).
void reopen();
// Formats as the log does: printf-style, "%ls" arguments written as UTF-8.
std::string formatv(const char* format, va_list args);
} // namespace Logging
