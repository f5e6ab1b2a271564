// Relocation between drives on a real project: the lines each form writes, copy and
// move, files already at the destination, linked media in a drive's folder, companion
// files, failed copies, Escape, the space check on a full volume and progress by bytes.
#include "playfile/RelocationProject.h"

#include "host/os/OS.h"
#include "host/os/PosixFileManager.h"
#include "playfile/material/LogicalMediaFile.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <sys/mount.h>

using namespace relocation_test;
namespace fs = std::filesystem;
using Lines = std::vector<std::wstring>;

namespace {

const std::wstring kBuilding = L"Building file list";

// The real file manager, with chosen copies of its batches failing and a hook after each
// copy.
struct FaultyCopies final : PosixFileManager {
    std::map<std::string, eCopyRC> failing; // by the destination's file name
    std::function<void()> afterCopy;
    int64_t freeBytes = -1;                 // replaces the free-space answer when set

    struct Batch final : iCopyBatch {
        Batch(FaultyCopies& owner, std::unique_ptr<iCopyBatch> real) : owner(owner), real(std::move(real)) {}
        eCopyRC add(const WString& src, const WString& dst, const ProgressFn& progress, bool overwrite) override {
            auto f = owner.failing.find(U(stripPath(dst)));
            if (f != owner.failing.end()) return f->second;
            eCopyRC rc = real->add(src, dst, progress, overwrite);
            if (owner.afterCopy) owner.afterCopy();
            return rc;
        }
        bool full() const override { return real->full(); }
        std::vector<Outcome> commit() override { return real->commit(); }
        FaultyCopies& owner;
        std::unique_ptr<iCopyBatch> real;
    };
    std::unique_ptr<iCopyBatch> newCopyBatch() override {
        return std::make_unique<Batch>(*this, PosixFileManager::newCopyBatch());
    }
    int64_t freeSpace(const WString& path) override {
        return freeBytes >= 0 ? freeBytes : PosixFileManager::freeSpace(path);
    }
};

// Every fraction of the whole that the relocation published.
struct ProgressRecorder final : LoggerBase {
    std::vector<double> seen;
    void writeLine(const WString&, int) override {}
    void showProgress(double fraction, uint64_t) override { seen.push_back(fraction); }
};

std::wstring sourceLine(int items, int shots) {
    return L"Source contains " + std::to_wstring(items) + L" item(s), referencing " + std::to_wstring(shots) +
           L" material file(s)";
}
std::wstring toProcess(int n) { return std::to_wstring(n) + L" file(s) to process"; }

} // namespace

using RelocationTasks = OnBothDatabases<RelocationProject>;
PLAYFILE_ON_BOTH_DATABASES(RelocationTasks);

TEST_P(RelocationTasks, ItemsFormCopiesOrMovesAndReportsExactly) {
    for (auto type : {MaterialMove::eCopy, MaterialMove::eMove}) {
        SCOPED_TRACE(int(type));
        freshLog();
        const std::string tag = std::to_string(int(type));
        Cookie a = clipOnA("a" + tag + ".mov", 3000, 'a'), b = clipOnA("b" + tag + ".mov", 5000, 'b');
        uint64_t notices = DiskManager::mediaOnlineChangeCount();
        relocate({a, b}, type);
        EXPECT_EQ(lines(), (Lines{kBuilding, sourceLine(2, 2), L"", toProcess(2), L"", text(12528)}));
        EXPECT_EQ(readFile(on(driveB, a)), readFile(sources / ("a" + tag + ".mov")));
        EXPECT_EQ(readFile(on(driveB, b)), readFile(sources / ("b" + tag + ".mov")));
        // A move re-points the directory; a copy leaves it naming drive A.
        const char expected = type == MaterialMove::eMove ? 'B' : 'A';
        EXPECT_EQ(driveOf(a), expected);
        EXPECT_EQ(driveOf(b), expected);
        EXPECT_EQ(DiskManager::mediaOnlineChangeCount(), notices + 1);
        EXPECT_EQ(log->getEntries().front().kind, iTaskLog::eKindHeading);
        EXPECT_EQ(log->getEntries().back().kind, iTaskLog::eKindHeading);
    }
}

TEST_P(RelocationTasks, ItemsFormCountsWhatItLeavesOut) {
    Cookie gone = clipOnA("gone.mov", 100), there = clipOnA("there.mov", 100);
    relocate({there}, MaterialMove::eMove);
    ASSERT_EQ(driveOf(there), 'B');
    fs::remove(osPath(gone));

    freshLog();
    relocate({gone, there}, MaterialMove::eMove);
    EXPECT_EQ(lines(), (Lines{kBuilding, sourceLine(2, 2), L"Skipping 1 unavailable material file(s)",
                              L"Ignoring 1 material file(s) which are already on the destination drive", text(10915)}));
    freshLog();
    relocate({}, MaterialMove::eCopy);
    EXPECT_EQ(lines(), (Lines{kBuilding, text(10915)}));
}

// The records of a drive's shots hold their files that lie elsewhere, such as a proxy on
// another drive; a drive whose shots have nothing elsewhere has nothing to relocate.
TEST_P(RelocationTasks, DriveToDriveTakesTheFilesOfTheDrivesShotsThatLieElsewhere) {
    clipOnA("plain.mov", 100);
    Cookie proxied = clipOnA("proxied.mov", 100);
    const fs::path proxy = driveC / "video" / "proxied.proxy.mov";
    makeFile(proxy, 700, 'p');
    ASSERT_EQ(SystemCache::addFile(video(proxied), W(proxy.string()), SystemCache::eAddProxy), 1);

    std::vector<LogicalMediaFile> files;
    getMaterialFilesOnDrive(DriveId('A'), files);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].cookie, video(proxied));
    ASSERT_EQ(files[0].files.size(), 1u);
    EXPECT_TRUE(files[0].files[0].isProxy());
    EXPECT_EQ(files[0].files[0].getFileSize(), 700u);

    MaterialMove::relocate(DriveId('A'), DriveId('B'), MaterialMove::eMove, logger);
    EXPECT_EQ(lines(), (Lines{kBuilding, L"", toProcess(1), L"", text(12528)}));
    EXPECT_EQ(readFile(driveB / "video" / "proxied.proxy.mov"), readFile(proxy));
    auto proxies = SystemCache::findEntryForCookie(video(proxied))->getProxyFiles();
    ASSERT_EQ(proxies.size(), 1u);
    EXPECT_EQ(proxies[0].getMaterialFilename().getDriveChar(), 'B');
    EXPECT_TRUE(proxies[0].isProxy());

    freshLog();
    MaterialMove::relocate(DriveId('C'), DriveId('B'), MaterialMove::eCopy, logger);
    EXPECT_EQ(lines(), (Lines{kBuilding, text(10915)}));
}

TEST_P(RelocationTasks, LogicalFilesHoldWhatMustTravelWithItsSize) {
    Cookie a = clipOnA("a.mov", 1234);
    const fs::path proxy = driveB / "video" / "a.proxy.mov";
    makeFile(proxy, 56, 'p');
    ASSERT_EQ(SystemCache::addFile(video(a), W(proxy.string()), SystemCache::eAddProxy), 1);

    LogicalMediaFile all = makeLogicalMediaFile(video(a), DriveId('C'));
    ASSERT_EQ(all.files.size(), 2u);
    EXPECT_EQ(all.files[0].getFileSize(), 1234u); // high-res first
    EXPECT_EQ(all.files[1].getFileSize(), 56u);
    EXPECT_EQ(all.totalSize(), 1290u);
    EXPECT_EQ(makeLogicalMediaFile(video(a), DriveId('B')).files.size(), 1u);

    fs::remove(proxy); // a missing file never enters a record
    std::vector<LogicalMediaFile> out;
    getMaterialFiles({video(a), video(a)}, out, DriveId('A'));
    EXPECT_TRUE(out.empty());
    getMaterialFiles({video(a)}, out, DriveId('B'));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].files.size(), 1u);
    EXPECT_TRUE(makeLogicalMediaFile(Cookie('V', 9, 9), DriveId('B')).files.empty());

    const std::string rel = U(fileOf(a).getMaterialFilename().getPath());
    EXPECT_EQ(ToolsGetfilesize(("A:" + rel).c_str()), 1234u);
    EXPECT_EQ(ToolsGetfilesize(source("plain.bin", 77).c_str()), 77u); // an ASCII path without a drive
    EXPECT_EQ(ToolsGetfilesize(("Q:" + rel).c_str()), 0u);
    EXPECT_EQ(ToolsGetfilesize(""), 0u);
    EXPECT_EQ(ToolsGetfilesize(nullptr), 0u);
}

TEST_P(RelocationTasks, AFileAlreadyAtTheDestinationIsNeitherOverwrittenNorRegistered) {
    Cookie a = clipOnA("a.mov", 1000), b = clipOnA("b.mov", 1000);
    makeFile(on(driveB, a), 10, 'z');
    relocate({a, b}, MaterialMove::eMove);
    EXPECT_EQ(readFile(on(driveB, a)).size(), 10u);
    EXPECT_EQ(driveOf(a), 'A');
    EXPECT_EQ(driveOf(b), 'B');
    EXPECT_EQ(lines().back(), text(12528));
}

// A clip's video and sound materials share one file: it is copied once, and a move points
// every one of them at the copy.
TEST_P(RelocationTasks, AMoveRepointsEveryMaterialSharingAFile) {
    ImportOptions o;
    o.copy = true;
    o.drive = DriveId('A');
    o.videoChannels = 1;
    o.audioChannels = 2;
    ImportResult r = ProjectImporter(o).importFile(W(source("shared.mov", 3000)));
    ASSERT_TRUE(r.ok) << U(r.error);
    const Cookie materials[] = {video(r.clip), sound(r.clip, 1), sound(r.clip, 2)};
    relocate({r.clip}, MaterialMove::eMove);
    EXPECT_EQ(lines(), (Lines{kBuilding, sourceLine(1, 3), L"", toProcess(3), L"", text(12528)}));
    EXPECT_EQ(readFile(on(driveB, r.clip)), readFile(sources / "shared.mov"));
    for (const Cookie& m : materials) {
        auto entry = SystemCache::findEntryForCookie(m);
        ASSERT_TRUE(entry && entry->hasFile()) << U(m.asWString());
        EXPECT_EQ(entry->getFile().getMaterialFilename().getDriveChar(), 'B') << U(m.asWString());
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(driveB / "video"), fs::directory_iterator()), 1);
}

// Media linked from a drive's folder moves to the same place on the destination, and the
// destination gets a link file naming it. A description beside it travels with it; a
// second media file of the same name, which the directory would manage, does not.
TEST_P(RelocationTasks, LinkedMediaInADrivesFolderMovesWithItsCompanions) {
    const fs::path media = driveC / "video" / "interview.mov";
    makeFile(media, 4000, 'i');
    writeFile(driveC / "video" / "interview.xml", "<clip/>");
    writeFile(driveC / "video" / "interview.wav", "RIFF");
    ImportOptions o;
    o.drive = DriveId('A');
    o.videoChannels = 1;
    o.audioChannels = 0;
    ImportResult r = ProjectImporter(o).importFile(W(media.string()));
    ASSERT_TRUE(r.ok) << U(r.error);
    ASSERT_TRUE(fileOf(r.clip).isLinked());

    relocate({r.clip}, MaterialMove::eMove);
    const fs::path moved = driveB / "video" / "interview.mov";
    EXPECT_EQ(readFile(moved), readFile(media));
    const fs::path link = on(driveB, r.clip);
    ASSERT_TRUE(fs::is_symlink(link)) << link;
    EXPECT_EQ(fs::read_symlink(link), moved);
    EXPECT_EQ(driveOf(r.clip), 'B');
    EXPECT_EQ(U(fileOf(r.clip).getLinkTarget()), moved.string());
    EXPECT_EQ(readFile(driveB / "video" / "interview.xml"), "<clip/>");
    EXPECT_FALSE(fs::exists(driveB / "video" / "interview.wav"));
}

// A file held on a drive is named after its material; its header sidecar travels with it.
TEST_P(RelocationTasks, AHeldFilesHeaderTravelsWithIt) {
    Cookie a = clipOnA("a.mov", 1000);
    writeFile(fs::path(osPath(a)).replace_extension(".hdr"), "header");
    relocate({a}, MaterialMove::eCopy);
    EXPECT_EQ(readFile(on(driveB, a).replace_extension(".hdr")), "header");
}

TEST_P(RelocationTasks, AFileThatFailsToCopyIsLoggedAndSkipped) {
    Cookie a = clipOnA("a.mov", 100), b = clipOnA("b.mov", 200), c = clipOnA("c.mov", 300);
    FaultyCopies files;
    files.failing = {{U(stripPath(W(osPath(a)))), iFileManager::eCopyFailed},
                     {U(stripPath(W(osPath(b)))), iFileManager::eCopyNoSpace}};
    ScopedFileManager use(&files);
    relocate({a, b, c}, MaterialMove::eMove);
    const std::wstring couldNot = substitute(resourceStrW(11995), WString(L"$FILE$"), W(on(driveB, a).string())).str();
    const std::wstring failed =
        text(11517) + L" (" + W(osPath(b)).str() + L" -> " + W(on(driveB, b).string()).str() + L")";
    EXPECT_EQ(lines(), (Lines{kBuilding, sourceLine(3, 3), L"", toProcess(3), L"", couldNot, failed, text(12528)}));
    auto entries = log->getEntries();
    EXPECT_EQ(entries[5].kind, iTaskLog::eKindNormal);
    EXPECT_EQ(entries[6].kind, iTaskLog::eKindError);
    EXPECT_EQ(driveOf(a), 'A');
    EXPECT_EQ(driveOf(b), 'A');
    EXPECT_EQ(driveOf(c), 'B');
}

TEST_P(RelocationTasks, EscapeStopsBetweenFilesAndTheClosingStepsStillRun) {
    Cookie a = clipOnA("a.mov", 100), b = clipOnA("b.mov", 200);
    FaultyCopies files;
    files.afterCopy = [] { g_esc_pressed = true; };
    ScopedFileManager use(&files);
    uint64_t notices = DiskManager::mediaOnlineChangeCount();
    int lifeSupport = SystemWatchdog::lifeSupportCount();
    relocate({a, b}, MaterialMove::eMove);
    EXPECT_EQ(driveOf(a), 'B');
    EXPECT_EQ(driveOf(b), 'A');
    EXPECT_FALSE(fs::exists(on(driveB, b)));
    EXPECT_EQ(lines().back(), text(12528));
    EXPECT_EQ(DiskManager::mediaOnlineChangeCount(), notices + 1);
    EXPECT_EQ(SystemWatchdog::lifeSupportCount(), lifeSupport);
}

TEST_P(RelocationTasks, ProgressFollowsBytes) {
    Cookie a = clipOnA("a.mov", 1 << 20), b = clipOnA("b.mov", 3 << 20);
    auto recorder = Zn::makePtr<ProgressRecorder>();
    CookieVec items;
    items.add(a);
    items.add(b);
    MaterialMove::relocate(DriveId('B'), items, MaterialMove::eCopy, LoggerHandle(Zn::Ptr<LoggerBase>(recorder)));
    ASSERT_FALSE(recorder->seen.empty());
    EXPECT_TRUE(std::is_sorted(recorder->seen.begin(), recorder->seen.end()));
    EXPECT_NE(std::find(recorder->seen.begin(), recorder->seen.end(), 0.25), recorder->seen.end())
        << "the first file is a quarter of the bytes";
    EXPECT_DOUBLE_EQ(recorder->seen.back(), 1.0);
}

// On a real 1 MiB volume where mounting is permitted, else with the free space replaced.
TEST_P(RelocationTasks, FreeSpaceEqualToTheTotalIsRefusedAndNothingIsCopied) {
    const fs::path small = tmp.path() / "small drive";
    fs::create_directories(small);
    const bool mounted = ::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=1m") == 0;
    FaultyCopies files;
    std::unique_ptr<ScopedFileManager> replaced;
    if (!mounted) {
        std::printf("[   NOTE   ] no tmpfs (%s): the free space comes from a replaced file manager\n",
                    std::strerror(errno));
        files.freeBytes = 1 << 20;
        replaced = std::make_unique<ScopedFileManager>(&files);
    }
    addDrive('D', small);
    Cookie exact = clipOnA("exact.mov", 1 << 20), less = clipOnA("less.mov", (1 << 20) - 1);
    relocate({exact}, MaterialMove::eCopy, 'D');
    EXPECT_EQ(lines(), (Lines{kBuilding, sourceLine(1, 1), L"", toProcess(1), L"",
                              L"Not enough space on the destination drive: 1.0 MB (1048576 bytes) free, "
                              L"1.0 MB (1048576 bytes) needed."}));
    EXPECT_TRUE(fs::is_empty(small / "video"));

    freshLog();
    relocate({less}, MaterialMove::eCopy, 'D');
    EXPECT_EQ(lines().back(), text(12528));
    EXPECT_EQ(readFile(on(small, less)), readFile(sources / "less.mov"));
    replaced.reset();
    if (mounted) ::umount2(small.c_str(), MNT_DETACH);
}
