// File-name rules: hostile names made safe (and created for real inside a folder), image
// sequence frame names, names written on another system.
#include "host/core/SafeFileNames.h"
#include "host/core/Strings.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

using Zn::FilespecUtils;
using testing_support::TempDir;

namespace {

std::wstring repeat(std::wstring_view s, int n) {
    std::wstring out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

size_t utf8Size(const WString& s) { return toUTF8(s).size(); }

} // namespace

TEST(FilespecUtils, HostileNamesBecomeOneSafeNameInsideTheFolder) {
    struct Case { std::wstring name; wchar_t replacement; std::wstring expected; };
    const Case cases[] = {
        {L"a/b", L'_', L"a_b"},
        {L"../../etc/passwd", L'_', L"_._.._etc_passwd"},
        {L"..", L'_', L"_"},
        {L".", L'_', L"_"},
        {L"", L'_', L"_"},
        {L"  \x3000 ", L'_', L"_"},
        {L"line\nbreak\r", L'_', L"line_break_"},
        {std::wstring(L"nul\0byte", 8), L'_', L"nul_byte"},
        {L"a\\b:c*d?e\"f<g>h|i\tj\x7Fk\x85l", L'_', L"a_b_c_d_e_f_g_h_i_j_k_l"},
        {L".hidden", L'_', L"_hidden"},
        {L"  name. . .", L'_', L"name"},
        {L"CON", L'_', L"CON_"},
        {L"nul.txt", L'_', L"nul_.txt"},
        {L"com1.mov", L'_', L"com1_.mov"},
        {L"CONSOLE", L'_', L"CONSOLE"},
        {L"\x202Evom.exe", L'_', L"_vom.exe"},
        {L"line\x2028sep\xFEFF", L'_', L"line_sep_"},
        {std::wstring(L"bad\xD800") + wchar_t(0x110000) + L"\xFFFE", L'_', L"bad___"},
        {L"Caf\xE9 \x4E2D\x6587 \x1F600.mov", L'_', L"Caf\xE9 \x4E2D\x6587 \x1F600.mov"},
        {L"a/b", L'-', L"a-b"},
        {L"a/b", L'/', L"a_b"},   // an unsafe replacement is not used
        {L"a/b", L'.', L"a_b"},
        {L"..", L'\n', L"_"},
        {repeat(L"x", 300) + L".mov", L'_', repeat(L"x", 251) + L".mov"},
        {repeat(L"\xE9", 200) + L".mov", L'_', repeat(L"\xE9", 125) + L".mov"},
        {repeat(L"\x1F600", 100), L'_', repeat(L"\x1F600", 63)},
        {L"a." + repeat(L"b", 300), L'_', L"a." + repeat(L"b", 253)}, // too long to be an extension
        {repeat(L"x", 254) + L"..", L'_', repeat(L"x", 254)},
    };
    TempDir dir;
    for (const Case& c : cases) {
        WString safe = FilespecUtils::makeSafeFilename(WString(c.name), c.replacement);
        EXPECT_EQ(safe.str(), c.expected) << toUTF8(WString(c.name)).c_str();
        EXPECT_TRUE(FilespecUtils::isSafeFilename(safe)) << toUTF8(safe).c_str();
        // The file system takes it, and the file lands directly in the folder.
        std::string path(toUTF8(joinPaths(fromUTF8(dir.path().c_str()), safe)).view());
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0644);
        EXPECT_GE(fd, 0) << path << ": " << std::strerror(errno);
        if (fd >= 0) ::close(fd);
        EXPECT_EQ(std::filesystem::path(path).parent_path(), dir.path());
        EXPECT_TRUE(std::filesystem::exists(dir.path() / std::string(toUTF8(safe).view())));
    }
}

TEST(FilespecUtils, RoomIsKeptForASuffix) {
    WString safe = FilespecUtils::makeSafeFilename(WString(repeat(L"\x4E2D", 100)), L'_', 10);
    EXPECT_EQ(utf8Size(safe), 243u); // 81 three-byte characters: the 82nd would pass 245
    EXPECT_LE(utf8Size(safe + L".proxy.mo"), FilespecUtils::kMaxNameBytes);
    EXPECT_EQ(FilespecUtils::makeSafeFilename(WString(L"x"), L'_', 1000), WString(L"x"));
    EXPECT_EQ(FilespecUtils::fitFilename(WString(L"short.mov"), 5), WString(L"s.mov"));
    EXPECT_EQ(FilespecUtils::fitFilename(WString(L"\x4E2D.mov"), 5), WString(L"\x4E2D.m")); // no room for the stem
    EXPECT_FALSE(FilespecUtils::isSafeFilename(WString(L"a/b")));
    EXPECT_FALSE(FilespecUtils::isSafeFilename(WString(L"..")));
}

TEST(FilespecUtils, SequenceFrameNamesCountFromTheFirstFrame) {
    struct Case { const wchar_t* src; int64_t n; const wchar_t* expected; };
    const Case cases[] = {
        {L"/s/shot_0098.dpx", 0, L"/s/shot_0098.dpx"},
        {L"/s/shot_0098.dpx", 3, L"/s/shot_0101.dpx"},
        {L"/s/f999.png", 1, L"/s/f1000.png"},
        {L"/s/take3_v01.0001.exr", 2, L"/s/take3_v01.0003.exr"},
        {L"/s/a99999999999999999999.tif", 1, L"/s/a100000000000000000000.tif"},
        {L"/s/0.tif", 10, L"/s/10.tif"},
        {L"/s/frame12", 1, L"/s/frame13"},
        {L"/s/.123", 1, L"/s/.124"},
        {L"/v2/img.png", 0, L"/v2/img.png"},
        {L"/v2/img.png", 1, L""},
        {L"/s/shot_0001.dpx", -1, L""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(FilespecUtils::getSEQFileName(WString(c.src), c.n), WString(c.expected)) << toUTF8(c.src).c_str()
                                                                                           << " " << c.n;

    // Counting real frames up to the first missing one, as a copy of a sequence does.
    TempDir dir;
    for (int i = 7; i <= 11; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "frame_%04d.png", i);
        testing_support::writeFile(dir.path() / name, "x");
    }
    WString first = fromUTF8(dir.file("frame_0007.png").c_str());
    int64_t frames = 0;
    while (std::filesystem::exists(std::string(toUTF8(FilespecUtils::getSEQFileName(first, frames)).view()))) ++frames;
    EXPECT_EQ(frames, 5);
}

TEST(FilespecUtils, ForeignNamesBecomeLocalPaths) {
    struct Case { const wchar_t* name; const wchar_t* expected; };
    const Case cases[] = {
        {L"C:\\Media\\clip.mov", L"C:/Media/clip.mov"},
        {L"\\\\server\\share\\x", L"/server/share/x"},
        {L"/a//b/./c/", L"/a/b/c"},
        {L"relative\\dir\\", L"relative/dir"},
        {L"file:///home/u/My%20Clips/%C3%A9%zz", L"/home/u/My Clips/\xE9%zz"},
        {L"FILE://localhost/tmp/x", L"/tmp/x"},
        {L"file://otherhost/x", L"file://otherhost/x"},
        {L"/a%20b", L"/a%20b"},
        {L"/", L"/"},
        {L"./", L"."},
        {L"", L""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(fixForeignOSFileName(WString(c.name)), WString(c.expected)) << toUTF8(c.name).c_str();
}
