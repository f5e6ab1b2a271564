// EditModifier: the scope of a change to an edit. While one is open the edit's setters
// work; when the last open modifier of the edit ends (commit() or its destruction) the
// whole edit, with the modifications announced meanwhile, is written in one
// transaction, and listeners hear of the modifications afterwards.
#pragma once

#include "host/project/Edit.h"

#include <string>

class EditModifier {
public:
    explicit EditModifier(const EditPtr& edit);
    explicit EditModifier(Edit* edit);
    // Commits unless commit() was called.
    ~EditModifier();
    EditModifier(const EditModifier&) = delete;
    EditModifier& operator=(const EditModifier&) = delete;

    // False when there is no edit or it was opened read-only: nothing can change.
    bool ok() const noexcept { return open_; }
    // Ends this modifier; true when the edit was written (or another modifier of it is
    // still open, which will write it).
    bool commit();
    // Why the last commit failed.
    const std::string& error() const noexcept { return error_; }

private:
    Zn::Ptr<Edit> edit_;
    bool open_ = false;
    std::string error_;
};
