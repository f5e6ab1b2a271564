// Helpers shared by the file manager tests: wide paths, whole-file reads and writes, and
// a count of the process's open descriptors.
#pragma once

#include "host/core/Strings.h"

#include <dirent.h>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>

namespace file_test {

inline WString W(const std::string& utf8) {
    return fromUTF8(utf8.c_str(), int(utf8.size()));
}

inline void writeFile(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline int openDescriptorCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (d && readdir(d))
        ++n;
    if (d) closedir(d);
    return n;
}

} // namespace file_test

// Failed expectations show wide strings as text. Internal linkage: no clash with a
// printer another test file might define.
[[maybe_unused]] static void PrintTo(const WString& s, std::ostream* os) {
    *os << '"' << toUTF8(s).c_str() << '"';
}
