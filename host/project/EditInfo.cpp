// Reading an edit's stored description.
#include "host/project/EditInfo.h"

#include "host/project/Edit.h"
#include "host/project/EditManager.h"

EditInfo::EditInfo(const Cookie& cookie) {
    auto db = EditManager::getProjdb();
    if (db) exists_ = Edit::describe(*db, cookie, name_, logType_, flags_);
}
