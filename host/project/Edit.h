// Edit and EditPtr: a clip, log or sequence of the project, opened by cookie. An Edit is
// the state of one edit as read when it was opened (name, log type, flags, channels,
// references, the small timeline, audio sample rate, decode options, audio metadata);
// once stored it changes only through an EditModifier, which writes the whole edit back
// in one transaction. A new edit that is not stored yet can be set up freely. EditPtr is the holder through which the host opens and closes edits.
//
// Log types used by this host: 4 a clip of imported or captured material (what
// `playfile import` makes), 2 a sequence (its timeline says what is under the cursor);
// 1, 16, 32 and 1024 are further clip kinds the location queries accept.
//
// Lock: mutex_ guards the edit's state and its modifier count. It is held while the
// edit writes itself to the project (so the project's write lock is taken inside it)
// and never while a modification listener runs.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/Vector.h"
#include "host/core/configb.h"
#include "host/project/EditModification.h"
#include "host/project/ProjectDatabase.h"
#include "host/threads/PlainMutex.h"

#include <map>
#include <vector>


enum eEditOpenBehaviour {
    eEditOpenNormal = 0,   // the edit may be modified
    eEditOpenReadOnly = 1, // modifiers of this edit are refused
};

class Edit : public iObject {
public:
    enum eFlags : unsigned { eImported = 1, eImage = 2, eEmpty = 4 };
    enum eLogType : int { eLogSequence = 2, eLogClip = 4 };
    enum eChannelKind : int { eVideo = 1, eAudio = 2 };
    enum eSegmentKind : int { eSegMaterial = 0, eSegFiller = 1, eSegEffect = 2 };
    // Reference selectors of getReferences.
    enum eReferences : unsigned { eRefMaterial = 2, eRefClips = 3, eRefAvailability = 4 };

    struct Channel {
        int chan;       // unique within the edit, from 1
        int kind;       // eChannelKind
        unsigned flags; // 1 unless set otherwise
    };
    struct Segment {
        int chan;
        double start, finish; // seconds; the segment covers [start, finish)
        int kind;             // eSegmentKind
        Cookie cookie;        // the material, or the filler cookie
        WString effect;       // the effect's name
    };

    // A new edit of db (not yet stored).
    Edit(Zn::Ptr<ProjectDatabase> db, const Cookie& cookie, const WString& name, int logType, unsigned flags);
    // The edit with the identifier words of cookie, as stored in db; null when none.
    static Zn::Ptr<Edit> load(const Zn::Ptr<ProjectDatabase>& db, const Cookie& cookie, bool readOnly);

    // The stored name, log type and flags of the edit with the cookie's identifier words,
    // without opening it; false when there is none.
    static bool describe(const ProjectDatabase& db, const Cookie& cookie, WString& name, int& logType,
                         unsigned& flags);

    // The edit's cookie: type 'E', index 255.
    const Cookie& getCookie() const noexcept { return cookie_; }
    WString getName() const;
    int getLogType() const;
    unsigned getFlags() const;
    bool isImported() const { return getFlags() & eImported; }
    bool isImage() const { return getFlags() & eImage; }
    // True when the edit is marked empty or refers to no material at all (no
    // references and nothing on its timeline). kinds is accepted for the host's
    // callers and does not narrow the test.
    bool isEmpty(int kinds = 3) const;
    bool isReadOnly() const noexcept { return readOnly_; }

    // Lists into out the numbers of the channels whose kind has a bit in kinds (1 video,
    // 2 audio) and whose flags have a bit in mask; answers how many.
    unsigned getChans(Vector<int>& out, int kinds, unsigned mask) const;
    std::vector<Channel> getChannels() const;
    // The cookies the edit refers to by selector: 2 material files, 3 clips, 4 material
    // of the availability test (filler included). Empty for any other selector.
    CookieVec getReferences(unsigned selector) const;
    void getReferences(CookieVec& out, unsigned selector) const { out = getReferences(selector); }
    // The timeline segments of a channel (all channels with chan 0), ordered by start.
    std::vector<Segment> getSegments(int chan = 0) const;

    // The audio input sample rate in samples per second.
    unsigned getAudioInputSampleRate() const;
    // Decode option values stored for the clip's media.
    configb getDecodeOptions() const;
    bool hasDecodeOptions() const { return !getDecodeOptions().empty(); }
    // The audio metadata of the clip's media, as its writer stored it (text).
    String getAudioMetadata() const;

    // The material cookies of the shot (same identifier words): video, then sound.
    CookieVec findCookiesForShot() const { return findCookiesForShot(cookie_); }
    static CookieVec findCookiesForShot(const Cookie& shot);

    // Announces modifications: stored with the edit (at once, or with the open
    // modifier's commit) and, with notify, passed to EditManager's listeners after the
    // commit. False for a read-only edit or when the project refuses the write.
    bool addModification(const EditModifications& mods, bool notify);
    // Every modification stored for the edit, oldest first.
    EditModifications getModifications() const;

    // Changes, allowed while an EditModifier is open on the edit or before the edit is
    // first stored (false otherwise).
    bool setName(const WString& name);
    bool setLogType(int logType);
    bool setFlag(unsigned flag, bool on);
    bool setAudioInputSampleRate(unsigned rate);
    bool setDecodeOptions(const configb& options);
    bool setAudioMetadata(const String& metadata);
    // A new channel of a kind; answers its number, or 0.
    int addChannel(int kind, unsigned flags = 1);
    // Adds a reference under a selector unless it is there already.
    bool addReference(unsigned selector, const Cookie& cookie);
    // Timeline segments on an existing channel, not overlapping another; finish > start.
    // Material is also added to the references (2 and 4 the material, 3 its clip);
    // filler to references 4.
    bool addSegment(int chan, double start, double finish, const Cookie& material);
    bool addFiller(int chan, double start, double finish);
    bool addEffect(int chan, double start, double finish, const WString& name);

    // Writes the edit within the caller's write transaction (modifications announced
    // to an open modifier wait for its commit). It does not take the edit's lock (that
    // would come inside the project's write lock, the reverse of the usual order), so it
    // is only for a new edit that no other thread can reach yet (EditManager, the
    // importer).
    bool store(sql::Connection& db);

private:
    Edit(Zn::Ptr<ProjectDatabase> db, const Cookie& cookie, const WString& name, int logType, unsigned flags,
         bool readOnly);
    friend class EditModifier;
    friend class EditManager;
    bool beginModify();
    // Ends one modifier; the last one writes the edit. False when the write failed.
    bool endModify(std::string* error);
    bool storeLocked(sql::Connection& db, bool withPending) REQUIRES(mutex_);
    // Writes the edit now in a transaction of its own (edit lock first, then the
    // project's write lock).
    bool storeNow();
    bool canChangeLocked() const REQUIRES(mutex_) { return modifiers_ > 0 || !stored_; }
    bool addSegmentLocked(const Segment& s) REQUIRES(mutex_);
    void addReferenceLocked(unsigned selector, const Cookie& cookie) REQUIRES(mutex_);

    Zn::Ptr<ProjectDatabase> db_;
    const Cookie cookie_;
    const bool readOnly_;

    mutable PlainMutex mutex_;
    WString name_ GUARDED_BY(mutex_);
    int logType_ GUARDED_BY(mutex_);
    unsigned flags_ GUARDED_BY(mutex_);
    unsigned sampleRate_ GUARDED_BY(mutex_) = 48000;
    configb decodeOptions_ GUARDED_BY(mutex_);
    String audioMetadata_ GUARDED_BY(mutex_);
    std::vector<Channel> channels_ GUARDED_BY(mutex_);
    std::map<unsigned, CookieVec> refs_ GUARDED_BY(mutex_);
    std::vector<Segment> segments_ GUARDED_BY(mutex_);
    EditModifications pending_ GUARDED_BY(mutex_);
    bool notifyPending_ GUARDED_BY(mutex_) = false;
    int modifiers_ GUARDED_BY(mutex_) = 0;
    bool stored_ GUARDED_BY(mutex_) = false;
};

class EditPtr {
public:
    EditPtr() = default;
    explicit EditPtr(Zn::Ptr<Edit> edit) : edit_(std::move(edit)) {}

    // Opens the edit with the cookie's identifier words (whatever its type letter) in
    // the current project; null when there is no such edit or no project.
    Edit* i_open(const Cookie& cookie, eEditOpenBehaviour behaviour = eEditOpenNormal);
    void i_close() { edit_.reset(); }

    Edit* get() const noexcept { return edit_.get(); }
    Edit* operator->() const noexcept { return edit_.get(); }
    Edit& operator*() const noexcept { return *edit_; }
    explicit operator bool() const noexcept { return bool(edit_); }
    const Zn::Ptr<Edit>& ptr() const noexcept { return edit_; }

private:
    Zn::Ptr<Edit> edit_;
};
