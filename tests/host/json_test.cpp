// JSON documents: a persistable record's round trip through text and files, the builder's
// contract, and hostile texts and values refused or read as defaults.
#include "host/core/Exception.h"
#include "host/core/JSON.h"
#include "host/core/Strings.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

using testing_support::TempDir;

namespace {

// A record shaped like the download settings: two texts and a naming word.
struct Settings : JSON::iPersistable {
    WString location, proxyExt;
    int naming = 1;

    void write(JSON::Builder& b) const override {
        b.startChild();
        b.add("Location", location, true);
        b.add("ProxyExt", proxyExt, true);
        b.add("Naming", naming == 0 ? "clip" : "file", true);
        b.endChild();
    }
    bool read(const Zn::Ptr<JSON::Element>& e) override {
        location = e->getWString("Location");
        proxyExt = e->getWString("ProxyExt");
        naming = e->getString("Naming") == "clip" ? 0 : 1;
        return !location.empty() && !proxyExt.empty();
    }
};

String refusal(std::string_view text) {
    String why;
    EXPECT_FALSE(JSON::parse(text, &why)) << text.substr(0, 40);
    return why;
}

} // namespace

TEST(Json, RecordRoundTripsInWrittenOrderThroughTextAndFile) {
    Settings s;
    s.location = WString(L"/media/d\xE9p\xF4t \"x\"\n\x1F600");
    s.proxyExt = WString(L"mov");
    s.naming = 0;
    String text = JSON::toText(s, -1);
    EXPECT_EQ(text, String("{\"Location\":\"/media/d\xC3\xA9p\xC3\xB4t \\\"x\\\"\\n\xF0\x9F\x98\x80\","
                           "\"ProxyExt\":\"mov\",\"Naming\":\"clip\"}"));
    Settings back;
    ASSERT_TRUE(JSON::fromText(back, text.view()));
    EXPECT_EQ(back.location, s.location);
    EXPECT_EQ(back.proxyExt, s.proxyExt);
    EXPECT_EQ(back.naming, 0);

    TempDir dir;
    WString path = fromUTF8(dir.file("settings \xC3\xA9.json").c_str());
    String why;
    ASSERT_TRUE(JSON::saveToFile(s, path, &why)) << why.c_str();
    Settings loaded;
    ASSERT_TRUE(JSON::loadFromFile(loaded, path, &why)) << why.c_str();
    EXPECT_EQ(loaded.location, s.location);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1); // no temporary left
}

TEST(Json, FileFailuresAndUnusableRecordsSayWhy) {
    TempDir dir;
    Settings s;
    String why;
    EXPECT_FALSE(JSON::loadFromFile(s, fromUTF8(dir.file("missing.json").c_str()), &why));
    EXPECT_NE(why.view().find("cannot open"), std::string_view::npos) << why.c_str();
    EXPECT_FALSE(JSON::loadFromFile(s, fromUTF8(dir.path().c_str()), &why));
    EXPECT_NE(why.view().find("not a regular file"), std::string_view::npos) << why.c_str();
    EXPECT_FALSE(JSON::saveToFile(s, fromUTF8(dir.file("no/such/folder.json").c_str()), &why));
    EXPECT_NE(why.view().find("cannot create"), std::string_view::npos) << why.c_str();

    // Parsed but unusable: an empty proxy extension, or no object at all.
    EXPECT_FALSE(JSON::fromText(s, R"({"Location":"/x","ProxyExt":"","Naming":"clip"})", &why));
    EXPECT_EQ(why, String("the JSON document does not hold usable values"));
    EXPECT_FALSE(JSON::fromText(s, "[1,2]", &why));
    // "Clip" is not "clip".
    ASSERT_TRUE(JSON::fromText(s, R"({"Location":"/x","ProxyExt":"m","Naming":"Clip"})"));
    EXPECT_EQ(s.naming, 1);
}

TEST(Json, BuilderWritesArraysNumbersAndLeavesOutEmptyTextsOnRequest) {
    JSON::Builder b;
    b.startChild();
    b.add("empty", WString(), false);
    b.add("kept", L"", true);
    b.add("n", 42);
    b.add("big", int64_t(1) << 40);
    b.add("half", 0.5);
    b.add("inf", 1.0 / 0.0);
    b.add("yes", true);
    b.startArray("list");
    b.add(nullptr, "a");
    b.startChild();
    b.add("z", WString(std::wstring(1, wchar_t(0xD800)))); // a lone surrogate
    b.endChild();
    b.endArray();
    b.endChild();
    ASSERT_TRUE(b.complete());
    EXPECT_EQ(b.text(), String("{\"kept\":\"\",\"n\":42,\"big\":1099511627776,\"half\":0.5,\"inf\":null,\"yes\":true,"
                               "\"list\":[\"a\",{\"z\":\"\xEF\xBF\xBD\"}]}"));
    Zn::Ptr<JSON::Element> list = JSON::parse(b.text().view())->getChild("list");
    ASSERT_TRUE(list);
    EXPECT_EQ(list->size(), 2u);
    EXPECT_EQ(list->at(0)->asString(), String("a"));
    EXPECT_EQ(list->at(1)->getWString("z"), WString(L"\xFFFD"));
    EXPECT_FALSE(list->at(2));
}

TEST(Json, BuilderCallsOutOfOrderAreProgrammingErrors) {
    using Step = std::function<void(JSON::Builder&)>;
    struct Case { Step before, misuse; };
    Step none = [](JSON::Builder&) {};
    Step object = [](JSON::Builder& b) { b.startChild(); };
    const Case cases[] = {
        {none, [](JSON::Builder& b) { b.endChild(); }},
        {none, [](JSON::Builder& b) { b.add("a", 1); }},
        {none, [](JSON::Builder& b) { b.startChild("named root"); }},
        {object, [](JSON::Builder& b) { b.add(nullptr, 1); }},
        {object, [](JSON::Builder& b) { b.endArray(); }},
        {object, [](JSON::Builder& b) { b.text(); }},
        {[](JSON::Builder& b) { b.startArray(); }, [](JSON::Builder& b) { b.add("a", 1); }},
        {[](JSON::Builder& b) { b.startChild(); b.endChild(); }, [](JSON::Builder& b) { b.startChild(); }},
    };
    for (const Case& c : cases) {
        JSON::Builder b;
        c.before(b);
        EXPECT_THROW(c.misuse(b), Zn::Exception::RuntimeError);
    }
}

TEST(Json, HostileTextsAreRefusedWithAReason) {
    struct Case { std::string text; const char* reason; };
    const Case cases[] = {
        {"", "not valid JSON (byte 1)"},
        {"{", "not valid JSON"},
        {"{\"Location\":\"/a", "not valid JSON"},
        {"[1,2", "not valid JSON"},
        {"{} trailing", "not valid JSON"},
        {"nul", "not valid JSON"},
        {"{\"a\":\"\xFF\"}", "not valid JSON"},          // not UTF-8
        {"{\"a\":\"\\uD800\"}", "not valid JSON"},       // lone surrogate escape
        {"{'a':1}", "not valid JSON"},
        {"{\"f\":1e400}", "number overflow"},
        {std::string("{\"a\":\"x\0y\"}", 11), "not valid JSON"}, // raw control character
        {std::string(300, '[') + std::string(300, ']'), "nests deeper than 256 levels"},
        {std::string(JSON::kMaxTextBytes + 1, ' '), "longer than the limit"},
    };
    for (const Case& c : cases) {
        String why = refusal(c.text);
        EXPECT_NE(why.view().find(c.reason), std::string_view::npos) << c.text.substr(0, 40) << " -> " << why.c_str();
    }
    // Brackets inside strings do not count as nesting; 256 levels are accepted.
    EXPECT_TRUE(JSON::parse("{\"a\":\"" + std::string(1000, '[') + "\"}"));
    EXPECT_TRUE(JSON::parse(std::string(256, '[') + std::string(256, ']')));
}

TEST(Json, WrongTypesAndOutOfRangeNumbersReadAsDefaults) {
    Zn::Ptr<JSON::Element> e = JSON::parse(R"({"Location":5,"ProxyExt":["x"],"Naming":null,"frac":1.5,
        "huge":99999999999999999999999,"u64":18446744073709551615,"min":-9223372036854775808,
        "tiny":1e-400,"flag":"true","obj":{"k":"v"}})");
    ASSERT_TRUE(e);
    EXPECT_TRUE(e->getWString("Location").isNull());
    EXPECT_TRUE(e->getWString("ProxyExt").isNull());
    EXPECT_TRUE(e->getString("Naming").isNull());
    EXPECT_TRUE(e->has("Naming"));
    EXPECT_FALSE(e->has("absent"));
    EXPECT_EQ(e->getInt("frac", -1), -1);
    EXPECT_EQ(e->getInt("huge", -1), -1);
    EXPECT_EQ(e->getInt("u64", -1), -1);
    EXPECT_EQ(e->getInt("min", 0), INT64_MIN);
    EXPECT_EQ(e->getInt("Location", 0), 5);
    EXPECT_EQ(e->getDouble("tiny", -1.0), 0.0);
    EXPECT_EQ(e->getDouble("frac"), 1.5);
    EXPECT_EQ(e->getBool("flag", false), false);
    EXPECT_FALSE(e->getChild("Location"));
    EXPECT_EQ(e->names().size(), 10u);

    // A child outlives every other reference to its document.
    Zn::Ptr<JSON::Element> child = e->getChild("obj");
    e = nullptr;
    ASSERT_TRUE(child);
    EXPECT_EQ(child->getString("k"), String("v"));
    EXPECT_EQ(child->text(), String("{\"k\":\"v\"}"));
    // Getters on a plain value or an array answer defaults.
    Zn::Ptr<JSON::Element> plain = JSON::parse("\"text\"");
    EXPECT_TRUE(plain->getWString("k").isNull());
    EXPECT_EQ(plain->asWString(), WString(L"text"));
    EXPECT_EQ(plain->size(), 0u);
}
