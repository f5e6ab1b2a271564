// What `playfile localise` and `playfile download` share: reading the items of the command
// line, and following a queued download task to its end with the exit status and the one
// line that say how it ended.
#pragma once

#include "host/core/Cookie.h"
#include "playfile/tasks/DownloadTask.h"

#include <string>
#include <vector>

namespace tool {

// The edit cookies of the items (cookie texts or names); false with error set for one
// that names nothing or is ambiguous.
bool itemCookies(const std::vector<std::string>& items, CookieVec& out, std::string& error);

// Follows the task with a progress bar and its log's lines; Ctrl-C cancels it. Answers
// the exit status: 0 when every file was copied; otherwise 1 with one line on standard
// error, naming the command.
int followDownload(const Zn::Ptr<DownloadTask>& task, const std::string& command, const std::string& label);

} // namespace tool
