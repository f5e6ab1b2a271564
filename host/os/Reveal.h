// Showing files in the desktop's file browser.
//
// Three ways, tried in this order:
// 1. The string configuration key "RevealCommand" (environment PLAYFILE_RevealCommand),
//    when set, names a program that is run directly (no shell) with each file's absolute
//    path as one argument; nothing else is tried.
// 2. The freedesktop file manager's org.freedesktop.FileManager1.ShowItems call on the
//    session D-Bus, which opens the folders and selects the files. The bus is the one in
//    DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus; connecting and the call are
//    bounded by short time-outs, so a missing or stuck bus costs at most a few seconds.
// 3. When no file manager answers: "xdg-open" on each distinct folder of the files.
//
// Relative names are taken from the current folder; names are not otherwise resolved
// (a link is shown as the link). Safe to call from any thread; no lock is held.
#pragma once

#include "host/core/LightweightString.h"

#include <string>
#include <vector>

namespace Zn {

enum class RevealRoute {
    eNone,        // nothing could show the files (each failure is logged)
    eCommand,     // the configured program was run
    eFileManager, // the file manager answered the ShowItems call
    eFolder,      // the folders were handed to xdg-open
};

RevealRoute revealFilesInOS(const std::vector<WString>& files);

// The "file://" URI of an absolute path: its UTF-8 bytes, each byte other than the
// unreserved characters (letters, digits, "-._~") and '/' written as %XX.
std::string fileUri(const WString& absolutePath);

// The ShowItems call alone, with the time-out for each exchange with the bus. False with
// the reason in *why when there is no session bus, no file manager on it, or no answer.
bool showItemsOverDBus(const std::vector<std::string>& uris, int timeoutMs, std::string* why);

} // namespace Zn
