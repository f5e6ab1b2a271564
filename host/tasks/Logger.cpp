// Logger lines, formatted output and the weighted sub-task progress.
#include "host/tasks/Logger.h"

#include "host/core/Strings.h"
#include "host/os/Log.h"

#include <algorithm>
#include <cstdarg>
#include <string>

namespace {

// Writes nowhere; what a default LoggerHandle holds.
class NullLogger final : public LoggerBase {
protected:
    void writeLine(const WString&, int) override {}
    void showProgress(double, uint64_t) override {}
};

} // namespace

void LoggerBase::write(const WString& text, int type) {
    std::wstring_view rest = text.view();
    for (;;) {
        size_t nl = rest.find(L'\n');
        if (nl == std::wstring_view::npos) {
            if (!rest.empty() || text.empty()) writeLine(WString(rest), type);
            return;
        }
        writeLine(WString(rest.substr(0, nl)), type);
        rest.remove_prefix(nl + 1);
        if (rest.empty()) return; // the final "\n" ended the last line
    }
}

void LoggerBase::Out(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = Logging::formatv(format, args);
    va_end(args);
    write(fromUTF8(text.c_str(), int(text.size())), eNormal);
}

double LoggerBase::Level::pieceStart() const {
    if (sizes.empty()) return start;
    size_t n = std::min(current, sizes.size());
    if (total == 0) return start + width * double(n) / double(sizes.size());
    uint64_t before = 0;
    for (size_t i = 0; i < n; ++i) before += sizes[i];
    return start + width * double(before) / double(total);
}

double LoggerBase::Level::pieceWidth() const {
    if (current >= sizes.size()) return 0;
    if (total == 0) return width / double(sizes.size());
    return width * double(sizes[current]) / double(total);
}

double LoggerBase::fractionAt(double within) const {
    within = std::clamp(within, 0.0, 1.0);
    if (levels_.empty()) return within;
    const Level& l = levels_.back();
    return l.pieceStart() + l.pieceWidth() * within;
}

void LoggerBase::startSubTasks(const std::vector<uint64_t>& sizes) {
    double now;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Level l;
        l.sizes = sizes;
        for (uint64_t s : sizes) l.total += s;
        if (levels_.empty()) {
            reached_ = 0;
            wholeBytes_ = l.total;
        } else {
            l.start = levels_.back().pieceStart();
            l.width = levels_.back().pieceWidth();
        }
        levels_.push_back(std::move(l));
        now = fractionAt(0);
    }
    publish(now);
}

void LoggerBase::nextSubTask() {
    double now;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (levels_.empty()) return;
        Level& l = levels_.back();
        if (l.current < l.sizes.size()) ++l.current;
        now = l.pieceStart();
    }
    publish(now);
}

void LoggerBase::endSubTasks() {
    double now;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (levels_.empty()) return;
        now = levels_.back().pieceStart();
        levels_.pop_back();
    }
    publish(now);
}

bool LoggerBase::reportProgress(double fraction) {
    double now;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        now = fractionAt(fraction);
    }
    publish(now);
    return true;
}

void LoggerBase::publish(double fraction) {
    uint64_t bytes;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reached_ = std::max(reached_, fraction);
        fraction = reached_;
        bytes = wholeBytes_;
    }
    showProgress(fraction, bytes);
}

void TaskLogger::writeLine(const WString& line, int type) {
    int severity = type == eError ? iTaskLog::eError : type == eWarning ? iTaskLog::eWarning : iTaskLog::eInfo;
    log_->addLine(line, severity, type);
}

void TaskLogger::showProgress(double fraction, uint64_t totalBytes) { log_->setProgress(fraction, WString(), totalBytes); }

LoggerHandle::LoggerHandle() : logger_(Zn::makePtr<NullLogger>()) {}

LoggerHandle::LoggerHandle(Zn::Ptr<LoggerBase> logger)
    : logger_(logger ? std::move(logger) : Zn::Ptr<LoggerBase>(Zn::makePtr<NullLogger>())) {}

LoggerHandle::LoggerHandle(Zn::Ptr<iTaskLog> log) : logger_(Zn::makePtr<TaskLogger>(std::move(log))) {}
