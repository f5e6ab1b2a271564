// The cursor view of an edit and what lies under the cursor.
#include "host/project/EditModule.h"

void EditModule::selectChan(int chan, bool selected) {
    if (selected) selected_.insert(chan);
    else selected_.erase(chan);
}

unsigned EditModule::getSelectedChans(Vector<int>& out, int kinds, unsigned mask) const {
    out.clear();
    if (!edit_) return 0;
    for (const auto& c : edit_->getChannels())
        if (selected_.count(c.chan) && (c.kind & kinds) && (c.flags & mask)) out.add(c.chan);
    return out.size();
}

EditGraphIterator::EditGraphIterator(const EditPtr& edit, int chan, double time, int) {
    if (!edit) return;
    for (const auto& s : edit->getSegments(chan)) {
        if (s.start <= time && time < s.finish) {
            segment_ = s;
            found_ = true;
            return;
        }
    }
}

Zn::Ptr<EditGraphNode> EditGraphIterator::getNode(int) const {
    if (!found_) return nullptr;
    if (segment_.kind == Edit::eSegEffect)
        return Zn::Ptr<EditGraphNode>(new EffectInstance(segment_.chan, segment_.start, segment_.finish, segment_.effect));
    return Zn::Ptr<EditGraphNode>(getUTRHandle());
}

Zn::Ptr<CelEventPair> EditGraphIterator::getUTRHandle(int) const {
    if (!found_ || segment_.kind == Edit::eSegEffect) return nullptr;
    return Zn::Ptr<CelEventPair>(new CelEventPair(segment_.chan, segment_.start, segment_.finish, segment_.cookie));
}
