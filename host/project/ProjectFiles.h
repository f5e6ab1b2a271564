// File-system access of the media database. Questions about files (exists, size, free
// space, copying) go to the host's file manager (OS()->fileManager()); the few things a
// file manager does not offer (writing a small text file in place, symbolic links,
// resolving links) are done here directly. A process that runs without any file
// manager installed still gets answers from the standard library.
#pragma once

#include "host/core/LightweightString.h"
#include "host/os/FileManager.h"

#include <cstdint>
#include <filesystem>
#include <vector>

namespace projectfs {

std::filesystem::path toPath(const WString& path);
WString fromPath(const std::filesystem::path& path);

bool exists(const WString& path);
// Size in bytes; -1 when the file is missing.
int64_t size(const WString& path);
bool createDirectory(const WString& path);
bool remove(const WString& path);
// Renames from to to (replacing it) and makes the rename durable.
bool rename(const WString& from, const WString& to);
// Free bytes on the volume that holds path; -1 when unknown.
int64_t freeSpace(const WString& path);
// Names (not paths) in dir matching a shell pattern, sorted.
std::vector<WString> listDirectory(const WString& dir, const WString& pattern);
iFileManager::eCopyRC copy(const WString& src, const WString& dst, const iFileManager::ProgressFn& progress,
                           bool overwrite);

// Writes text to path through a temporary file that is synced and renamed into place,
// so that a reader sees either the old or the new content. False when it cannot.
bool writeTextFile(const WString& path, const String& text);
// The whole file, or a null string when it cannot be read.
String readTextFile(const WString& path);

// Makes link a symbolic link to target. An existing symbolic link at link is replaced
// only when replace is set; an existing regular file or folder is never replaced.
bool makeLink(const WString& link, const WString& target, bool replace);
bool isLink(const WString& path);
// The path with every symbolic link resolved; the path itself when it cannot be.
WString resolve(const WString& path);

} // namespace projectfs
