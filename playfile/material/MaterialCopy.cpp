// Copying logical media files between drives: per file, per record, and the progress
// callback that turns a copy's bytes into the logger's sub-task progress.
#include "playfile/material/MaterialCopy.h"

#include "host/core/Strings.h"
#include "host/os/FileManager.h"
#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/os/Resources.h"
#include "host/project/DiskManager.h"
#include "host/project/SystemCache.h"
#include "host/tasks/SystemWatchdog.h"
#include "playfile/material/MediaLocationUtils.h"

#include <string>

namespace {

constexpr unsigned kCouldNotWrite = 11995;   // "$FILE$"
constexpr unsigned kCopyFailed = 11517;
constexpr unsigned kNotEnoughSpace = 11573;  // "$BYTES1$" free, "$BYTES2$" needed
constexpr unsigned kCopyFinished = 12528;

WString replaceAll(const WString& text, const WString& from, const WString& to) {
    return substitute(text, from, to);
}

// A file name as a pattern matching just that name (listDirectory takes shell patterns).
WString patternEscaped(const WString& name) {
    std::wstring out;
    for (wchar_t c : name.view()) {
        if (c == L'*' || c == L'?' || c == L'[' || c == L']' || c == L'\\') out += L'\\';
        out += c;
    }
    return WString(out);
}

// Where one file goes, and how it gets there.
struct FilePlan {
    MaterialFilename destination; // the file's name on the destination drive
    WString from;                 // what is copied
    WString to;                   // where it is copied to
    WString linkTarget;           // a linked file's media after the copy; empty otherwise
    bool copy = true;             // false: the media is on the destination drive already
};

FilePlan planFor(const MediaFileInfoEx& file, const DriveId& destination, const Zn::Ptr<MediaDrive>& destDrive) {
    FilePlan plan;
    plan.destination = MaterialFilename(destination, file.getMaterialFilename().getPath());
    plan.from = file.getOsPath();
    plan.to = plan.destination.getOsPath();
    if (!MediaLocationUtils::isLinkedLocal(file)) return plan;
    // A linked file whose media lies in a drive's folder: the media moves to the same place
    // under the destination's root, and the link file on the destination names it.
    plan.from = file.getPhysicalFilename(false);
    plan.linkTarget = plan.from;
    Zn::Ptr<MediaDrive> sourceDrive = MediaLocationUtils::findMediaLocationFromFile(plan.from);
    if (!sourceDrive || sourceDrive->getUniqueId() == destination) {
        plan.copy = false;
        plan.to = plan.from;
        return plan;
    }
    plan.to = destDrive ? replaceAll(plan.from, sourceDrive->getLocation(0), destDrive->getLocation(0)) : WString();
    plan.linkTarget = plan.to;
    return plan;
}

void reportFailure(iFileManager::eCopyRC rc, const FilePlan& plan, const LoggerHandle& logger) {
    if (rc == iFileManager::eCopyFailed)
        logger.write(substitute(resourceStrW(kCouldNotWrite), WString(L"$FILE$"), plan.to));
    else
        logger.write(resourceStrW(kCopyFailed) + L" (" + plan.from + L" -> " + plan.to + L")", LoggerBase::eError);
}

// Copies the files beside `source` that share its base name and that the material
// directory does not manage (a description next to a movie), into the folder of `to`.
void copyCompanions(const WString& source, const WString& to) {
    iFileManager* fm = OS()->fileManager();
    const WString folder = getPath(source), destFolder = getPath(to);
    const WString pattern = patternEscaped(stripPathAndExt(source)) + L".*";
    for (const WString& name : fm->listDirectory(folder, pattern)) {
        WString companion = folder + name;
        if (SystemCache::isEligible(companion)) continue;
        iFileManager::eCopyRC rc = fm->copyFile(companion, destFolder + name, nullptr, false);
        if (rc != iFileManager::eCopyOK)
            Log("Companion file %ls not copied to %ls (result %d)\n", companion.c_str(), destFolder.c_str(), int(rc));
    }
}

void copyOneFile(const Cookie& material, const MediaFileInfoEx& file, const DriveId& destination,
                 const Zn::Ptr<MediaDrive>& destDrive, MaterialMove::eType type, const LoggerHandle& logger) {
    iFileManager* fm = OS()->fileManager();
    const WString destOsPath = MaterialFilename(destination, file.getMaterialFilename().getPath()).getOsPath();
    // A file already at its destination is neither overwritten nor registered.
    if (!destOsPath.empty() && fm->fileExists(destOsPath)) return;

    FilePlan plan = planFor(file, destination, destDrive);
    iFileManager::eCopyRC rc = iFileManager::eCopyOK;
    if (plan.copy) {
        void* client = logger.progressClient();
        rc = fm->copyFile(plan.from, plan.to,
                          [client](uint64_t done, uint64_t total) {
                              return progress(client, (unsigned long)done, (unsigned long)total) != 0;
                          },
                          true);
    }
    if (rc != iFileManager::eCopyOK) {
        reportFailure(rc, plan, logger);
        return;
    }
    MediaFileInfo moved(plan.destination, file.getSize(), plan.linkTarget);
    moved.setProxy(file.isProxy());
    if (!plan.linkTarget.empty() && !moved.createLinkFile())
        Log("Link file %ls -> %ls not written\n", destOsPath.c_str(), plan.linkTarget.c_str());
    if (type == MaterialMove::eMove) {
        Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(material);
        if (entry) {
            entry->removeFile(file);
            entry->addFile(moved);
        }
    }
    if (!file.isProxy()) copyCompanions(plan.from, plan.to);
}

} // namespace

int progress(void* client, unsigned long done, unsigned long total) {
    if (!client) return 1;
    double fraction = total == 0 ? 0.0 : double(done) / double(total);
    static_cast<iProgressClient*>(client)->reportProgress(fraction);
    return 1;
}

void copyMaterialFile(const LogicalMediaFile& record, const DriveId& destination, MaterialMove::eType type,
                      LoggerHandle logger) {
    Zn::Ptr<MediaDrive> destDrive = DiskManager::getDriveWithUniqueId(destination);
    std::vector<uint64_t> sizes;
    for (const auto& f : record.files) sizes.push_back(f.getFileSize());
    logger.startSubTasks(sizes);
    for (const auto& f : record.files) {
        copyOneFile(record.cookie, f, destination, destDrive, type, logger);
        // Also after a file left alone, so that progress keeps following the bytes.
        logger.nextSubTask();
    }
    logger.endSubTasks();
}

void copyFiles(const std::vector<LogicalMediaFile>& records, const DriveId& destination, MaterialMove::eType type,
               LoggerHandle logger) {
    logger->Out("%s", "");
    logger->Out("%d file(s) to process", int(records.size()));
    logger->Out("%s", "");
    // A long copy must not be taken for a hang; the guard ends on every way out.
    SystemWatchdog::LifeSupport lifeSupport;

    double total = 0;
    std::vector<uint64_t> sizes;
    for (const auto& r : records) {
        sizes.push_back(r.totalSize());
        total += double(r.totalSize());
    }
    const double freeBytes = double(DiskManager::getSpaceForRecording(destination)) * 1048576.0;
    if (!(freeBytes > total)) {
        WString text = substitute(resourceStrW(kNotEnoughSpace), WString(L"$BYTES1$"),
                                  bytesAsString(uint64_t(freeBytes), true));
        logger.write(substitute(text, WString(L"$BYTES2$"), bytesAsString(uint64_t(total), true)));
        return;
    }

    logger.startSubTasks(sizes);
    for (const auto& r : records) {
        if (g_esc_pressed) break;
        copyMaterialFile(r, destination, type, logger);
        logger.nextSubTask();
    }
    logger.endSubTasks();
    DiskManager::issueMediaOnlineChangeNotification();
    logger.write(resourceStrW(kCopyFinished), LoggerBase::eHeading);
}
