// Loading the back-ends as plug-ins: the folder beside the host library, the order they
// register in whatever order the folder lists them, and libraries that are not back-ends.
#include "host/media/BackendPlugins.h"
#include "host/media/FileReaderInfo.h"
#include "host/media/FileWriterInfo.h"
#include "host/media/FileXferManager.h"
#include "host/media/PluginResources.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

TEST(BackendPlugins, TheBuildsPluginFolderLoadsY4mWavFfmpegAndTheTransferPluginInThatOrder) {
    ::unsetenv("PLAYFILE_BACKEND_PATH");
    const std::vector<std::string> folders = Zn::BackendPlugins::pluginFolders();
    ASSERT_EQ(folders.size(), 1u);
    EXPECT_EQ(folders[0], std::string(PLAYFILE_BUILD_DIR) + "/lib/playfile/backends");

    Zn::BackendPlugins::loadAll();
    EXPECT_EQ(Zn::BackendPlugins::loadedNames(),
              (std::vector<std::string>{"Y4M", "WAV", "FFmpeg", "FFmpeg transfer"}));
    // The transfer plug-in's manager is the host's one plug-in resource of type 32.
    const auto managers = Zn::findPluginResources<iFileXferManager>(Zn::kFileXferPluginResource);
    ASSERT_EQ(managers.size(), 1u);
    EXPECT_EQ(managers[0]->getName(), WString(L"FFmpeg transfer"));
    // A second load finds nothing new.
    EXPECT_EQ(Zn::BackendPlugins::loadAll(), 0u);

    std::vector<std::string> readers;
    for (const auto& r : Zn::FileReaderInfo::getAll()) readers.push_back(r->name().c_str());
    auto at = [&](const char* name) { return std::find(readers.begin(), readers.end(), name) - readers.begin(); };
    EXPECT_LT(at("Y4M"), at("WAV"));
    EXPECT_LT(at("WAV"), at("FFmpeg"));
    EXPECT_EQ(std::count(readers.begin(), readers.end(), "FFmpeg"), 1);
    std::vector<std::string> writers;
    for (const auto& w : Zn::FileWriterInfo::getAll()) writers.push_back(w->name().c_str());
    EXPECT_EQ(writers, (std::vector<std::string>{"Y4M", "WAV", "FFmpeg"}));
}

TEST(BackendPlugins, LibrariesThatAreNotBackEndsAreLoggedAndSkipped) {
    testing_support::TempDir dir;
    std::ofstream(dir.file("libplayfile-backend-broken.so")) << "not a library";
    std::ofstream(dir.file("unrelated.so")) << "never looked at";
    ::setenv("PLAYFILE_BACKEND_PATH", (dir.path().string() + ":/nonexistent").c_str(), 1);
    testing_support::LogCapture log;
    EXPECT_EQ(Zn::BackendPlugins::loadAll(), 0u);
    ::unsetenv("PLAYFILE_BACKEND_PATH");
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("Cannot load back-end \"" + dir.file("libplayfile-backend-broken.so") + "\": "));
}
