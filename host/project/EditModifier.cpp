// The scope of a change to an edit.
#include "host/project/EditModifier.h"

EditModifier::EditModifier(const EditPtr& edit) : EditModifier(edit.get()) {}

EditModifier::EditModifier(Edit* edit) : edit_(edit) { open_ = edit_ && edit_->beginModify(); }

EditModifier::~EditModifier() {
    if (open_) commit();
}

bool EditModifier::commit() {
    if (!open_) return false;
    open_ = false;
    return edit_->endModify(&error_);
}
