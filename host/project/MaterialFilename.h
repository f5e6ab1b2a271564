// MaterialFilename: the name under which the project keeps a material file: a media
// drive and a path relative to the drive's root ("video/V0001e240_000003e8_00.mov").
// On the pseudo drive '0' the path is an absolute operating-system path (a file that
// lies on no media drive). getOsPath turns the name into the file's place on disk
// through the project's drive table.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/project/DriveId.h"

class MaterialFilename {
public:
    MaterialFilename() = default;
    MaterialFilename(const DriveId& drive, const WString& path) : drive_(drive), path_(path) {}
    // As above, with the drive's root already known (names read from the project carry
    // it, so that getOsPath needs no second look-up).
    MaterialFilename(const DriveId& drive, const WString& path, const WString& root)
        : drive_(drive), path_(path), root_(root) {}

    // The name of an operating-system path: on the media drive whose root holds it, or on
    // drive '0' when no drive does.
    static MaterialFilename fromOsPath(const WString& osPath);

    const DriveId& getDrive() const noexcept { return drive_; }
    char getDriveChar() const noexcept { return drive_.getUniqueId(); }
    // The path on the drive (absolute on drive '0').
    const WString& getPath() const noexcept { return path_; }
    bool empty() const noexcept { return path_.empty(); }
    // Where the file is on disk; empty when the drive is not one of the project's.
    WString getOsPath() const;

    friend bool operator==(const MaterialFilename& a, const MaterialFilename& b) {
        return a.drive_ == b.drive_ && a.path_ == b.path_;
    }

private:
    DriveId drive_;
    WString path_;
    WString root_; // the drive's root when known, for getOsPath
};

// The name a new material file of the cookie gets on a drive: the drive's folder for the
// cookie's type and the cookie's text form, without an extension (the writer adds it).
MaterialFilename getMaterialFilenameForCookie(const Cookie& cookie, const DriveId& drive);
