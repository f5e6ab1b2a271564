// JSON documents of the host: Builder writes one, Element reads one, iPersistable is the
// interface of a record that stores itself as JSON (settings kept between sessions).
// Objects keep their members in the order they were added or written.
//
// Reading is defensive: a text that is not JSON, is truncated, nests deeper than
// kMaxDepth or is longer than kMaxTextBytes is refused with a reason; a member that is
// missing or of another type reads as the caller's default (a null string for texts).
// The JSON library behind this stays inside the host; this header does not need it.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace JSON {

inline constexpr size_t kMaxTextBytes = size_t(16) << 20;
inline constexpr int kMaxDepth = 256;

class Element;

// Builds a document from the top down. The first startChild (or startArray) opens the
// document's root; members inside an object need a name, elements of an array have none.
// Calls out of order (a member outside any object, endChild with no object open, a second
// root) are programming errors and throw Zn::Exception::RuntimeError.
class Builder {
public:
    Builder();
    ~Builder();
    Builder(const Builder&) = delete;
    Builder& operator=(const Builder&) = delete;

    void startChild(const char* name = nullptr);
    void endChild();
    void startArray(const char* name = nullptr);
    void endArray();

    // Text members: with writeEmpty false an empty (or null) text is left out, so that a
    // reader sees the member as absent; with writeEmpty true it is written as "".
    void add(const char* name, const WString& value, bool writeEmpty = false);
    void add(const char* name, const wchar_t* value, bool writeEmpty = false);
    void add(const char* name, const String& value, bool writeEmpty = false);
    void add(const char* name, const char* value, bool writeEmpty = false);
    void add(const char* name, int value);
    void add(const char* name, int64_t value);
    void add(const char* name, double value);
    void add(const char* name, bool value);

    // True once the root has been opened and closed again.
    bool complete() const noexcept;
    // The document as UTF-8 text: compact when indent < 0, else indented by that many
    // spaces per level. Throws Zn::Exception::RuntimeError when it is not complete.
    String text(int indent = -1) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// One value of a parsed document. Elements share their document, which lives as long as
// any of its elements; a document is never changed after parsing, so elements may be
// read from several threads at once.
class Element : public Zn::InternalRefCount {
public:
    enum eType { eNull, eBool, eNumber, eString, eArray, eObject };

    struct Document;
    Element(std::shared_ptr<const Document> doc, const void* node);
    ~Element() override;

    eType type() const noexcept;

    // Members of an object, by name. When this is not an object, the member is missing
    // or holds another type, the answer is the default: a null string (isNull()), the
    // given number or flag, a null pointer.
    bool has(const char* name) const;
    WString getWString(const char* name) const;
    String getString(const char* name) const;
    // Whole numbers that fit; anything else (fractions, out of range) is the default.
    int64_t getInt(const char* name, int64_t defaultValue = 0) const;
    // Finite numbers only.
    double getDouble(const char* name, double defaultValue = 0.0) const;
    bool getBool(const char* name, bool defaultValue = false) const;
    // An object or array member.
    Zn::Ptr<Element> getChild(const char* name) const;
    // Member names of an object in document order; empty for anything else.
    std::vector<String> names() const;

    // Elements of an array (members of an object, in order); 0 / null past the end or for
    // a plain value.
    size_t size() const noexcept;
    Zn::Ptr<Element> at(size_t index) const;

    // The element's own value, with the same defaults as the member getters.
    WString asWString() const;
    String asString() const;

    // This element written out again (compact when indent < 0).
    String text(int indent = -1) const;

private:
    std::shared_ptr<const Document> doc_;
    const void* node_;
};

// Parses a UTF-8 text. Null when it is refused; *error (when given) then says why, with
// the byte position for syntax errors.
Zn::Ptr<Element> parse(std::string_view text, String* error = nullptr);

// A record that stores itself as one JSON object.
class iPersistable {
public:
    virtual ~iPersistable() = default;
    // Writes the record as one object (startChild ... endChild) into the builder.
    virtual void write(Builder& builder) const = 0;
    // Takes its values from an element; false when the element does not hold a usable record.
    virtual bool read(const Zn::Ptr<Element>& element) = 0;
};

// Whole documents holding one record. The readers answer false with a reason in *error
// (when given) for a file that cannot be read, a text that is refused or a record that
// read() finds unusable. saveToFile writes a temporary file beside the target and renames
// it into place, so that a reader never sees half a file.
String toText(const iPersistable& record, int indent = 2);
bool fromText(iPersistable& record, std::string_view text, String* error = nullptr);
bool saveToFile(const iPersistable& record, const WString& path, String* error = nullptr);
bool loadFromFile(iPersistable& record, const WString& path, String* error = nullptr);

} // namespace JSON
