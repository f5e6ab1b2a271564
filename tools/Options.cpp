#include "tools/Options.h"

namespace tool {

bool parseNumber(const std::string& text, uint64_t min, uint64_t max, uint64_t& out) {
    if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    const uint64_t v = std::stoull(text);
    if (v < min || v > max) return false;
    out = v;
    return true;
}

bool Options::parse(const std::string& command, const std::vector<std::string>& args,
                    std::initializer_list<OptionDef> known) {
    command_ = command;
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (optionsEnded || a.size() < 2 || a[0] != '-') {
            positional_.push_back(a);
            continue;
        }
        if (a == "--") {
            optionsEnded = true;
            continue;
        }
        const size_t equals = a.find('=');
        const std::string name = a.substr(0, equals);
        const OptionDef* def = nullptr;
        for (const OptionDef& s : known)
            if (name == s.name) def = &s;
        if (!def) return reject("unknown option '" + name + "' (see 'playfile " + command + " --help')");
        if (!def->takesValue) {
            if (equals != std::string::npos) return reject(name + " takes no value");
            values_[name] = "";
        } else if (equals != std::string::npos) {
            values_[name] = a.substr(equals + 1);
        } else if (i + 1 < args.size()) {
            values_[name] = args[++i];
        } else {
            return reject(name + " needs a value");
        }
    }
    return true;
}

std::string Options::value(const std::string& name, const std::string& fallback) const {
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

bool Options::number(const std::string& name, uint64_t min, uint64_t max, uint64_t fallback, uint64_t& out) {
    auto it = values_.find(name);
    if (it == values_.end()) {
        out = fallback;
        return true;
    }
    if (parseNumber(it->second, min, max, out)) return true;
    std::string range = "from " + std::to_string(min);
    if (max != UINT64_MAX && max < (uint64_t(1) << 53)) range += " to " + std::to_string(max);
    return reject(name + " needs a whole number " + range + ", not '" + it->second + "'");
}

bool Options::reject(const std::string& message) {
    error_ = command_ + ": " + message;
    return false;
}

} // namespace tool
