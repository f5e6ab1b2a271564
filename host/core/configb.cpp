#include "host/core/configb.h"

#include <cstdio>
#include <cstdlib>
#include <string>

void configb::set(const String& key, int64_t value) { values_[key] = String(std::to_string(value)); }

void configb::set(const String& key, double value) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", value);
    values_[key] = String(buf);
}

String configb::get(const String& key, const String& fallback) const {
    auto it = values_.find(key);
    return it == values_.end() ? fallback : it->second;
}

int64_t configb::getInt(const String& key, int64_t fallback) const {
    auto it = values_.find(key);
    if (it == values_.end()) return fallback;
    char* end = nullptr;
    long long v = std::strtoll(it->second.c_str(), &end, 0);
    return end == it->second.c_str() ? fallback : int64_t(v);
}

double configb::getDouble(const String& key, double fallback) const {
    auto it = values_.find(key);
    if (it == values_.end()) return fallback;
    char* end = nullptr;
    double v = std::strtod(it->second.c_str(), &end);
    return end == it->second.c_str() ? fallback : v;
}

std::vector<String> configb::keys() const {
    std::vector<String> out;
    out.reserve(values_.size());
    for (const auto& kv : values_) out.push_back(kv.first);
    return out;
}

String configb::toText() const {
    std::string out;
    for (const auto& [k, v] : values_) {
        out.append(k.view());
        out += '=';
        out.append(v.view());
        out += '\n';
    }
    return String(out);
}

configb configb::fromText(const String& text) {
    configb c;
    std::string_view rest = text.view();
    while (!rest.empty()) {
        size_t nl = rest.find('\n');
        std::string_view line = rest.substr(0, nl);
        rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
        size_t eq = line.find('=');
        if (eq == std::string_view::npos || eq == 0) continue;
        c.set(String(line.substr(0, eq)), String(line.substr(eq + 1)));
    }
    return c;
}
