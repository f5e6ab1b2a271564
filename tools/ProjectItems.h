// What the project commands (drives, clips, status, space) share: opening the project
// named by --project for the length of a command, and finding a clip or log by its cookie
// text or its name.
#pragma once

#include "host/core/Cookie.h"
#include "host/project/MaterialFilename.h"

#include <string>
#include <system_error>

namespace tool {

// The project in folder (or on the server a postgresql:// URI names), open (and current)
// while this lives. With create, a project is made when there is none.
class ProjectScope {
public:
    ProjectScope() = default;
    ~ProjectScope();
    ProjectScope(const ProjectScope&) = delete;
    ProjectScope& operator=(const ProjectScope&) = delete;
    // False with a one-line reason in error when the project cannot be opened.
    bool open(const std::string& folder, bool create, std::string& error);

private:
    bool open_ = false;
};

// Where --project points: a folder made absolute, or a server URI as given.
std::string projectLocation(const std::string& given, std::error_code& ec);

// The edit cookie of a clip or log given as its cookie text ("E0001e240_000003e8_ff") or
// its name. False with a one-line reason in error when there is none or the name is
// shared by several (then the cookie must be given).
bool findItem(const std::string& text, Cookie& edit, std::string& error);

// A material file name as text: "A:video/V..._00.mov" on a drive, the path itself on no
// drive; empty for an empty name.
std::string materialFileText(const MaterialFilename& name);

std::string utf8(const WString& text);

} // namespace tool
