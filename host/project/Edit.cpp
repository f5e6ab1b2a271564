// Edits: reading one from the project, its queries, its changes and writing it back.
#include "host/project/Edit.h"

#include "host/project/EditManager.h"
#include "host/project/MaterialRecords.h"
#include "host/project/ProjectDatabase.h"
#include "host/project/RowCache.h"
#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <memory>

namespace {

void bindEdit(sql::Query& q, const Cookie& c) { q.bind(1, int64_t(c.id1())).bind(2, int64_t(c.id2())); }

Cookie cookieFrom(sql::Query& q, int first) {
    return Cookie(char(q.int64(first)), uint32_t(q.int64(first + 1)), uint32_t(q.int64(first + 2)),
                  uint8_t(q.int64(first + 3)));
}

// An edit as stored, shared by the edits opened from it while the project is unchanged.
struct StoredEdit {
    WString name;
    int logType = 0;
    unsigned flags = 0;
    unsigned sampleRate = 48000;
    configb decodeOptions;
    String audioMetadata;
    std::vector<Edit::Channel> channels;
    std::map<unsigned, CookieVec> refs;
    std::vector<Edit::Segment> segments;
};

// Stored edits by identifier words; a null entry says there is no such edit.
RowCache<uint64_t, std::shared_ptr<const StoredEdit>> g_storedEdits(1u << 17);

std::shared_ptr<const StoredEdit> readStoredEdit(const ProjectDatabase& db, const Cookie& cookie) {
    ProjectDatabase::Read r(db);
    auto e = std::make_shared<StoredEdit>();
    {
        sql::Query q(r.db(), "SELECT name, log_type, flags, sample_rate, decode_options, audio_metadata "
                             "FROM edits WHERE id1 = ?1 AND id2 = ?2");
        bindEdit(q, cookie);
        if (!q.next()) return nullptr;
        e->name = q.wtext(0);
        e->logType = int(q.int64(1));
        e->flags = unsigned(q.int64(2));
        e->sampleRate = unsigned(q.int64(3));
        e->decodeOptions = configb::fromText(q.text(4));
        e->audioMetadata = q.text(5);
    }
    {
        sql::Query q(r.db(), "SELECT chan, kind, flags FROM channels WHERE id1 = ?1 AND id2 = ?2 ORDER BY chan");
        bindEdit(q, cookie);
        while (q.next()) e->channels.push_back({int(q.int64(0)), int(q.int64(1)), unsigned(q.int64(2))});
    }
    {
        sql::Query q(r.db(), "SELECT selector, type, rid1, rid2, ridx FROM refs WHERE id1 = ?1 AND id2 = ?2 "
                             "ORDER BY selector, seq");
        bindEdit(q, cookie);
        while (q.next()) e->refs[unsigned(q.int64(0))].add(cookieFrom(q, 1));
    }
    {
        sql::Query q(r.db(), "SELECT chan, start, finish, kind, type, rid1, rid2, ridx, effect FROM segments "
                             "WHERE id1 = ?1 AND id2 = ?2 ORDER BY chan, start");
        bindEdit(q, cookie);
        while (q.next())
            e->segments.push_back({int(q.int64(0)), q.real(1), q.real(2), int(q.int64(3)), cookieFrom(q, 4), q.wtext(8)});
    }
    return e;
}

std::shared_ptr<const StoredEdit> storedEdit(const ProjectDatabase& db, const Cookie& cookie) {
    const uint64_t key = (uint64_t(cookie.id1()) << 32) | cookie.id2();
    std::shared_ptr<const StoredEdit> s;
    uint64_t state;
    if (g_storedEdits.find(db, key, s, state)) return s;
    s = readStoredEdit(db, cookie);
    g_storedEdits.put(db, key, s, state);
    return s;
}

} // namespace

Edit::Edit(Zn::Ptr<ProjectDatabase> db, const Cookie& cookie, const WString& name, int logType, unsigned flags)
    : Edit(std::move(db), cookie, name, logType, flags, false) {}

Edit::Edit(Zn::Ptr<ProjectDatabase> db, const Cookie& cookie, const WString& name, int logType, unsigned flags,
           bool readOnly)
    : db_(std::move(db)), cookie_(convertCookie(cookie, 'E', Cookie::kNoIndex)), readOnly_(readOnly), name_(name),
      logType_(logType), flags_(flags) {}

Zn::Ptr<Edit> Edit::load(const Zn::Ptr<ProjectDatabase>& db, const Cookie& cookie, bool readOnly) {
    if (!db || !cookie.valid()) return nullptr;
    std::shared_ptr<const StoredEdit> s = storedEdit(*db, cookie);
    if (!s) return nullptr;
    Zn::Ptr<Edit> e(new Edit(db, cookie, s->name, s->logType, s->flags, readOnly));
    PlainMutex::Lock lock(e->mutex_);
    e->stored_ = true;
    e->sampleRate_ = s->sampleRate;
    e->decodeOptions_ = s->decodeOptions;
    e->audioMetadata_ = s->audioMetadata;
    e->channels_ = s->channels;
    e->refs_ = s->refs;
    e->segments_ = s->segments;
    return e;
}

bool Edit::describe(const ProjectDatabase& db, const Cookie& cookie, WString& name, int& logType, unsigned& flags) {
    if (!cookie.valid()) return false;
    std::shared_ptr<const StoredEdit> s = storedEdit(db, cookie);
    if (!s) return false;
    name = s->name;
    logType = s->logType;
    flags = s->flags;
    return true;
}

WString Edit::getName() const {
    PlainMutex::Lock lock(mutex_);
    return name_;
}

int Edit::getLogType() const {
    PlainMutex::Lock lock(mutex_);
    return logType_;
}

unsigned Edit::getFlags() const {
    PlainMutex::Lock lock(mutex_);
    return flags_;
}

bool Edit::isEmpty(int) const {
    PlainMutex::Lock lock(mutex_);
    if (flags_ & eEmpty) return true;
    for (const auto& [selector, list] : refs_)
        if (!list.empty()) return false;
    return segments_.empty();
}

unsigned Edit::getChans(Vector<int>& out, int kinds, unsigned mask) const {
    PlainMutex::Lock lock(mutex_);
    out.clear();
    for (const auto& c : channels_)
        if ((c.kind & kinds) && (c.flags & mask)) out.add(c.chan);
    return out.size();
}

std::vector<Edit::Channel> Edit::getChannels() const {
    PlainMutex::Lock lock(mutex_);
    return channels_;
}

CookieVec Edit::getReferences(unsigned selector) const {
    PlainMutex::Lock lock(mutex_);
    auto it = refs_.find(selector);
    return it == refs_.end() ? CookieVec() : it->second;
}

std::vector<Edit::Segment> Edit::getSegments(int chan) const {
    PlainMutex::Lock lock(mutex_);
    std::vector<Segment> out;
    for (const auto& s : segments_)
        if (chan == 0 || s.chan == chan) out.push_back(s);
    return out;
}

unsigned Edit::getAudioInputSampleRate() const {
    PlainMutex::Lock lock(mutex_);
    return sampleRate_;
}

configb Edit::getDecodeOptions() const {
    PlainMutex::Lock lock(mutex_);
    return decodeOptions_;
}

String Edit::getAudioMetadata() const {
    PlainMutex::Lock lock(mutex_);
    return audioMetadata_;
}

CookieVec Edit::findCookiesForShot(const Cookie& shot) {
    auto db = EditManager::getProjdb();
    if (!db) return CookieVec();
    ProjectDatabase::Read r(*db);
    return records::materialsOf(r.db(), shot);
}

bool Edit::addModification(const EditModifications& mods, bool notify) {
    if (readOnly_ || mods.empty()) return !readOnly_;
    {
        PlainMutex::Lock lock(mutex_);
        if (modifiers_ > 0) {
            // Goes with the open modifier's commit.
            for (const auto& m : mods) pending_.add(m);
            notifyPending_ = notifyPending_ || notify;
            return true;
        }
        ProjectDatabase::Write w(*db_);
        for (const auto& m : mods) {
            sql::Query q(w.db(), "INSERT INTO modifications(id1, id2, seq, mod_type, value) "
                                 "VALUES(?1, ?2, (SELECT coalesce(max(seq), 0) + 1 FROM modifications "
                                 "WHERE id1 = ?1 AND id2 = ?2), ?3, ?4)");
            bindEdit(q, cookie_);
            q.bind(3, unsigned(m.getType())).bind(4, m.getValue());
            if (!q.run()) w.fail();
        }
        if (!w.commit()) return false;
    }
    if (notify) EditManager::notifyModifications(cookie_, mods);
    return true;
}

EditModifications Edit::getModifications() const {
    EditModifications out;
    ProjectDatabase::Read r(*db_);
    sql::Query q(r.db(), "SELECT mod_type, value FROM modifications WHERE id1 = ?1 AND id2 = ?2 ORDER BY seq");
    bindEdit(q, cookie_);
    while (q.next()) out.add(EditModification(EditModificationType(q.int64(0)), unsigned(q.int64(1))));
    return out;
}

bool Edit::setName(const WString& name) {
    PlainMutex::Lock lock(mutex_);
    if (!canChangeLocked()) return false;
    name_ = name;
    return true;
}

bool Edit::setLogType(int logType) {
    PlainMutex::Lock lock(mutex_);
    if (!canChangeLocked()) return false;
    logType_ = logType;
    return true;
}

bool Edit::setFlag(unsigned flag, bool on) {
    PlainMutex::Lock lock(mutex_);
    if (!canChangeLocked()) return false;
    flags_ = on ? (flags_ | flag) : (flags_ & ~flag);
    return true;
}

bool Edit::setAudioInputSampleRate(unsigned rate) {
    PlainMutex::Lock lock(mutex_);
    if (!canChangeLocked() || rate == 0) return false;
    sampleRate_ = rate;
    return true;
}

bool Edit::setDecodeOptions(const configb& options) {
    PlainMutex::Lock lock(mutex_);
    if (!canChangeLocked()) return false;
    decodeOptions_ = options;
    return true;
}

bool Edit::setAudioMetadata(const String& metadata) {
    PlainMutex::Lock lock(mutex_);
    if (!canChangeLocked()) return false;
    audioMetadata_ = metadata;
    return true;
}

int Edit::addChannel(int kind, unsigned flags) {
    PlainMutex::Lock lock(mutex_);
    if (!canChangeLocked() || (kind != eVideo && kind != eAudio)) return 0;
    int chan = channels_.empty() ? 1 : channels_.back().chan + 1;
    channels_.push_back({chan, kind, flags});
    return chan;
}

void Edit::addReferenceLocked(unsigned selector, const Cookie& cookie) {
    CookieVec& list = refs_[selector];
    if (!list.contains(cookie)) list.add(cookie);
}

bool Edit::addReference(unsigned selector, const Cookie& cookie) {
    PlainMutex::Lock lock(mutex_);
    if (!canChangeLocked() || !cookie.valid()) return false;
    addReferenceLocked(selector, cookie);
    return true;
}

bool Edit::addSegmentLocked(const Segment& s) {
    if (!canChangeLocked() || !(s.finish > s.start)) return false;
    bool chanExists = std::any_of(channels_.begin(), channels_.end(), [&](const Channel& c) { return c.chan == s.chan; });
    if (!chanExists) return false;
    for (const auto& o : segments_)
        if (o.chan == s.chan && s.start < o.finish && o.start < s.finish) return false;
    auto at = std::upper_bound(segments_.begin(), segments_.end(), s, [](const Segment& a, const Segment& b) {
        return a.chan != b.chan ? a.chan < b.chan : a.start < b.start;
    });
    segments_.insert(at, s);
    return true;
}

bool Edit::addSegment(int chan, double start, double finish, const Cookie& material) {
    PlainMutex::Lock lock(mutex_);
    if (!material.valid() || material.isFiller()) return false;
    if (!addSegmentLocked({chan, start, finish, eSegMaterial, material, WString()})) return false;
    addReferenceLocked(eRefMaterial, material);
    addReferenceLocked(eRefClips, convertCookie(material, 'E', Cookie::kNoIndex));
    addReferenceLocked(eRefAvailability, material);
    return true;
}

bool Edit::addFiller(int chan, double start, double finish) {
    PlainMutex::Lock lock(mutex_);
    Cookie filler('V', 1, Cookie::kFillerWord);
    if (!addSegmentLocked({chan, start, finish, eSegFiller, filler, WString()})) return false;
    addReferenceLocked(eRefAvailability, filler);
    return true;
}

bool Edit::addEffect(int chan, double start, double finish, const WString& name) {
    PlainMutex::Lock lock(mutex_);
    return addSegmentLocked({chan, start, finish, eSegEffect, Cookie(), name});
}

// Not analysed: the edit is new and out of other threads' reach, and its lock would be
// taken inside the project's write lock, the reverse of the usual order.
bool Edit::store(sql::Connection& db) NO_THREAD_SAFETY_ANALYSIS {
    return storeLocked(db, false);
}

bool Edit::storeLocked(sql::Connection& db, bool withPending) {
    // Counted as stored from here on: a failed write rolls the transaction back, and the
    // caller drops the edit or tries again through a modifier.
    stored_ = true;
    bool ok;
    {
        // An upsert rather than a replace: replacing would delete the row and, with it,
        // everything that refers to it (the modifications among them).
        sql::Query q(db, "INSERT INTO edits(id1, id2, name, log_type, flags, sample_rate, decode_options, "
                         "audio_metadata) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8) "
                         "ON CONFLICT(id1, id2) DO UPDATE SET name = excluded.name, log_type = excluded.log_type, "
                         "flags = excluded.flags, sample_rate = excluded.sample_rate, "
                         "decode_options = excluded.decode_options, audio_metadata = excluded.audio_metadata");
        bindEdit(q, cookie_);
        q.bind(3, name_).bind(4, logType_).bind(5, flags_).bind(6, sampleRate_);
        q.bind(7, decodeOptions_.toText()).bind(8, audioMetadata_);
        ok = q.run();
    }
    for (const char* sql : {"DELETE FROM channels WHERE id1 = ?1 AND id2 = ?2",
                            "DELETE FROM refs WHERE id1 = ?1 AND id2 = ?2",
                            "DELETE FROM segments WHERE id1 = ?1 AND id2 = ?2"}) {
        sql::Query q(db, sql);
        bindEdit(q, cookie_);
        ok = ok && q.run();
    }
    for (const auto& c : channels_) {
        sql::Query q(db, "INSERT INTO channels(id1, id2, chan, kind, flags) VALUES(?1, ?2, ?3, ?4, ?5)");
        bindEdit(q, cookie_);
        q.bind(3, c.chan).bind(4, c.kind).bind(5, c.flags);
        ok = ok && q.run();
    }
    for (const auto& [selector, list] : refs_) {
        int seq = 0;
        for (const Cookie& c : list) {
            sql::Query q(db, "INSERT INTO refs(id1, id2, selector, seq, type, rid1, rid2, ridx) "
                             "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)");
            bindEdit(q, cookie_);
            q.bind(3, selector).bind(4, seq++).bind(5, int64_t(uint8_t(c.type())));
            q.bind(6, int64_t(c.id1())).bind(7, int64_t(c.id2())).bind(8, int64_t(c.index()));
            ok = ok && q.run();
        }
    }
    for (const auto& s : segments_) {
        sql::Query q(db, "INSERT INTO segments(id1, id2, chan, start, finish, kind, type, rid1, rid2, ridx, effect) "
                         "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)");
        bindEdit(q, cookie_);
        q.bind(3, s.chan).bind(4, s.start).bind(5, s.finish).bind(6, s.kind);
        q.bind(7, int64_t(uint8_t(s.cookie.type()))).bind(8, int64_t(s.cookie.id1()));
        q.bind(9, int64_t(s.cookie.id2())).bind(10, int64_t(s.cookie.index())).bind(11, s.effect);
        ok = ok && q.run();
    }
    for (const auto& m : withPending ? pending_ : EditModifications()) {
        sql::Query q(db, "INSERT INTO modifications(id1, id2, seq, mod_type, value) "
                         "VALUES(?1, ?2, (SELECT coalesce(max(seq), 0) + 1 FROM modifications "
                         "WHERE id1 = ?1 AND id2 = ?2), ?3, ?4)");
        bindEdit(q, cookie_);
        q.bind(3, unsigned(m.getType())).bind(4, m.getValue());
        ok = ok && q.run();
    }
    return ok;
}

bool Edit::storeNow() {
    PlainMutex::Lock lock(mutex_);
    if (readOnly_ || !db_) return false;
    ProjectDatabase::Write w(*db_);
    if (!storeLocked(w.db(), false)) w.fail();
    return w.commit();
}

bool Edit::beginModify() {
    PlainMutex::Lock lock(mutex_);
    if (readOnly_ || !db_) return false;
    ++modifiers_;
    return true;
}

bool Edit::endModify(std::string* error) {
    EditModifications announced;
    {
        PlainMutex::Lock lock(mutex_);
        if (modifiers_ == 0) return false;
        if (--modifiers_ > 0) return true;
        ProjectDatabase::Write w(*db_);
        if (!storeLocked(w.db(), true)) w.fail();
        bool ok = w.commit();
        if (!ok) {
            if (error) *error = w.error();
            pending_.clear();
            notifyPending_ = false;
            return false;
        }
        if (notifyPending_) announced = pending_;
        pending_.clear();
        notifyPending_ = false;
    }
    if (!announced.empty()) EditManager::notifyModifications(cookie_, announced);
    return true;
}

Edit* EditPtr::i_open(const Cookie& cookie, eEditOpenBehaviour behaviour) {
    edit_ = Edit::load(EditManager::getProjdb(), cookie, behaviour == eEditOpenReadOnly);
    return edit_.get();
}
