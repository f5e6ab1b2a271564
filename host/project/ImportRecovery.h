// What an import leaves on the media drives while it runs, and how the next opening of
// the project tidies up after an import that was killed.
//
// An import places its file (the copy, or the link to the file in place) under a pending
// name beside the final one: "." + final name + ".import". It commits the clip, and only
// then renames the pending file to its final name. So a file under a final name is always
// one the project names. A killed import leaves at most a pending file, or the temporary
// that the copy was writing (also a name starting with '.'), and a clip number that
// nothing uses.
//
// recoverInterruptedImports, run whenever a project is opened, recognises these by the
// project's own cookie text in the name: a pending file whose final name the project
// names (the import was killed between its commit and its rename) is renamed into place;
// every other such leftover is removed, as is a file under a final name whose cookie the
// project handed out but knows nothing of (no clip, no material: left by a build that
// renamed before committing). Temporaries of other writers (a background task copying a
// known clip's file) are left alone.
//
// Locks: an import holds the project's import lock shared for its whole run; the recovery
// takes it exclusively without waiting, and does nothing when an import is running in any
// process (the next opening tidies up). The lock is an flock() on a file beside the
// database, which the kernel drops when its process dies; for a project on a server,
// an advisory lock of the server held by one of the process's sessions, which the
// server drops when the session ends.
#pragma once

#include "host/core/LightweightString.h"

#include <memory>

class ProjectDatabase;
namespace sql {
class Connection;
}

class ImportLock {
public:
    // Shared waits for a running recovery; exclusive does not wait for anything.
    ImportLock(const ProjectDatabase& db, bool exclusive);
    ~ImportLock();
    ImportLock(const ImportLock&) = delete;
    ImportLock& operator=(const ImportLock&) = delete;
    bool held() const noexcept { return held_; }

private:
    int fd_ = -1;
    bool held_ = false;
    const bool exclusive_;
    const ProjectDatabase* db_ = nullptr;
    std::unique_ptr<sql::Connection> session_;
};

// The pending name of a file that an import places at finalPath (an operating-system
// path): the same folder, "." + name + ".import".
WString pendingImportName(const WString& finalPath);

struct ImportRecoveryReport {
    int removed = 0;
    int registered = 0; // pending files put in place
    bool skipped = false; // an import was running
};

// Tidies the project's media drives as described above; each file removed or put in
// place is logged.
ImportRecoveryReport recoverInterruptedImports(ProjectDatabase& db);
