// EditModule and EditGraphIterator: an edit as a view shows it (the cursor's time and the
// selected channels), and what lies under the cursor on one channel of its timeline:
// a cel of material or filler (CelEventPair) or an effect (EffectInstance).
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/Vector.h"
#include "host/project/Edit.h"

#include <set>

// A node of the edit graph under an iterator.
class EditGraphNode : public iObject {
public:
    EditGraphNode(int chan, double start, double finish) : chan_(chan), start_(start), finish_(finish) {}
    int getChan() const noexcept { return chan_; }
    double getStart() const noexcept { return start_; }
    double getFinish() const noexcept { return finish_; }

private:
    int chan_;
    double start_, finish_;
};

// An effect on the timeline.
class EffectInstance : public EditGraphNode {
public:
    EffectInstance(int chan, double start, double finish, const WString& name)
        : EditGraphNode(chan, start, finish), name_(name) {}
    const WString& getName() const noexcept { return name_; }

private:
    WString name_;
};

// A cel: a stretch of one material (or of filler) on the timeline.
class CelEventPair : public EditGraphNode {
public:
    CelEventPair(int chan, double start, double finish, const Cookie& cookie)
        : EditGraphNode(chan, start, finish), cookie_(cookie) {}
    // The material cookie of the cel (the filler cookie for filler: first word 1,
    // second word 647).
    Cookie stripCookie() const noexcept { return cookie_; }
    bool isFiller() const noexcept { return cookie_.id1() == 1 && cookie_.id2() == Cookie::kFillerWord; }

private:
    Cookie cookie_;
};

class EditModule {
public:
    EditModule() = default;
    explicit EditModule(const EditPtr& edit) : edit_(edit) {}

    const EditPtr& getEdit() const noexcept { return edit_; }
    void setEdit(const EditPtr& edit) { edit_ = edit; }

    // The cursor, in seconds. The accuracy argument is accepted for the host's callers;
    // the time is kept exactly.
    void setCurrentTime(double seconds) noexcept { time_ = seconds; }
    double getCurrentTime(int accuracy = 1) const noexcept { return time_; }

    // Selects or deselects a channel of the edit.
    void selectChan(int chan, bool selected = true);
    // The selected channels whose kind has a bit in kinds and whose flags have a bit in
    // mask, in channel order; answers how many.
    unsigned getSelectedChans(Vector<int>& out, int kinds, unsigned mask) const;
    Vector<int> getSelectedChans(int kinds, unsigned mask) const {
        Vector<int> out;
        getSelectedChans(out, kinds, mask);
        return out;
    }

private:
    EditPtr edit_;
    double time_ = 0.0;
    std::set<int> selected_;
};

class EditGraphIterator {
public:
    // Positions the iterator on channel chan of the edit at time (seconds): the segment
    // with start <= time < finish is under it. mode is accepted for the host's callers;
    // every mode finds the segment under the time.
    EditGraphIterator(const EditPtr& edit, int chan, double time, int mode = 2);

    bool valid() const noexcept { return found_; }
    // The node under the iterator: an EffectInstance for an effect, a CelEventPair for
    // material or filler; null when nothing is there. depth -1 is the innermost node.
    Zn::Ptr<EditGraphNode> getNode(int depth = -1) const;
    // The cel under the iterator; null when there is none (nothing, or an effect).
    Zn::Ptr<CelEventPair> getUTRHandle(int depth = -1) const;

private:
    bool found_ = false;
    Edit::Segment segment_{};
};
