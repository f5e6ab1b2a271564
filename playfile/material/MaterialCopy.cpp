// Copying logical media files between drives: the plan of each file, the copies of a
// relocation in one batch with what follows each committed copy, and the progress callback
// that turns a copy's bytes into the logger's sub-task progress.
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

#include <map>
#include <memory>
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

// A relocation's copies on their way: every file is written into the destination as it
// is reached, and the copies are committed together (one wait for the disk for many
// files) when the batch is full and at the end. What makes a copy count (its link file,
// the material directory re-pointed for a move) is done only after its commit, so the
// directory never names a copy that a crash could still lose.
class RelocationCopies {
public:
    RelocationCopies(const DriveId& destination, MaterialMove::eType type, const LoggerHandle& logger)
        : destination_(destination), type_(type), logger_(logger),
          destDrive_(DiskManager::getDriveWithUniqueId(destination)), batch_(OS()->fileManager()->newCopyBatch()) {}
    RelocationCopies(const RelocationCopies&) = delete;
    RelocationCopies& operator=(const RelocationCopies&) = delete;

    // Copies the record's files, one sub-task per file, weighted by size.
    void add(const LogicalMediaFile& record) {
        std::vector<uint64_t> sizes;
        for (const auto& f : record.files) sizes.push_back(f.getFileSize());
        logger_.startSubTasks(sizes);
        for (const auto& f : record.files) {
            addFile(record.cookie, f);
            // Also after a file left alone, so that progress keeps following the bytes.
            logger_.nextSubTask();
        }
        logger_.endSubTasks();
    }
    bool full() const { return batch_ && batch_->full(); }
    // Commits the copies made so far, then does what each one that is in place calls for.
    void commit();

private:
    // A material whose file travels, and that file's record.
    struct User {
        Cookie material;
        MediaFileInfoEx file;
    };
    // One file on its way to the destination, with every material that uses it.
    struct Travel {
        FilePlan plan;
        std::vector<User> users;
        enum { eWaiting, eDone, eFailed } state = eWaiting;
    };

    void addFile(const Cookie& material, const MediaFileInfoEx& file);
    void copyCompanions(const WString& source, const WString& to);
    void finish(const Travel& t, const User& u) const;

    DriveId destination_;
    MaterialMove::eType type_;
    LoggerHandle logger_;
    Zn::Ptr<MediaDrive> destDrive_;
    std::unique_ptr<iCopyBatch> batch_;
    std::vector<Travel> travels_;
    // By destination OS path: the file this relocation sends there (several materials can
    // share one file; each is re-pointed when it arrives).
    std::map<std::wstring, size_t> byDestination_;
    // Per copy waiting in the batch, in the order added: its travel, or kCompanion for a
    // companion file.
    std::vector<size_t> waiting_;
    static constexpr size_t kCompanion = size_t(-1);
};

void RelocationCopies::addFile(const Cookie& material, const MediaFileInfoEx& file) {
    const WString destOsPath = MaterialFilename(destination_, file.getMaterialFilename().getPath()).getOsPath();
    auto known = byDestination_.find(destOsPath.str());
    if (known != byDestination_.end()) {
        Travel& t = travels_[known->second];
        t.users.push_back({material, file});
        if (t.state == Travel::eDone) finish(t, t.users.back());
        return;
    }
    // A file already at its destination is neither overwritten nor registered.
    if (!destOsPath.empty() && OS()->fileManager()->fileExists(destOsPath)) return;

    Travel t;
    t.plan = planFor(file, destination_, destDrive_);
    t.users.push_back({material, file});
    iFileManager::eCopyRC rc = iFileManager::eCopyOK;
    if (t.plan.copy) {
        void* client = logger_.progressClient();
        rc = batch_ ? batch_->add(t.plan.from, t.plan.to,
                                  [client](uint64_t done, uint64_t total) {
                                      return progress(client, (unsigned long)done, (unsigned long)total) != 0;
                                  },
                                  true)
                    : iFileManager::eCopyFailed;
    }
    if (rc != iFileManager::eCopyOK) {
        reportFailure(rc, t.plan, logger_);
        return;
    }
    byDestination_.emplace(destOsPath.str(), travels_.size());
    if (t.plan.copy) waiting_.push_back(travels_.size());
    const bool companions = !file.isProxy();
    const FilePlan plan = t.plan;
    travels_.push_back(std::move(t));
    if (companions) copyCompanions(plan.from, plan.to);
}

// Copies the files beside `source` that share its base name and that the material
// directory does not manage (a description next to a movie), into the folder of `to`.
void RelocationCopies::copyCompanions(const WString& source, const WString& to) {
    iFileManager* fm = OS()->fileManager();
    if (!batch_) return;
    const WString folder = getPath(source), destFolder = getPath(to);
    const WString pattern = patternEscaped(stripPathAndExt(source)) + L".*";
    for (const WString& name : fm->listDirectory(folder, pattern)) {
        WString companion = folder + name;
        if (SystemCache::isEligible(companion)) continue;
        iFileManager::eCopyRC rc = batch_->add(companion, destFolder + name, nullptr, false);
        if (rc == iFileManager::eCopyOK) waiting_.push_back(kCompanion);
        else Log("Companion file %ls not copied to %ls (result %d)\n", companion.c_str(), destFolder.c_str(), int(rc));
    }
}

// What a file in place calls for, for one material using it: the link file of linked
// media, and for a move the directory entry pointed at the copy.
void RelocationCopies::finish(const Travel& t, const User& u) const {
    MediaFileInfo moved(t.plan.destination, u.file.getSize(), t.plan.linkTarget);
    moved.setProxy(u.file.isProxy());
    if (!t.plan.linkTarget.empty() && !moved.createLinkFile())
        Log("Link file %ls -> %ls not written\n", t.plan.destination.getOsPath().c_str(), t.plan.linkTarget.c_str());
    if (type_ != MaterialMove::eMove) return;
    if (Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(u.material)) {
        // One transaction: a crash leaves the entry naming the old place or the new one.
        entry->replaceFile(u.file, moved);
    }
}

void RelocationCopies::commit() {
    std::vector<iCopyBatch::Outcome> outcomes;
    if (batch_) outcomes = batch_->commit();
    for (size_t i = 0; i < waiting_.size(); ++i) {
        // A batch that lost track of a copy has not put it in place.
        const iCopyBatch::Outcome o =
            i < outcomes.size() ? outcomes[i] : iCopyBatch::Outcome{WString(), WString(), iFileManager::eCopyFailed};
        if (waiting_[i] == kCompanion) {
            if (o.rc != iFileManager::eCopyOK)
                Log("Companion file %ls not copied to %ls (result %d)\n", o.src.c_str(), o.dst.c_str(), int(o.rc));
            continue;
        }
        Travel& t = travels_[waiting_[i]];
        if (o.rc != iFileManager::eCopyOK) {
            t.state = Travel::eFailed;
            reportFailure(o.rc, t.plan, logger_);
            continue;
        }
        t.state = Travel::eDone;
        for (const User& u : t.users) finish(t, u);
    }
    waiting_.clear();
    // Files that needed no copy (linked media already on the destination drive) count
    // from here too. Users that come later are finished as they come.
    for (Travel& t : travels_) {
        if (t.state != Travel::eWaiting || t.plan.copy) continue;
        t.state = Travel::eDone;
        for (const User& u : t.users) finish(t, u);
    }
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
    RelocationCopies copies(destination, type, logger);
    copies.add(record);
    copies.commit();
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

    RelocationCopies copies(destination, type, logger);
    logger.startSubTasks(sizes);
    for (const auto& r : records) {
        if (g_esc_pressed) break;
        copies.add(r);
        logger.nextSubTask();
        if (copies.full()) copies.commit();
    }
    copies.commit(); // what was copied before Escape is kept too
    logger.endSubTasks();
    DiskManager::issueMediaOnlineChangeNotification();
    logger.write(resourceStrW(kCopyFinished), LoggerBase::eHeading);
}
