// LoggerBase and LoggerHandle: where a long operation (a relocation, a copy of many
// files) writes its report lines and its progress. Progress is kept as a stack of
// sub-task levels: an operation splits its work into sub-tasks weighted by their sizes
// (bytes), a sub-task may split again, and the fraction a copy reports for the piece in
// hand becomes the fraction of the whole. TaskLogger writes into a task's iTaskLog;
// LoggerHandle is the value that operations take and copy, sharing one logger.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/tasks/TaskLog.h"

#include <cstdint>
#include <mutex>
#include <vector>

// Receives the fraction done of the piece of work in hand (a file being copied).
class iProgressClient {
public:
    // Answers whether the work may go on; callers that never cancel ignore it.
    virtual bool reportProgress(double fraction) = 0;

protected:
    ~iProgressClient() = default;
};

// mutex_ guards levels_, reached_ and wholeBytes_; it is held only to change or read the levels and is released
// before the derived class's writeLine or showProgress is called, so a sink may take any
// lock. No other lock is taken under it.
class LoggerBase : public virtual iObject, public iProgressClient {
public:
    // What a line is for; the same values as iTaskLog::eMessageKind.
    enum eOutputType : int {
        eNormal = 0,
        eDetail = 1,
        eProgressText = 2,
        eWarning = 3,
        eError = 4,
        eHeading = 5,
        eResult = 6,
    };

    // Writes text, one entry per line of it (a final "\n" ends the last line).
    void write(const WString& text, int type = eNormal);
    // Formats like printf ("%ls" for wide strings) and writes the result at eNormal.
    void Out(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Splits the sub-task in hand (the whole, at the outermost level) into one sub-task
    // per size; the first one is in hand. Sizes are bytes; all zero counts them equally.
    void startSubTasks(const std::vector<uint64_t>& sizes);
    // Marks the sub-task in hand done and takes the next one of the same level.
    void nextSubTask();
    // Leaves the innermost level: the sub-task in hand of the level above is done as far
    // as that level's sub-tasks reached.
    void endSubTasks();
    // Sets the fraction done of the sub-task in hand (innermost level).
    bool reportProgress(double fraction) override;
    // The client that copies report through (progress callbacks take it as a void*).
    iProgressClient* progressClient() noexcept { return this; }

protected:
    virtual void writeLine(const WString& line, int type) = 0;
    // The whole's fraction and the bytes the whole stands for (0 when not known).
    virtual void showProgress(double fraction, uint64_t totalBytes) = 0;

private:
    struct Level {
        std::vector<uint64_t> sizes;
        uint64_t total = 0;
        size_t current = 0;
        double start = 0; // the fraction of the whole where this level's work begins
        double width = 1; // the part of the whole this level's work stands for
        double pieceStart() const;
        double pieceWidth() const;
    };
    // The whole's fraction for a fraction of the sub-task in hand. Needs mutex_.
    double fractionAt(double within) const;
    void publish(double fraction);

    mutable std::mutex mutex_;
    std::vector<Level> levels_;
    double reached_ = 0;       // the furthest fraction published since the outermost start
    uint64_t wholeBytes_ = 0;  // the outermost level's total
};

// Writes lines into a task log (severity from the output type: eError and eWarning keep
// theirs, everything else is information) and progress into its progress entry.
class TaskLogger final : public LoggerBase {
public:
    explicit TaskLogger(Zn::Ptr<iTaskLog> log) : log_(std::move(log)) {}
    const Zn::Ptr<iTaskLog>& log() const noexcept { return log_; }

protected:
    void writeLine(const WString& line, int type) override;
    void showProgress(double fraction, uint64_t totalBytes) override;

private:
    Zn::Ptr<iTaskLog> log_;
};

// A logger passed by value. Copies share one logger, so sub-tasks started through one
// copy are advanced through another. A default handle writes nowhere.
class LoggerHandle {
public:
    LoggerHandle();
    explicit LoggerHandle(Zn::Ptr<LoggerBase> logger);
    // A handle writing into the log.
    explicit LoggerHandle(Zn::Ptr<iTaskLog> log);

    LoggerBase* operator->() const noexcept { return logger_.get(); }
    LoggerBase& operator*() const noexcept { return *logger_; }

    void write(const WString& text, int type = LoggerBase::eNormal) const { logger_->write(text, type); }
    void startSubTasks(const std::vector<uint64_t>& sizes) const { logger_->startSubTasks(sizes); }
    void nextSubTask() const { logger_->nextSubTask(); }
    void endSubTasks() const { logger_->endSubTasks(); }
    // The context to give a copy's progress callback (an iProgressClient*).
    void* progressClient() const noexcept { return static_cast<iProgressClient*>(logger_.get()); }

private:
    Zn::Ptr<LoggerBase> logger_;
};
