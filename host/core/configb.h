// configb: an ordered set of named option values (text), as back-ends publish their
// decode options and edits store the values a user chose.
#pragma once

#include "host/core/LightweightString.h"

#include <cstdint>
#include <map>
#include <vector>

class configb {
public:
    bool in(const String& key) const { return values_.count(key) != 0; }
    void set(const String& key, const String& value) { values_[key] = value; }
    void set(const String& key, int64_t value);
    void set(const String& key, double value);
    // The stored text, or the fallback when the key is absent.
    String get(const String& key, const String& fallback = String()) const;
    int64_t getInt(const String& key, int64_t fallback = 0) const;
    double getDouble(const String& key, double fallback = 0.0) const;
    bool erase(const String& key) { return values_.erase(key) != 0; }
    void clear() { values_.clear(); }
    size_t size() const { return values_.size(); }
    bool empty() const { return values_.empty(); }
    // Keys in order.
    std::vector<String> keys() const;
    auto begin() const { return values_.begin(); }
    auto end() const { return values_.end(); }

    // "key=value" lines in key order; parse accepts the same (later lines win).
    String toText() const;
    static configb fromText(const String& text);

    friend bool operator==(const configb& a, const configb& b) { return a.values_ == b.values_; }

private:
    std::map<String, String> values_;
};
