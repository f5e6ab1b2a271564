// Configuration store, logging and string resources.
#include "host/core/Strings.h"
#include "host/os/Config.h"
#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/os/Resources.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

TEST(Config, PrecedenceIsSetValueThenEnvironmentThenFileThenDefault) {
    testing_support::TempDir dir;
    std::string path = dir.file("playfile.conf");
    std::ofstream(path) << "# comment\n[cache]\nalpha = 11\nbeta=0x10 ; hex\nbad = 12abc\n";
    setenv("PLAYFILE_CONFIG", path.c_str(), 1);
    reloadConfig();

    EXPECT_EQ(config_int("alpha", 1), 11);
    EXPECT_EQ(config_int("beta", 1), 16);
    EXPECT_EQ(config_int("bad", 5), 5); // not a whole number: the default
    EXPECT_EQ(config_int("missing", 7), 7);

    setenv("PLAYFILE_alpha", "22", 1);
    EXPECT_EQ(config_int("alpha", 1), 22);
    setConfigValue("alpha", 33);
    EXPECT_EQ(config_int("alpha", 1), 33);
    clearConfigValue("alpha");
    unsetenv("PLAYFILE_alpha");
    EXPECT_EQ(config_int("alpha", 1), 11);

    unsetenv("PLAYFILE_CONFIG");
    reloadConfig();
}

TEST(Log, LinesReachSinksExactlyAndWideNamesPrintAsUtf8) {
    testing_support::TempDir dir;
    std::string path = dir.file("test.log");
    setenv("PLAYFILE_LOG", path.c_str(), 1);
    Logging::reopen();
    Logging::setConsole(false);
    {
        testing_support::LogCapture log;
        WString name(L"/m\xE9" L"dia/\x4E2D.mov");
        LogBoth("failed to open \"%ls\"\n", name.c_str());
        Log("%d of %d\n", 3, 4);
        std::string longText(2000, 'x');
        Log("%s\n", longText.c_str());
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[0], "failed to open \"/m\xC3\xA9" "dia/\xE4\xB8\xAD.mov\"\n");
        EXPECT_EQ(lines[1], "3 of 4\n");
        EXPECT_EQ(lines[2].size(), 2001u);
    }
    Logging::setConsole(true);
    unsetenv("PLAYFILE_LOG");
    Logging::reopen();
    EXPECT_EQ(testing_support::readFile(path).substr(0, 15), "failed to open ");
}

TEST(Resources, TextsByNumberAndPlaceholderSubstitution) {
    WString t = resourceStrW(11573);
    EXPECT_NE(t.find(std::wstring_view(L"$BYTES1$")), WString::npos);
    WString filled = substitute(substitute(t, L"$BYTES1$", L"1 MB"), L"$BYTES2$", L"2 MB");
    EXPECT_EQ(filled.find(std::wstring_view(L"$")), WString::npos);
    EXPECT_EQ(substitute(WString(L"$NUM$ and $NUM$"), L"$NUM$", L"3"), L"3 and 3");
    EXPECT_EQ(resourceStrW(1), L"<message 1>");
    // The padded form is for texts followed by more text: one space after, none when empty.
    EXPECT_EQ(paddedResourceStrW(11573), t + L' ');
}
