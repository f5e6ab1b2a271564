// GenericParam::iParam: the description of one option a back-end offers (a decode option
// such as a debayer method or a colour transform): its key in the option values (configb),
// a label for people, its default value, and the values it may take when they are a fixed
// list. DecodeOptionList is what a back-end publishes.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/Vector.h"

namespace GenericParam {

class iParam : public iObject {
public:
    // The key under which the option's value is stored.
    virtual String getKey() const = 0;
    virtual WString getLabel() const = 0;
    virtual String getDefaultValue() const = 0;
    // The values it may take, empty when it is free text or a number.
    virtual Vector<String> getChoices() const { return {}; }
};

} // namespace GenericParam

using DecodeOptionList = Vector<Zn::Ptr<GenericParam::iParam>>;
