// The external download: its settings as JSON, the names of the copies, the space check
// against the location's volume, and the closing list of the files written.
#include "playfile/tasks/ExternalDownloadTask.h"

#include "host/core/SafeFileNames.h"
#include "host/core/Strings.h"
#include "host/os/OS.h"
#include "host/os/PartialCopy.h"
#include "host/os/Resources.h"
#include "host/project/Edit.h"
#include "host/project/SystemCache.h"
#include "host/tasks/TaskLog.h"
#include "playfile/material/MaterialManager.h"
#include "playfile/tasks/TaskMessages.h"

namespace {

size_t utf8Bytes(const WString& text) { return toUTF8(text).size(); }

// How far numbering goes before a name is used twice after all.
constexpr int kMaxNumber = 10000;

} // namespace

WString notEnoughSpaceText(uint64_t freeBytes, uint64_t neededBytes) {
    WString text = substitute(resourceStrW(kMsgNotEnoughSpace), L"$BYTES1$", bytesAsString(freeBytes, true));
    return substitute(text, L"$BYTES2$", bytesAsString(neededBytes, true));
}

void ExternalDownloadTask::Settings::write(JSON::Builder& builder) const {
    builder.startChild();
    builder.add("Location", location, true);
    builder.add("ProxyExt", proxyExt, true);
    builder.add("Naming", naming == eNameByClip ? "clip" : "file", true);
    builder.endChild();
}

bool ExternalDownloadTask::Settings::read(const Zn::Ptr<JSON::Element>& element) {
    if (!element) return false;
    location = element->getWString("Location");
    proxyExt = element->getWString("ProxyExt");
    naming = element->getString("Naming").view() == "clip" ? eNameByClip : eNameByFile;
    return !location.empty() && !proxyExt.empty();
}

ExternalDownloadTask::ExternalDownloadTask(const Args& args, const Settings& settings)
    : DownloadTask(args), settings_(settings) {}

WString ExternalDownloadTask::folder() const { return fixForeignOSFileName(settings_.location); }

WString ExternalDownloadTask::destinationName(const CopyJob& job, EditPtr& edit, int number) const {
    using Zn::FilespecUtils;
    const bool proxy = job.file.isProxy();
    // The extension is a setting or a source's; either is made one safe name too.
    const WString ext = proxy ? settings_.proxyExt : getExtension(job.source);
    const WString safeExt = ext.empty() ? WString() : FilespecUtils::makeSafeFilename(ext, L'_');
    const WString suffix = (proxy ? WString(L".proxy") : WString()) + (safeExt.empty() ? WString() : L"." + safeExt);
    const WString numbered = number > 1 ? L"_" + Zn::WStringFromInteger(number) : WString();
    const size_t reserve = Zn::PartialCopy::kSuffixBytes + utf8Bytes(suffix) + utf8Bytes(numbered);
    const WString base = settings_.naming == Settings::eNameByClip && edit ? edit->getName() : stripPathAndExt(job.source);
    const WString name = FilespecUtils::makeSafeFilename(base, L'_', reserve) + numbered + suffix;
    // A suffix too long to leave room for any base is cut as well.
    return FilespecUtils::fitFilename(name, FilespecUtils::kMaxNameBytes - Zn::PartialCopy::kSuffixBytes);
}

void ExternalDownloadTask::run() {
    std::set<Cookie> materials;
    for (const Cookie& clip : args().clips)
        for (const ClipMediaFile& f : SystemCache::getClipMediaFiles(clip))
            if (MaterialManager::isMediaRemote(f.cookie, args().types)) materials.insert(f.cookie);
    const WString dir = folder();
    if (dir.empty() || !OS()->fileManager()->createDirectory(dir)) {
        logCopyFailure(iFileManager::eCopyFailed, dir);
        return;
    }
    if (download(materials) != eResult::eDone) return;
    std::vector<WString> names;
    for (const WString& f : writtenFiles()) names.push_back(stripPath(f));
    if (auto log = getLog()) log->addHyperlink(resourceStrW(kMsgDownloadedFiles), dir, names, iTaskLog::eKindResult);
}

iFileManager::eCopyRC ExternalDownloadTask::save(const CopyJob& job) {
    EditPtr edit;
    edit.i_open(job.cookie, eEditOpenReadOnly);
    // Two clips of one name (or two files of one name in different folders) must not
    // overwrite each other's copy: later ones get a number.
    WString name = destinationName(job, edit);
    for (int n = 2; used_.count(name.str()) && n < kMaxNumber; ++n) name = destinationName(job, edit, n);
    used_.insert(name.str());
    const iFileManager::eCopyRC rc = DownloadTask::save(job, joinPaths(folder(), name));
    edit.i_close();
    return rc;
}

bool ExternalDownloadTask::sufficientDiskSpace(const std::vector<CopyJob>&, Zn::Ptr<iTaskLog> log) const {
    const int64_t freeBytes = OS()->fileManager()->freeSpace(folder());
    if (freeBytes >= 0 && totalBytes() < uint64_t(freeBytes)) return true;
    if (log)
        log->addLine(notEnoughSpaceText(freeBytes < 0 ? 0 : uint64_t(freeBytes), totalBytes()), iTaskLog::eError,
                     iTaskLog::eKindError);
    return false;
}
