// UTF-8 conversion, the shared string body and the path helpers.
#include "host/core/Strings.h"

#include <gtest/gtest.h>

TEST(LightweightString, NullDiffersFromEmptyAndCopiesAreUnaffectedByConcatenation) {
    WString absent;
    EXPECT_TRUE(absent.isNull());
    EXPECT_FALSE(WString(L"").isNull());
    EXPECT_EQ(absent, WString(L""));
    EXPECT_STREQ(absent.c_str(), L"");

    String a("media");
    String b = a;
    String c = a + "/file.mov";
    EXPECT_EQ(c, "media/file.mov");
    EXPECT_EQ(a, "media");
    EXPECT_EQ(b, "media");
    EXPECT_LT(String("abc"), String("abd"));
    EXPECT_EQ(c.substr(6), "file.mov");
    EXPECT_EQ(c.substr(99), "");
}

TEST(Utf8, RoundTripsEveryPlaneAndReplacesInvalidSequences) {
    const wchar_t text[] = {L'a', 0xE9, 0x4E2D, 0x1F3AC, 0};
    String utf8 = toUTF8(WString(text));
    EXPECT_EQ(utf8, "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x8E\xAC");
    EXPECT_EQ(fromUTF8(utf8), WString(text));

    EXPECT_EQ(fromUTF8("a\xFF" "b"), WString(L"a\xFFFD" L"b"));
    EXPECT_EQ(fromUTF8("a\xE4\xB8"), WString(L"a\xFFFD\xFFFD"));
    EXPECT_EQ(fromUTF8("\xC0\xAF"), WString(L"\xFFFD\xFFFD")); // overlong '/'
    EXPECT_EQ(fromUTF8("\xED\xA0\x80").size(), 3u);             // surrogate
    EXPECT_EQ(fromUTF8("abc", 2), WString(L"ab"));
}

TEST(Paths, SplitAndJoin) {
    WString p(L"/media/drive 1/clip.v01.mov");
    EXPECT_EQ(stripPath(p), L"clip.v01.mov");
    EXPECT_EQ(stripPathAndExt(p), L"clip.v01");
    EXPECT_EQ(stripExtension(p), L"/media/drive 1/clip.v01");
    EXPECT_EQ(getPath(p), L"/media/drive 1/");
    EXPECT_EQ(getExtension(p), L"mov");

    EXPECT_EQ(getExtension(WString(L"/a.b/noext")), L"");
    EXPECT_EQ(stripExtension(WString(L"/a.b/noext")), L"/a.b/noext");
    EXPECT_EQ(getExtension(WString(L"/a/.hidden")), L"");
    EXPECT_EQ(getPath(WString(L"plain")), L"");

    EXPECT_EQ(joinPaths(WString(L"/a"), WString(L"b")), L"/a/b");
    EXPECT_EQ(joinPaths(WString(L"/a/"), WString(L"/b")), L"/a/b");
    EXPECT_EQ(joinPaths(WString(L""), WString(L"b")), L"b");
    EXPECT_EQ(joinPaths(String("/a/"), String("b")), "/a/b");
}
