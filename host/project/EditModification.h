// EditModification: one change announced to an edit, a type and a value (type 23 with
// value 1: the edit's media changed, so views of it must look again). EditModifications
// is a list of them, handed to Edit::addModification.
#pragma once

#include "host/core/Vector.h"

enum EditModificationType : unsigned {
    eEditModNone = 0,
    eEditModMediaChanged = 23,
};

class EditModification {
public:
    EditModification() = default;
    EditModification(EditModificationType type, unsigned value) : type_(type), value_(value) {}

    EditModificationType getType() const noexcept { return type_; }
    unsigned getValue() const noexcept { return value_; }

    friend bool operator==(const EditModification& a, const EditModification& b) {
        return a.type_ == b.type_ && a.value_ == b.value_;
    }

private:
    EditModificationType type_ = eEditModNone;
    unsigned value_ = 0;
};

class EditModifications : public Vector<EditModification> {
public:
    EditModifications() = default;
    // A list of one, so that a single modification can be passed where a list is asked.
    EditModifications(const EditModification& m) { add(m); }
};
