// DriveId: the identifier of a media drive, one character unique within a project
// ('A', 'B', ...). The character '0' means "no drive": material that is on no drive, or
// a question about a drive that has no answer.
#pragma once

#include "host/core/LightweightString.h"

class DriveId {
public:
    static constexpr char kNone = '0';

    constexpr DriveId() noexcept = default;
    constexpr explicit DriveId(char id) noexcept : id_(id) {}

    constexpr char getUniqueId() const noexcept { return id_; }
    constexpr bool isNone() const noexcept { return id_ == kNone || id_ == 0; }
    WString asWString() const { return WString(std::wstring(1, wchar_t(id_))); }

    friend constexpr bool operator==(DriveId a, DriveId b) noexcept { return a.id_ == b.id_; }
    friend constexpr bool operator<(DriveId a, DriveId b) noexcept { return a.id_ < b.id_; }

private:
    char id_ = kNone;
};
