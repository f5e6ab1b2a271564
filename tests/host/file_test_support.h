// Helpers shared by the file manager tests: wide paths, whole-file reads and writes, a
// count of the process's open descriptors, and a manager with a temporary folder.
#pragma once

#include "host/core/Strings.h"
#include "host/os/PosixFileManager.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <ostream>
#include <string>

namespace file_test {

inline WString W(const std::string& utf8) {
    return fromUTF8(utf8.c_str(), int(utf8.size()));
}

using testing_support::readFile;
using testing_support::writeFile;

inline int openDescriptorCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (d && readdir(d))
        ++n;
    if (d) closedir(d);
    return n;
}

class PosixFiles : public ::testing::Test {
protected:
    testing_support::TempDir tmp;
    PosixFileManager fm;
};

} // namespace file_test

// Failed expectations show wide strings as text. Internal linkage: no clash with a
// printer another test file might define.
[[maybe_unused]] static void PrintTo(const WString& s, std::ostream* os) {
    *os << '"' << toUTF8(s).c_str() << '"';
}
