// FileQueryScope: one query's view of the file system, so that a question asked about
// many files costs a stat per distinct file and one look at the mount table, not one of
// each per question. While a scope is open on a thread, the file manager's questions on
// that thread (whether a file exists, its size, whether it lies on a remote file system)
// take each path's stat from the scope once it has been made there (the last few paths
// are kept), and the mount table is checked for changes at the first question only.
// Answers are those of the moment each file was first looked at within the scope; a
// change made after it (a file deleted, a mount made) is seen by the next scope.
//
// Queries that only look (the material queries) open one around their work. Code that
// changes files must not run inside a scope and expect to see its own changes. Scopes
// nest: an inner one joins the outermost, whose life counts.
//
// Thread-confined: a scope belongs to the thread that opened it and is seen only by it,
// so it takes no lock.
#pragma once

#include <string>
#include <sys/stat.h>

class FileQueryScope {
public:
    FileQueryScope() noexcept;
    ~FileQueryScope();
    FileQueryScope(const FileQueryScope&) = delete;
    FileQueryScope& operator=(const FileQueryScope&) = delete;

    // stat(2) of path (links followed), from the open scope of this thread when it has
    // seen the path, else from the system (and kept by the scope). Answers 0 or an errno.
    static int stat(const std::string& path, struct stat& st);
    // Whether the mount table should be checked for changes now: always outside a scope,
    // once inside one.
    static bool shouldCheckMounts() noexcept;

private:
    bool outermost_;
};
