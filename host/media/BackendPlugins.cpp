#include "host/media/BackendPlugins.h"

#include "host/os/Log.h"
#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <dlfcn.h>

namespace Zn {

namespace {

struct Loaded {
    PlainMutex mutex;
    std::vector<std::string> names GUARDED_BY(mutex); // registered back-ends, in order
};

// Never destroyed: plug-ins stay loaded until the process ends.
Loaded& loaded() {
    static Loaded* l = new Loaded;
    return *l;
}

// The folder holding the host library (found through one of its own functions).
std::string hostLibraryFolder() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(&BackendPlugins::pluginFolders), &info) || !info.dli_fname) return {};
    std::string path = info.dli_fname;
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

bool isBackendLibrary(const std::string& name) {
    static const std::string prefix = "libplayfile-backend-", suffix = ".so";
    return name.size() > prefix.size() + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> backendLibraries(const std::string& folder) {
    std::vector<std::string> found;
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return found;
    while (dirent* e = ::readdir(dir)) {
        if (isBackendLibrary(e->d_name)) found.push_back(folder + "/" + e->d_name);
    }
    ::closedir(dir);
    std::sort(found.begin(), found.end());
    return found;
}

} // namespace

std::vector<std::string> BackendPlugins::pluginFolders() {
    std::vector<std::string> folders;
    if (const char* env = std::getenv("PLAYFILE_BACKEND_PATH"); env && *env) {
        std::string list = env;
        size_t at = 0;
        while (at <= list.size()) {
            size_t colon = list.find(':', at);
            if (colon == std::string::npos) colon = list.size();
            if (colon > at) folders.push_back(list.substr(at, colon - at));
            at = colon + 1;
        }
        return folders;
    }
    std::string host = hostLibraryFolder();
    if (!host.empty()) folders.push_back(host + "/playfile/backends");
    return folders;
}

unsigned BackendPlugins::loadAll() { return loadFrom(pluginFolders()); }

unsigned BackendPlugins::loadFrom(const std::vector<std::string>& folders) {
    Loaded& state = loaded();
    PlainMutex::Lock lock(state.mutex);
    std::vector<const PlayfileBackendEntry*> entries;
    for (const std::string& folder : folders) {
        for (const std::string& path : backendLibraries(folder)) {
            // RTLD_LOCAL: back-ends do not see each other's symbols. A library already
            // loaded (linked into the program, or loaded before) comes back as it is.
            void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
            if (!handle) {
                const char* why = ::dlerror();
                LogBoth("Cannot load back-end \"%s\": %s\n", path.c_str(), why ? why : "unknown error");
                continue;
            }
            auto entryFn = reinterpret_cast<PlayfileBackendEntryFn>(::dlsym(handle, kPlayfileBackendSymbol));
            const PlayfileBackendEntry* entry = entryFn ? entryFn() : nullptr;
            if (!entry || entry->abiVersion != kPlayfileBackendAbi || !entry->registerBackend || !entry->name) {
                LogBoth("Cannot load back-end \"%s\": no playfile back-end entry of this version\n", path.c_str());
                continue;
            }
            const bool seen = std::find(state.names.begin(), state.names.end(), entry->name) != state.names.end() ||
                              std::find(entries.begin(), entries.end(), entry) != entries.end();
            if (!seen) entries.push_back(entry);
        }
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const PlayfileBackendEntry* a, const PlayfileBackendEntry* b) { return a->order < b->order; });
    for (const PlayfileBackendEntry* entry : entries) {
        entry->registerBackend();
        state.names.push_back(entry->name);
        Log("Registered back-end %s\n", entry->name);
    }
    return unsigned(entries.size());
}

std::vector<std::string> BackendPlugins::loadedNames() {
    Loaded& state = loaded();
    PlainMutex::Lock lock(state.mutex);
    return state.names;
}

} // namespace Zn
