// Loading decoder back-ends as plug-ins. Every back-end is a shared library named
// libplayfile-backend-NAME.so that exports playfile_backend_entry(); the host loads all of
// them from its plug-in folder and has them register their readers, writers and decoders
// with the host's registries, in the order each entry asks for (Y4M, WAV, FFmpeg: the
// last accepts anything, so it must come last). Formats are thus added without rebuilding
// the library.
//
// The plug-in folder is $PLAYFILE_BACKEND_PATH (several folders may be given, separated
// by ':'), else the folder playfile/backends beside the host library itself (the install
// layout lib/playfile/backends, and build/lib/playfile/backends in the build tree).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

extern "C" {

// What a back-end library exports, through
//   extern "C" const PlayfileBackendEntry* playfile_backend_entry();
struct PlayfileBackendEntry {
    uint32_t abiVersion;       // kPlayfileBackendAbi of the headers it was built with
    const char* name;          // "Y4M", "WAV", "FFmpeg"
    int order;                 // registration order among back-ends: lower first
    void (*registerBackend)(); // registers with the host's registries; a second call does nothing
};

typedef const PlayfileBackendEntry* (*PlayfileBackendEntryFn)();
}

inline constexpr uint32_t kPlayfileBackendAbi = 1;
inline constexpr const char* kPlayfileBackendSymbol = "playfile_backend_entry";

namespace Zn {

// Lock: a mutex of its own guards the list of loaded back-ends and makes loadAll run
// once at a time. Back-ends register while it is held; they take only the registries'
// leaf locks.
class BackendPlugins {
public:
    // Loads every back-end in the plug-in folder that is not loaded yet and registers
    // them in their order. Answers how many were registered by this call. Failures (a
    // library that does not load, lacks the entry, or was built for another interface)
    // are logged and skipped.
    static unsigned loadAll();
    // Loads the back-ends of the given folders instead of the default ones.
    static unsigned loadFrom(const std::vector<std::string>& folders);
    // The folders loadAll looks in.
    static std::vector<std::string> pluginFolders();
    // Names of the back-ends registered so far, in registration order.
    static std::vector<std::string> loadedNames();
};

} // namespace Zn
