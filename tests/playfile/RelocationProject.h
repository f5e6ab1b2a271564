// A project for the relocation tests: drive A (from the project fixture) holding clips
// copied onto it, drives B and C, and a logger whose task log the tests read back.
#pragma once

#include "host/ProjectFixture.h"
#include "host/os/Resources.h"
#include "host/tasks/Logger.h"
#include "host/tasks/SystemWatchdog.h"
#include "host/tasks/TaskLog.h"
#include "playfile/material/MaterialCopy.h"
#include "playfile/material/MaterialMove.h"

#include <string>
#include <vector>

namespace relocation_test {

using namespace project_test;
using testing_support::writeFile;

class RelocationProject : public ProjectTest {
protected:
    void SetUp() override {
        ProjectTest::SetUp();
        if (IsSkipped()) return;
        driveB = tmp.path() / "drive B";
        driveC = tmp.path() / "drive C";
        addDrive('B', driveB);
        addDrive('C', driveC);
        g_esc_pressed = false;
    }
    void TearDown() override {
        g_esc_pressed = false;
        ProjectTest::TearDown();
    }
    static void addDrive(char id, const std::filesystem::path& root) {
        WString error;
        ASSERT_TRUE(DiskManager::addDrive(DriveId(id), W(root.string()), WString(), "", &error)) << U(error);
    }

    // A clip whose one video material is a file of n bytes copied onto drive A; answers
    // the clip (the item a relocation is given).
    Cookie clipOnA(const std::string& name, size_t n, char seed = 'a') {
        ImportOptions o;
        o.copy = true;
        o.drive = DriveId('A');
        o.videoChannels = 1;
        o.audioChannels = 0;
        ImportResult r = ProjectImporter(o).importFile(W(source(name, n, seed)));
        EXPECT_TRUE(r.ok) << U(r.error);
        return r.clip;
    }
    static MediaFileInfo fileOf(const Cookie& clip) {
        auto entry = SystemCache::findEntryForCookie(video(clip));
        return entry ? entry->getFile() : MediaFileInfo();
    }
    static std::string osPath(const Cookie& clip) { return U(fileOf(clip).getOsPath()); }
    static char driveOf(const Cookie& clip) { return fileOf(clip).getMaterialFilename().getDriveChar(); }
    // Where the clip's file goes on another drive.
    static std::filesystem::path on(const std::filesystem::path& root, const Cookie& clip) {
        return root / U(fileOf(clip).getMaterialFilename().getPath());
    }

    void relocate(const std::vector<Cookie>& items, MaterialMove::eType type, char to = 'B') {
        CookieVec v;
        for (const auto& c : items) v.add(c);
        MaterialMove::relocate(DriveId(to), v, type, logger);
    }
    // Starts a new log for the next relocation.
    void freshLog() {
        log = Zn::makePtr<TaskLog>();
        logger = LoggerHandle(log);
    }
    std::vector<std::wstring> lines() const {
        std::vector<std::wstring> out;
        for (const auto& e : log->getEntries()) out.push_back(e.text.str());
        return out;
    }
    static std::wstring text(unsigned id) { return resourceStrW(id).str(); }

    std::filesystem::path driveB, driveC;
    Zn::Ptr<iTaskLog> log = Zn::makePtr<TaskLog>();
    LoggerHandle logger{log};
};

} // namespace relocation_test
