// Cookies, the host vector, option sets and identity stamps.
#include "host/core/Cookie.h"
#include "host/core/IdStamp.h"
#include "host/core/Strings.h"
#include "host/core/configb.h"
#include "support/LogCapture.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

TEST(Cookie, TextIsSafeInFileNamesAndParsesBackFromMaterialNames) {
    for (Cookie c : {Cookie('V', 0x1e240, 7, 0), Cookie('S', 0xffffffff, 0xffffffff, 255),
                     Cookie('E', 0, Cookie::kFillerWord, Cookie::kNoIndex), Cookie('I', 0x1234abcd, 42, 23)}) {
        String text = c.asString();
        EXPECT_EQ(text.size(), 21u);
        EXPECT_EQ(Cookie(c.asWString(), false), c);
        for (char ch : text) EXPECT_TRUE(isalnum((unsigned char)ch) || ch == '_') << text.c_str();
        // A material or proxy file name made from it parses back after the path helpers strip it.
        WString file = joinPaths(WString(L"/media/drive 1"), c.asWString() + L".proxy.mov");
        EXPECT_EQ(Cookie(stripPathAndExt(stripExtension(file)), false), c);
    }
    EXPECT_EQ(Cookie('V', 0x1e240, 7, 0).asString(), "V0001e240_00000007_00");
}

TEST(Cookie, MalformedTextGivesAnInvalidCookieAndOptionallyALogLine) {
    testing_support::LogCapture log;
    for (const char* bad : {"", "V", "V0001e240_00000007", "V0001e240-00000007_00", "1000000000_00000000_00",
                            "V0001e24g_00000007_00", "V0001e240_00000007_000"}) {
        EXPECT_FALSE(Cookie(String(bad), false).valid()) << bad;
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(Cookie(String("junk"), true).valid());
    EXPECT_EQ(log.count("Cookie: cannot parse \"junk\"\n"), 1u);
}

TEST(Cookie, ConvertKeepsTheItemAndFillerAndOrderUseTheRightIds) {
    Cookie audio = convertCookie(Cookie('E', 12, 34), 'S', 2);
    EXPECT_EQ(audio, Cookie('S', 12, 34, 2));
    EXPECT_TRUE(audio.sameItem(Cookie('E', 12, 34)));
    EXPECT_TRUE(Cookie('V', 1, 647).isFiller());
    EXPECT_FALSE(Cookie('V', 647, 1).isFiller());
    EXPECT_EQ(Cookie('V', 1, 2).compare(Cookie('V', 1, 3)), -1);
    EXPECT_EQ(Cookie('V', 2, 0).compare(Cookie('V', 1, 3)), 1);
}

TEST(Vector, EditsAtTheEdgesAndInternFindsBeforeAdding) {
    Vector<int> v{5, 7};
    v.insert(6, 1);
    v.insert(9, 100); // past the end appends
    EXPECT_EQ(v.locate(8), -1);
    EXPECT_EQ(v.intern(7), 2u);
    EXPECT_EQ(v.intern(8), 4u);
    EXPECT_TRUE(v.remove(6));
    EXPECT_FALSE(v.remove(6));
    v.removeIdx(0);
    v.removeIdx(99); // out of range is ignored
    Vector<int> other{1, 2};
    v.consume(other);
    EXPECT_TRUE(other.empty());
    EXPECT_EQ(v, (Vector<int>{7, 9, 8, 1, 2}));
    // removeItem takes the first equal element only, and says whether there was one.
    v.add(9);
    EXPECT_TRUE(v.removeItem(9));
    EXPECT_FALSE(v.removeItem(3));
    EXPECT_EQ(v, (Vector<int>{7, 8, 1, 2, 9}));
}

TEST(configb, KeysInOrderTypedValuesAndTextRoundTrip) {
    configb c;
    c.set("zeta", int64_t(-3));
    c.set("alpha", String("x=y"));
    c.set("mid", 0.25);
    EXPECT_EQ(c.keys(), (std::vector<String>{"alpha", "mid", "zeta"}));
    EXPECT_EQ(c.getInt("zeta"), -3);
    EXPECT_EQ(c.getInt("alpha", 42), 42); // not a number
    EXPECT_DOUBLE_EQ(c.getDouble("mid"), 0.25);
    EXPECT_EQ(configb::fromText(c.toText()), c);
}

TEST(IdStamp, FreshStampsAreUniqueAcrossThreads) {
    std::vector<std::vector<uint64_t>> made(4);
    testing_support::inThreads(4, [&](int t) {
        for (int i = 0; i < 10000; ++i) made[size_t(t)].push_back(IdStamp::make().value());
    });
    std::set<uint64_t> all;
    for (auto& out : made) all.insert(out.begin(), out.end());
    EXPECT_EQ(all.size(), 40000u);
    EXPECT_FALSE(all.count(0));
    EXPECT_FALSE(IdStamp().valid());
}
