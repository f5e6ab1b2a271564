// EditInfo: the stored description of an edit (name, log type, flags) read without
// opening the edit, for questions that need nothing else.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"

class EditInfo {
public:
    // Reads the edit with the cookie's identifier words from the current project.
    explicit EditInfo(const Cookie& cookie);

    bool exists() const noexcept { return exists_; }
    // 0 when the edit does not exist.
    int getLogType() const noexcept { return logType_; }
    const WString& getName() const noexcept { return name_; }
    unsigned getFlags() const noexcept { return flags_; }

private:
    bool exists_ = false;
    int logType_ = 0;
    unsigned flags_ = 0;
    WString name_;
};
