// EditManager: the project that is open in this process, and the way in to its
// database (getProjdb). Opening a project by folder makes it current for every host
// class of the media database (EditPtr, SystemCache, DiskManager, ...); closing it, or
// opening another, lets go of it once the last user has finished with it. Also makes
// new edits and tells listeners about modifications of edits.
//
// Lock: one lock guards the current project and the listener list. It is held only to
// read or replace them, never during database work or while a listener runs, so it may
// be taken with any other lock held.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/project/EditModification.h"
#include "host/project/ProjectDatabase.h"

#include <functional>

class Edit;
class EditPtr;

class EditManager {
public:
    // Opens the project in folder (or on the server a postgresql:// URI names, see
    // ProjectDatabase::open) and makes it current (with create, an empty project is made
    // when there is none). On failure the current project stays as it was
    // and error, when given, says why in one line.
    static bool openProject(const WString& folder, bool create, WString* error = nullptr);
    static void closeProject();
    // The current project's database, or null when none is open.
    static Zn::Ptr<ProjectDatabase> getProjdb();

    // A new edit in the current project, stored at once: its cookie ('E', the project's
    // word, a new number), name, log type and flags (Edit::eFlags). Null without a project.
    static EditPtr createEdit(const WString& name, int logType, unsigned flags = 0);
    // Writes the edit's present state to its project record; false when it cannot.
    static bool updateProjdbRec(Edit& edit);

    // Listeners of modifications: called on the thread that committed them, after the
    // commit, once per modification whose edit asked for notification.
    using ModificationListener = std::function<void(const Cookie& edit, const EditModification& mod)>;
    static int addModificationListener(ModificationListener listener);
    static void removeModificationListener(int token);
    static void notifyModifications(const Cookie& edit, const EditModifications& mods);
};
