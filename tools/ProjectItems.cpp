// Opening the project of a command and finding its clips and logs.
#include "tools/ProjectItems.h"

#include "host/core/Strings.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectCatalog.h"
#include "host/project/ProjectDatabase.h"

#include <filesystem>

namespace tool {

ProjectScope::~ProjectScope() {
    if (open_) EditManager::closeProject();
}

std::string projectLocation(const std::string& given, std::error_code& ec) {
    if (ProjectDatabase::isServerLocation(fromUTF8(given.c_str()))) return given;
    return std::filesystem::absolute(given, ec).lexically_normal().string();
}

bool ProjectScope::open(const std::string& folder, bool create, std::string& error) {
    std::error_code ec;
    std::string absolute = projectLocation(folder, ec);
    WString why;
    if (ec || !EditManager::openProject(fromUTF8(absolute.c_str()), create, &why)) {
        error = ec ? ec.message() : utf8(why);
        return false;
    }
    open_ = true;
    return true;
}

bool findItem(const std::string& text, Cookie& edit, std::string& error) {
    Cookie parsed(String(text.c_str()), false);
    if (parsed.valid() && ProjectCatalog::editExists(parsed)) {
        edit = convertCookie(parsed, 'E', Cookie::kNoIndex);
        return true;
    }
    CookieVec named = ProjectCatalog::editsNamed(fromUTF8(text.c_str()));
    if (named.size() == 1) {
        edit = named[0];
        return true;
    }
    if (named.empty())
        error = "no clip or log '" + text + "' in the project";
    else
        error = "'" + text + "' names " + std::to_string(named.size()) + " clips or logs; give the cookie instead";
    return false;
}

std::string materialFileText(const MaterialFilename& name) {
    if (name.empty()) return std::string();
    if (name.getDrive().isNone()) return utf8(name.getPath());
    return std::string(1, name.getDriveChar()) + ":" + utf8(name.getPath());
}

std::string utf8(const WString& text) { return toUTF8(text).str(); }

} // namespace tool
