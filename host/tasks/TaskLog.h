// iTaskLog: the log of a background task, which a front end reads while the task runs:
// one progress entry (the fraction done, the bytes it stands for and a short text), and
// the entries written so far, lines with a severity and a message kind, and hyperlink
// entries naming a folder and files in it (the files a task wrote, say). TaskLog is the
// host's implementation.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/threads/PlainMutex.h"

#include <condition_variable>
#include <cstdint>
#include <vector>

class iTaskLog : public virtual iObject {
public:
    // Severity of a line.
    enum eSeverity : int { eInfo = 0, eDetail = 1, eNotice = 2, eWarning = 3, eError = 4 };
    // What a line is for, so that a front end can show each kind its own way. The values
    // are shared with LoggerBase::eOutputType.
    enum eMessageKind : int {
        eKindNormal = 0,
        eKindDetail = 1,
        eKindProgress = 2,
        eKindWarning = 3,
        eKindError = 4,
        eKindHeading = 5, // headings and summaries
        eKindResult = 6,  // what the task produced (hyperlinks to the files it wrote)
    };

    struct Entry {
        enum eType { eLine, eHyperlink };
        eType type = eLine;
        WString text;
        int severity = eInfo;
        int kind = eKindNormal;
        // Hyperlink entries: the folder and the names of the files in it.
        WString folder;
        std::vector<WString> files;
        // Seconds from the log's creation.
        double time = 0;
    };

    struct Progress {
        double fraction = 0;     // 0 to 1
        uint64_t totalBytes = 0; // what the whole fraction stands for, 0 when not bytes
        WString text;
    };

    virtual void setProgress(double fraction, const WString& text, uint64_t totalBytes = 0) = 0;
    virtual void addLine(const WString& text, int severity, int kind) = 0;
    virtual void addHyperlink(const WString& text, const WString& folder, const std::vector<WString>& files,
                              int kind) = 0;

    virtual Progress getProgress() const = 0;
    // The entries from index `from` on, in the order they were written.
    virtual std::vector<Entry> getEntries(size_t from = 0) const = 0;
    virtual size_t entryCount() const = 0;
    // A number that grows with every change (entry or progress), for a front end that
    // redraws on change.
    virtual uint64_t changeCount() const = 0;
    // Waits until changeCount() differs from seen or timeoutMs passed; answers whether it
    // changed.
    virtual bool waitForChange(uint64_t seen, unsigned timeoutMs) const = 0;
};

// mutex_ guards everything below it; it is held only to copy entries in or out, never
// while anything else is called, so any lock may be held by a writer or a reader.
class TaskLog final : public iTaskLog {
public:
    TaskLog();

    void setProgress(double fraction, const WString& text, uint64_t totalBytes = 0) override;
    void addLine(const WString& text, int severity, int kind) override;
    void addHyperlink(const WString& text, const WString& folder, const std::vector<WString>& files,
                      int kind) override;
    Progress getProgress() const override;
    std::vector<Entry> getEntries(size_t from = 0) const override;
    size_t entryCount() const override;
    uint64_t changeCount() const override;
    bool waitForChange(uint64_t seen, unsigned timeoutMs) const override;

private:
    void add(Entry entry);

    const int64_t createdNs_;
    mutable PlainMutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Entry> entries_ GUARDED_BY(mutex_);
    Progress progress_ GUARDED_BY(mutex_);
    uint64_t changes_ GUARDED_BY(mutex_) = 0;
};
