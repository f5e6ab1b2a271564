// The current project, new edits and modification listeners.
#include "host/project/EditManager.h"

#include "host/project/Edit.h"
#include "host/project/ImportRecovery.h"
#include "host/threads/PlainMutex.h"

#include <map>

namespace {

PlainMutex g_mutex; // guards g_project, g_listeners and g_nextToken
Zn::Ptr<ProjectDatabase> g_project GUARDED_BY(g_mutex);
std::map<int, EditManager::ModificationListener> g_listeners GUARDED_BY(g_mutex);
int g_nextToken GUARDED_BY(g_mutex) = 1;

} // namespace

bool EditManager::openProject(const WString& folder, bool create, WString* error) {
    WString why;
    auto db = ProjectDatabase::open(folder, create, why);
    if (!db) {
        if (error) *error = why;
        return false;
    }
    // What a killed import left on the media drives goes before anyone reads them.
    recoverInterruptedImports(*db);
    Zn::Ptr<ProjectDatabase> old;
    {
        PlainMutex::Lock lock(g_mutex);
        old = std::move(g_project);
        g_project = std::move(db);
    }
    // The old project closes here, outside the lock, once its last user lets go.
    return true;
}

void EditManager::closeProject() {
    Zn::Ptr<ProjectDatabase> old;
    PlainMutex::Lock lock(g_mutex);
    old = std::move(g_project);
}

Zn::Ptr<ProjectDatabase> EditManager::getProjdb() {
    PlainMutex::Lock lock(g_mutex);
    return g_project;
}

EditPtr EditManager::createEdit(const WString& name, int logType, unsigned flags) {
    auto db = getProjdb();
    if (!db) return EditPtr();
    ProjectDatabase::Write w(*db);
    Cookie cookie = ProjectDatabase::newCookie(w.db(), 'E');
    if (!cookie.valid()) return EditPtr();
    Zn::Ptr<Edit> edit(new Edit(db, cookie, name, logType, flags));
    if (!edit->store(w.db())) w.fail();
    if (!w.commit()) return EditPtr();
    return EditPtr(edit);
}

bool EditManager::updateProjdbRec(Edit& edit) { return edit.storeNow(); }

int EditManager::addModificationListener(ModificationListener listener) {
    PlainMutex::Lock lock(g_mutex);
    g_listeners[g_nextToken] = std::move(listener);
    return g_nextToken++;
}

void EditManager::removeModificationListener(int token) {
    PlainMutex::Lock lock(g_mutex);
    g_listeners.erase(token);
}

void EditManager::notifyModifications(const Cookie& edit, const EditModifications& mods) {
    std::vector<ModificationListener> listeners;
    {
        PlainMutex::Lock lock(g_mutex);
        for (auto& [token, fn] : g_listeners) listeners.push_back(fn);
    }
    for (const auto& m : mods)
        for (auto& fn : listeners) fn(edit, m);
}
