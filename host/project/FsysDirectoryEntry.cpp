// A material directory entry: its files, their status on disk, and the changes written
// through to the project.
#include "host/project/FsysDirectoryEntry.h"

#include "host/project/ProjectDatabase.h"
#include "host/project/ProjectFiles.h"
#include "host/threads/PlainMutex.h"

FsysDirectoryEntry::FsysDirectoryEntry(Zn::Ptr<ProjectDatabase> db, const Cookie& cookie, const records::EntryRow& row)
    : db_(std::move(db)), cookie_(cookie), startOffset_(row.startOffset), kind_(row.kind) {
    for (const auto& f : row.files) {
        if (f.role == records::eHighRes) {
            hasFile_ = true;
            file_ = f.info;
        } else {
            proxies_.push_back({f.seq, f.info});
        }
    }
}

int FsysDirectoryEntry::getKind() const {
    PlainMutex::Lock lock(mutex_);
    return kind_;
}

MediaFileInfo FsysDirectoryEntry::getFile() const {
    PlainMutex::Lock lock(mutex_);
    return hasFile_ ? file_ : MediaFileInfo();
}

bool FsysDirectoryEntry::hasFile() const {
    PlainMutex::Lock lock(mutex_);
    return hasFile_;
}

MaterialFilename FsysDirectoryEntry::getMaterialFilename() const {
    PlainMutex::Lock lock(mutex_);
    return hasFile_ ? file_.getMaterialFilename() : MaterialFilename();
}

Vector<MediaFileInfo> FsysDirectoryEntry::getProxyFiles() const {
    PlainMutex::Lock lock(mutex_);
    Vector<MediaFileInfo> out;
    out.resizeFor(unsigned(proxies_.size()));
    for (const auto& p : proxies_) out.add(p.info);
    return out;
}

bool FsysDirectoryEntry::isLinked() const {
    PlainMutex::Lock lock(mutex_);
    return hasFile_ && file_.isLinked();
}

WString FsysDirectoryEntry::getPhysicalFilename(bool resolveLinks) const {
    MediaFileInfo f = getFile();
    return f.getMaterialFilename().empty() && f.getLinkTarget().empty() ? WString() : f.getPhysicalFilename(resolveLinks);
}

WString FsysDirectoryEntry::getLinkedFilename() const {
    PlainMutex::Lock lock(mutex_);
    return hasFile_ && file_.isLinked() ? file_.getLinkTarget() : WString();
}

bool FsysDirectoryEntry::setLinkedFilename(const WString& name) {
    PlainMutex::Lock lock(mutex_);
    if (!hasFile_) return false;
    MediaFileInfo changed = file_;
    changed.setLinkTarget(name);
    ProjectDatabase::Write w(*db_);
    if (!records::updateFile(w.db(), cookie_, records::eHighRes, 0, changed)) w.fail();
    if (!w.commit()) return false;
    file_ = changed;
    return true;
}

int FsysDirectoryEntry::statusOfLocked(unsigned types) const {
    int high = 0, proxy = 0;
    if ((types & 1) && hasFile_) high = file_.getStatus();
    if (types & 2) {
        for (const auto& p : proxies_) {
            if (p.info.getStatus() == MediaFileInfo::eStatusAvailable) proxy = MediaFileInfo::eStatusAvailable;
            else if (proxy == 0) proxy = p.info.getStatus();
        }
    }
    if (high == MediaFileInfo::eStatusAvailable || proxy == MediaFileInfo::eStatusAvailable)
        return MediaFileInfo::eStatusAvailable;
    return high ? high : proxy;
}

int FsysDirectoryEntry::getStatus(unsigned types) const {
    PlainMutex::Lock lock(mutex_);
    return statusOfLocked(types);
}

int FsysDirectoryEntry::updateStatus(unsigned types) {
    PlainMutex::Lock lock(mutex_);
    // Look at the disk first and write only what changed: a status query is frequent and
    // should not take the project's write lock when nothing moved.
    std::vector<std::pair<int, MediaFileInfo*>> changed; // (seq or -1 for high-res, record)
    if ((types & 1) && hasFile_) {
        int before = file_.getStatus();
        if (file_.refreshStatus() != before) changed.push_back({-1, &file_});
    }
    if (types & 2) {
        for (auto& p : proxies_) {
            int before = p.info.getStatus();
            if (p.info.refreshStatus() != before) changed.push_back({p.seq, &p.info});
        }
    }
    if (!changed.empty()) {
        ProjectDatabase::Write w(*db_);
        for (auto& [seq, info] : changed) {
            bool ok = seq < 0 ? records::updateFile(w.db(), cookie_, records::eHighRes, 0, *info)
                              : records::updateFile(w.db(), cookie_, records::eProxy, seq, *info);
            if (!ok) w.fail();
        }
        w.commit(); // a status that could not be stored is still the right answer
    }
    return statusOfLocked(types);
}

bool FsysDirectoryEntry::addFile(const MediaFileInfo& file) { return changeFiles(nullptr, &file); }

bool FsysDirectoryEntry::removeFile(const MediaFileInfo& file) { return changeFiles(&file, nullptr); }

bool FsysDirectoryEntry::replaceFile(const MediaFileInfo& old, const MediaFileInfo& file) {
    return changeFiles(&old, &file);
}

bool FsysDirectoryEntry::changeFiles(const MediaFileInfo* removed, const MediaFileInfo* file) {
    PlainMutex::Lock lock(mutex_);
    bool high = false;
    auto proxy = proxies_.end();
    if (removed) {
        high = hasFile_ && file_ == *removed;
        for (auto it = proxies_.begin(); it != proxies_.end(); ++it)
            if (it->info == *removed) proxy = it;
        if (!high && proxy == proxies_.end() && !file) return false;
    }
    MediaFileInfo added = file ? *file : MediaFileInfo();
    if (file) added.refreshStatus();
    ProjectDatabase::Write w(*db_);
    if (high && !records::deleteFile(w.db(), cookie_, records::eHighRes, 0)) w.fail();
    if (proxy != proxies_.end() && !records::deleteFile(w.db(), cookie_, records::eProxy, proxy->seq)) w.fail();
    int seq = 0;
    if (file) {
        if (!records::ensureMaterial(w.db(), cookie_, kind_)) w.fail();
        if (added.isProxy()) {
            seq = -1;
            for (auto it = proxies_.begin(); it != proxies_.end(); ++it)
                if (it != proxy && it->info == added) seq = it->seq;
            if (seq < 0) seq = records::nextProxySeq(w.db(), cookie_);
        }
        if (!records::insertFile(w.db(), cookie_, added.isProxy() ? records::eProxy : records::eHighRes, seq, added))
            w.fail();
    }
    if (!w.commit()) return false;
    if (high) {
        hasFile_ = false;
        file_ = MediaFileInfo();
    }
    if (proxy != proxies_.end()) proxies_.erase(proxy);
    if (file) keepAddedLocked(added, seq);
    return true;
}

void FsysDirectoryEntry::keepAddedLocked(const MediaFileInfo& added, int seq) {
    if (!added.isProxy()) {
        file_ = added;
        hasFile_ = true;
        return;
    }
    for (auto& p : proxies_) {
        if (p.seq == seq) {
            p.info = added;
            return;
        }
    }
    proxies_.push_back({seq, added});
}

bool FsysDirectoryEntry::updateFileSize() {
    PlainMutex::Lock lock(mutex_);
    auto measure = [](MediaFileInfo& f) {
        int64_t n = projectfs::size(f.getPhysicalFilename(false));
        f.setSize(n < 0 ? 0 : uint64_t(n));
    };
    MediaFileInfo high = file_;
    std::vector<Slot> proxies = proxies_;
    if (hasFile_) measure(high);
    for (auto& p : proxies) measure(p.info);
    ProjectDatabase::Write w(*db_);
    if (hasFile_ && !records::updateFile(w.db(), cookie_, records::eHighRes, 0, high)) w.fail();
    for (auto& p : proxies)
        if (!records::updateFile(w.db(), cookie_, records::eProxy, p.seq, p.info)) w.fail();
    if (!w.commit()) return false;
    file_ = high;
    proxies_ = std::move(proxies);
    return true;
}

uint64_t FsysDirectoryEntry::getSize() const {
    PlainMutex::Lock lock(mutex_);
    return hasFile_ ? file_.getSize() : 0;
}
