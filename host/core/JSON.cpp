// JSON documents on nlohmann/json (ordered objects, so members keep their written order).
#include "host/core/JSON.h"

#include "host/core/Exception.h"
#include "host/core/Strings.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>
#include <string>

using Json = nlohmann::ordered_json;

struct JSON::Element::Document {
    Json root;
};

namespace {

[[noreturn]] void misuse(const char* what) {
    throw Zn::Exception::RuntimeError(String("JSON::Builder: ") + what, __FILE__, __LINE__);
}

std::string dumpText(const Json& j, int indent) {
    // Texts added from wide strings may hold code points that are not valid UTF-8 (lone
    // surrogates); they are written as U+FFFD instead of failing.
    return j.dump(indent < 0 ? -1 : indent, ' ', false, Json::error_handler_t::replace);
}

// Deepest nesting of arrays and objects in a text, counted outside strings, stopping as
// soon as the limit is passed.
int nestingDepth(std::string_view text, int limit) {
    int depth = 0, deepest = 0;
    bool inString = false, escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > deepest && (deepest = depth) > limit) break;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

// The library's own message after its "[json.exception...] " tag.
std::string withoutTag(const std::string& what) {
    size_t tag = what.find("] ");
    return tag == std::string::npos ? what : what.substr(tag + 2);
}

// UTF-8 of a wide text; code points UTF-8 cannot carry (surrogates, values past
// U+10FFFF) become U+FFFD, one for each.
std::string utf8Of(const WString& text) {
    std::wstring clean(text.view());
    for (auto& c : clean)
        if ((char32_t(c) >= 0xD800 && char32_t(c) <= 0xDFFF) || char32_t(c) > 0x10FFFF) c = wchar_t(0xFFFD);
    return std::string(toUTF8(WString(clean)).view());
}

const Json& node(const void* p) { return *static_cast<const Json*>(p); }

const Json* member(const void* p, const char* name) {
    const Json& j = node(p);
    if (!name || !j.is_object()) return nullptr;
    auto it = j.find(name);
    return it == j.end() ? nullptr : &*it;
}

String textOf(const Json* j) {
    if (!j || !j->is_string()) return String();
    const std::string& s = j->get_ref<const std::string&>();
    return String(std::string_view(s));
}

WString wideOf(const Json* j) {
    if (!j || !j->is_string()) return WString();
    const std::string& s = j->get_ref<const std::string&>();
    return fromUTF8(s.data(), int(s.size()));
}

} // namespace

// ---- Builder ----

struct JSON::Builder::Impl {
    struct Frame {
        std::string name;
        Json value;
    };
    std::vector<Frame> open;
    Json root;
    bool complete = false;

    void start(const char* name, Json value) {
        if (open.empty()) {
            if (complete) misuse("the document already has its root");
            if (name) misuse("the root cannot have a name");
        } else {
            checkPlace(name);
        }
        open.push_back({name ? name : "", std::move(value)});
    }

    void end(bool object) {
        if (open.empty() || open.back().value.is_object() != object)
            misuse(object ? "endChild without an open object" : "endArray without an open array");
        Frame done = std::move(open.back());
        open.pop_back();
        if (open.empty()) {
            root = std::move(done.value);
            complete = true;
        } else {
            put(done.name.c_str(), std::move(done.value));
        }
    }

    void checkPlace(const char* name) const {
        if (open.empty()) misuse("a value outside the document's root");
        bool inObject = open.back().value.is_object();
        if (inObject && !name) misuse("a member of an object without a name");
        if (!inObject && name) misuse("an element of an array with a name");
    }

    void put(const char* name, Json value) {
        Json& top = open.back().value;
        if (top.is_object()) top[name] = std::move(value);
        else top.push_back(std::move(value));
    }

    void add(const char* name, Json value) {
        checkPlace(name);
        put(name, std::move(value));
    }
};

JSON::Builder::Builder() : impl_(std::make_unique<Impl>()) {}
JSON::Builder::~Builder() = default;

void JSON::Builder::startChild(const char* name) { impl_->start(name, Json::object()); }
void JSON::Builder::endChild() { impl_->end(true); }
void JSON::Builder::startArray(const char* name) { impl_->start(name, Json::array()); }
void JSON::Builder::endArray() { impl_->end(false); }

void JSON::Builder::add(const char* name, const WString& value, bool writeEmpty) {
    if (!value.empty() || writeEmpty) impl_->add(name, utf8Of(value));
    else impl_->checkPlace(name);
}

void JSON::Builder::add(const char* name, const wchar_t* value, bool writeEmpty) {
    add(name, WString(value), writeEmpty);
}

void JSON::Builder::add(const char* name, const String& value, bool writeEmpty) {
    if (!value.empty() || writeEmpty) impl_->add(name, std::string(value.view()));
    else impl_->checkPlace(name);
}

void JSON::Builder::add(const char* name, const char* value, bool writeEmpty) {
    add(name, String(value), writeEmpty);
}

void JSON::Builder::add(const char* name, int value) { impl_->add(name, value); }
void JSON::Builder::add(const char* name, int64_t value) { impl_->add(name, value); }
void JSON::Builder::add(const char* name, bool value) { impl_->add(name, value); }

void JSON::Builder::add(const char* name, double value) {
    // JSON has no infinities or NaN: those are written as null.
    impl_->add(name, std::isfinite(value) ? Json(value) : Json());
}

bool JSON::Builder::complete() const noexcept { return impl_->complete; }

String JSON::Builder::text(int indent) const {
    if (!impl_->complete) misuse("text() before the root is closed");
    return String(dumpText(impl_->root, indent));
}

// ---- Element ----

JSON::Element::Element(std::shared_ptr<const Document> doc, const void* node) : doc_(std::move(doc)), node_(node) {}
JSON::Element::~Element() = default;

JSON::Element::eType JSON::Element::type() const noexcept {
    switch (node(node_).type()) {
    case Json::value_t::boolean: return eBool;
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float: return eNumber;
    case Json::value_t::string: return eString;
    case Json::value_t::array: return eArray;
    case Json::value_t::object: return eObject;
    default: return eNull;
    }
}

bool JSON::Element::has(const char* name) const { return member(node_, name) != nullptr; }
WString JSON::Element::getWString(const char* name) const { return wideOf(member(node_, name)); }
String JSON::Element::getString(const char* name) const { return textOf(member(node_, name)); }

int64_t JSON::Element::getInt(const char* name, int64_t defaultValue) const {
    const Json* j = member(node_, name);
    if (!j) return defaultValue;
    if (j->is_number_unsigned()) {
        uint64_t v = j->get<uint64_t>();
        return v <= uint64_t(std::numeric_limits<int64_t>::max()) ? int64_t(v) : defaultValue;
    }
    return j->is_number_integer() ? j->get<int64_t>() : defaultValue;
}

double JSON::Element::getDouble(const char* name, double defaultValue) const {
    const Json* j = member(node_, name);
    if (!j || !j->is_number()) return defaultValue;
    double v = j->get<double>();
    return std::isfinite(v) ? v : defaultValue;
}

bool JSON::Element::getBool(const char* name, bool defaultValue) const {
    const Json* j = member(node_, name);
    return j && j->is_boolean() ? j->get<bool>() : defaultValue;
}

Zn::Ptr<JSON::Element> JSON::Element::getChild(const char* name) const {
    const Json* j = member(node_, name);
    if (!j || !j->is_structured()) return nullptr;
    return Zn::Ptr<Element>(new Element(doc_, j));
}

std::vector<String> JSON::Element::names() const {
    std::vector<String> out;
    const Json& j = node(node_);
    if (j.is_object())
        for (auto it = j.begin(); it != j.end(); ++it) out.emplace_back(std::string_view(it.key()));
    return out;
}

size_t JSON::Element::size() const noexcept {
    const Json& j = node(node_);
    return j.is_structured() ? j.size() : 0;
}

Zn::Ptr<JSON::Element> JSON::Element::at(size_t index) const {
    const Json& j = node(node_);
    if (!j.is_structured() || index >= j.size()) return nullptr;
    auto it = j.begin();
    std::advance(it, std::ptrdiff_t(index));
    return Zn::Ptr<Element>(new Element(doc_, &*it));
}

WString JSON::Element::asWString() const { return wideOf(&node(node_)); }
String JSON::Element::asString() const { return textOf(&node(node_)); }
String JSON::Element::text(int indent) const { return String(dumpText(node(node_), indent)); }

// ---- parsing ----

Zn::Ptr<JSON::Element> JSON::parse(std::string_view text, String* error) {
    auto refuse = [error](std::string why) {
        if (error) *error = String(why);
        return Zn::Ptr<Element>();
    };
    if (text.size() > kMaxTextBytes)
        return refuse("JSON text of " + std::to_string(text.size()) + " bytes is longer than the limit of " +
                      std::to_string(kMaxTextBytes) + " bytes");
    if (nestingDepth(text, kMaxDepth) > kMaxDepth)
        return refuse("JSON text nests deeper than " + std::to_string(kMaxDepth) + " levels");
    auto doc = std::make_shared<Element::Document>();
    try {
        doc->root = Json::parse(text.begin(), text.end());
    } catch (const Json::parse_error& e) {
        return refuse("not valid JSON (byte " + std::to_string(e.byte) + "): " + withoutTag(e.what()));
    } catch (const std::exception& e) { // numbers out of range, memory
        return refuse("not valid JSON: " + withoutTag(e.what()));
    }
    const void* root = &doc->root;
    return Zn::Ptr<Element>(new Element(std::move(doc), root));
}
