// The command line of one command: options ("--name value", "--name=value" or a flag) and
// the positional arguments between them, with the one-line usage errors that every command
// gives for a bad argument ("frames: --count needs a whole number from 1").
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace tool {

struct OptionDef {
    const char* name; // with its dashes: "--count"
    bool takesValue;
};

class Options {
public:
    // Parses args against the options the command knows; false with error() set when an
    // option is unknown or lacks its value. "--" ends the options.
    bool parse(const std::string& command, const std::vector<std::string>& args,
               std::initializer_list<OptionDef> known);

    bool has(const std::string& name) const { return values_.count(name) != 0; }
    // The option's value (the last one given), or fallback when absent.
    std::string value(const std::string& name, const std::string& fallback = "") const;
    // A whole number within [min, max] from the option, or fallback when absent. False
    // with error() set when the value is not such a number.
    bool number(const std::string& name, uint64_t min, uint64_t max, uint64_t fallback, uint64_t& out);

    const std::vector<std::string>& positional() const { return positional_; }
    const std::string& error() const { return error_; }
    // Sets error() to "<command>: <message>" and answers false, for checks of the caller's.
    bool reject(const std::string& message);

private:
    std::string command_;
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
    std::string error_;
};

// A whole decimal number within [min, max]; false for anything else (signs, blanks,
// overflow included).
bool parseNumber(const std::string& text, uint64_t min, uint64_t max, uint64_t& out);

} // namespace tool
