// Fuzz target for the JSON reader: any text is parsed or refused with a reason, never a
// crash; what parses can be walked with every getter, written out and parsed again, and a
// download task's settings read from it round-trip through the builder.
#include "host/core/JSON.h"
#include "playfile/tasks/ExternalDownloadTask.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

using Record = ExternalDownloadTask::Settings;

void walk(const Zn::Ptr<JSON::Element>& e, int depth) {
    if (depth > JSON::kMaxDepth + 1) std::abort();
    for (const String& name : e->names()) {
        e->getWString(name.c_str());
        e->getInt(name.c_str(), 0);
        e->getDouble(name.c_str(), 0.0);
        e->getBool(name.c_str(), false);
    }
    e->asWString();
    for (size_t i = 0; i < e->size(); ++i)
        if (Zn::Ptr<JSON::Element> child = e->at(i)) walk(child, depth + 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    String why;
    Zn::Ptr<JSON::Element> root = JSON::parse(text, &why);
    if (!root) {
        if (why.empty()) std::abort(); // a refusal always says why
        return 0;
    }
    walk(root, 0);
    if (!JSON::parse(root->text().view())) std::abort(); // what was written parses again

    Record r;
    if (r.read(root)) {
        Record back;
        if (!JSON::fromText(back, JSON::toText(r).view())) std::abort();
        if (!(back.location == r.location) || !(back.proxyExt == r.proxyExt) || back.naming != r.naming) std::abort();
        if ((r.naming == Record::eNameByClip) != (root->getString("Naming").view() == "clip")) std::abort();
    }
    return 0;
}
