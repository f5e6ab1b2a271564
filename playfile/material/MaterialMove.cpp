// The two forms of relocation: the report of what was found, then the copy.
#include "playfile/material/MaterialMove.h"

#include "host/os/Resources.h"
#include "host/project/SystemCache.h"
#include "playfile/material/LogicalMediaFile.h"
#include "playfile/material/MaterialCopy.h"
#include "playfile/material/MediaLocationUtils.h"

#include <vector>

namespace {

constexpr unsigned kNothingToRelocate = 10915;

} // namespace

void MaterialMove::relocate(const DriveId& destination, const CookieVec& items, eType type, LoggerHandle logger) {
    logger.write(WString(L"Building file list"), LoggerBase::eHeading);
    if (items.size() == 0) {
        logger.write(resourceStrW(kNothingToRelocate));
        return;
    }
    CookieVec shots = MediaLocationUtils::buildShotList(items);
    logger->Out("Source contains %d item(s), referencing %d material file(s)", int(items.size()), int(shots.size()));

    CookieVec toRelocate;
    int unavailable = 0, alreadyThere = 0;
    for (const Cookie& shot : shots) {
        DriveId on = SystemCache::getDriveForCookie(shot, shot.type() == 'V' ? 1 : 2);
        if (on.isNone()) ++unavailable;
        else if (on == destination) ++alreadyThere;
        else toRelocate.add(shot);
    }
    if (unavailable != 0) logger->Out("Skipping %d unavailable material file(s)", unavailable);
    if (alreadyThere != 0)
        logger->Out("Ignoring %d material file(s) which are already on the destination drive", alreadyThere);
    if (toRelocate.size() == 0) {
        logger.write(resourceStrW(kNothingToRelocate));
        return;
    }
    std::vector<LogicalMediaFile> files;
    getMaterialFiles(toRelocate, files, destination);
    copyFiles(files, destination, type, logger);
}

void MaterialMove::relocate(const DriveId& source, const DriveId& destination, eType type, LoggerHandle logger) {
    logger.write(WString(L"Building file list"), LoggerBase::eHeading);
    std::vector<LogicalMediaFile> files;
    getMaterialFilesOnDrive(source, files);
    if (files.empty()) {
        logger.write(resourceStrW(kNothingToRelocate));
        return;
    }
    copyFiles(files, destination, type, logger);
}
