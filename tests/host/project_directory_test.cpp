// The material directory, drives and importing: what the library reads about a clip's
// files, and how those records follow changes on disk.
#include "ProjectFixture.h"

#include "host/project/MaterialInfo.h"
#include "host/project/MaterialLink.h"
#include "host/project/ProjectFiles.h"
#include "host/project/ProjectImporter.h"

using namespace project_test;
namespace fs = std::filesystem;

namespace {

Cookie importOne(const std::string& path, bool copy = false) {
    ImportOptions o;
    o.copy = copy;
    ImportResult r = ProjectImporter(o).importFile(W(path));
    EXPECT_TRUE(r.ok) << U(r.error);
    return r.clip;
}

} // namespace

using ProjectDirectory = OnBothDatabases<ProjectTest>;
PLAYFILE_ON_BOTH_DATABASES(ProjectDirectory);

TEST_P(ProjectDirectory, LinkedImportReferencesTheFileInPlaceThroughALinkOnTheDrive) {
    std::string src = source("interview.mov", 4000);
    Cookie clip = importOne(src);
    EditPtr edit;
    ASSERT_TRUE(edit.i_open(clip));
    EXPECT_EQ(U(edit->getName()), "interview");
    EXPECT_EQ(edit->getLogType(), Edit::eLogClip);
    EXPECT_TRUE(edit->isImported());
    EXPECT_FALSE(edit->isImage());
    Vector<int> video, audio;
    EXPECT_EQ(edit->getChans(video, Edit::eVideo, 15), 1u);
    EXPECT_EQ(edit->getChans(audio, Edit::eAudio, 15), 2u);
    Cookie v0 = convertCookie(clip, 'V', 0);
    CookieVec materials{v0, convertCookie(clip, 'S', 1), convertCookie(clip, 'S', 2)};
    EXPECT_EQ(edit->getReferences(2), materials);
    EXPECT_EQ(edit->getReferences(3), CookieVec{clip});

    auto entry = SystemCache::findEntryForCookie(convertCookie(clip, 'S', 2));
    ASSERT_TRUE(entry);
    EXPECT_TRUE(entry->isLinked());
    EXPECT_EQ(U(entry->getPhysicalFilename(false)), src);
    EXPECT_EQ(entry->getSize(), 4000u);
    EXPECT_EQ(entry->getStatus(1), MediaFileInfo::eStatusAvailable);
    // The material name is on drive A, in its video folder, named after the clip's video
    // material, and the link file there leads to the source.
    MaterialFilename name = entry->getMaterialFilename();
    EXPECT_EQ(name.getDriveChar(), 'A');
    EXPECT_EQ(U(name.getPath()), "video/" + U(v0.asWString()) + ".mov");
    fs::path link = projectfs::toPath(name.getOsPath());
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::read_symlink(link).string(), src);
    EXPECT_EQ(SystemCache::getDriveForCookie(v0, 1), DriveId('A'));
    EXPECT_FALSE(SystemCache::findEntryForCookie(convertCookie(clip, 'S', 3)));
    EXPECT_EQ(inconsistencies(*db()), "");
}

TEST_P(ProjectDirectory, CopiedImportHoldsItsOwnCopyAndFileKindsDecideTheLayout) {
    std::string src = source("song.WAV", 3000, 'q');
    Cookie clip = importOne(src, true);
    auto entry = SystemCache::findEntryForCookie(convertCookie(clip, 'S', 1));
    ASSERT_TRUE(entry);
    EXPECT_FALSE(entry->isLinked());
    EXPECT_FALSE(SystemCache::findEntryForCookie(convertCookie(clip, 'V', 0))); // sound only
    WString copy = entry->getPhysicalFilename(false);
    EXPECT_EQ(copy, entry->getMaterialFilename().getOsPath());
    EXPECT_EQ(U(getPath(copy)), (driveRoot / "sound/").string());
    EXPECT_EQ(readFile(U(copy)), readFile(src));
    EXPECT_FALSE(fs::is_symlink(U(copy)));

    Cookie still = importOne(source("frame.png"));
    EditPtr e;
    ASSERT_TRUE(e.i_open(still));
    EXPECT_TRUE(e->isImage());
    EXPECT_EQ(e->getReferences(2), CookieVec{convertCookie(still, 'V', 0)});

    ImportOptions o;
    o.videoChannels = 0;
    o.audioChannels = 0;
    EXPECT_FALSE(ProjectImporter(o).importFile(W(src)).ok); // no channels at all
    EXPECT_FALSE(ProjectImporter().importFile(W((sources / "missing.mov").string())).ok);
    o.audioChannels = 1;
    o.drive = DriveId('Q');
    EXPECT_NE(U(ProjectImporter(o).importFile(W(src)).error).find("no media drive 'Q'"), std::string::npos);
    EXPECT_EQ(db()->search(1, Edit::eLogClip).size(), 2u);
}

TEST_P(ProjectDirectory, StatusFollowsTheDiskAndIsStoredOnlyWhenItChanges) {
    std::string src = source("a.mov");
    Cookie v0 = convertCookie(importOne(src), 'V', 0);
    fs::rename(src, src + ".away");
    auto entry = SystemCache::findEntryForCookie(v0);
    EXPECT_EQ(entry->getStatus(1), MediaFileInfo::eStatusAvailable); // as stored
    EXPECT_EQ(entry->updateStatus(1), MediaFileInfo::eStatusOffline);
    EXPECT_EQ(SystemCache::findEntryForCookie(v0)->getStatus(1), MediaFileInfo::eStatusOffline);
    EXPECT_EQ(SystemCache::getDriveForCookie(v0, 1), DriveId());
    EXPECT_EQ(entry->updateStatus(2), 0); // no proxies
    fs::rename(src + ".away", src);
    EXPECT_EQ(SystemCache::updateStatus(v0, 3), MediaFileInfo::eStatusAvailable);
    EXPECT_EQ(SystemCache::getDriveForCookie(v0, 1), DriveId('A'));
}

TEST_P(ProjectDirectory, ProxiesAreAddedRenamedAndDroppedAsRecordsOnly) {
    Cookie clip = importOne(source("b.mov"));
    Cookie v0 = convertCookie(clip, 'V', 0);
    std::string remote = makeFile(tmp.path() / "server" / "b.proxy.mp4", 500);
    std::string gone = (tmp.path() / "server" / "c.proxy.mp4").string();
    auto entry = SystemCache::findEntryForCookie(v0);
    ASSERT_TRUE(entry->addFile(MediaFileInfo(MaterialFilename(DriveId('A'), W("video/b.proxy.mp4")), 500, W(remote))));
    ASSERT_TRUE(entry->addFile(MediaFileInfo(MaterialFilename(DriveId('A'), W("video/c.proxy.mp4")), 9, W(gone))));
    EXPECT_EQ(entry->getProxyFiles().size(), 2u);
    EXPECT_EQ(entry->updateStatus(2), MediaFileInfo::eStatusAvailable); // any proxy present
    auto again = SystemCache::findEntryForCookie(v0);
    Vector<MediaFileInfo> proxies = again->getProxyFiles();
    ASSERT_EQ(proxies.size(), 2u);
    EXPECT_TRUE(proxies[0].isProxy() && proxies[0].isLinked());
    EXPECT_EQ(proxies[1].getStatus(), MediaFileInfo::eStatusOffline);
    EXPECT_EQ(again->getFile().getPhysicalFilename(false), entry->getPhysicalFilename(false)); // high-res kept

    // Localised: the proxy now names a local file of the same name, held on the drive.
    std::string local = makeFile(driveRoot / "video" / "b.proxy.mp4", 500);
    ASSERT_TRUE(SystemCache::renameProxyFile(v0, W(local), W(local)));
    MediaFileInfo p = SystemCache::findEntryForCookie(v0)->getProxyFiles()[0];
    EXPECT_FALSE(p.isLinked());
    EXPECT_EQ(U(p.getPhysicalFilename(false)), local);
    EXPECT_EQ(p.getMaterialFilename().getDriveChar(), 'A');

    EXPECT_TRUE(SystemCache::removeProxyFile(v0, proxies[1]));
    EXPECT_FALSE(SystemCache::removeProxyFile(v0, proxies[1]));
    EXPECT_EQ(SystemCache::findEntryForCookie(v0)->getProxyFiles().size(), 1u);
    EXPECT_TRUE(fs::exists(remote)); // records only
    EXPECT_EQ(SystemCache::getClipMediaFiles(clip).size(), 4u); // V0 + its proxy, S1, S2
}

TEST_P(ProjectDirectory, RemovingFilesDeletesDriveCopiesAndLinkFilesButNeverLinkedMedia) {
    std::string linkedSrc = source("linked.mov");
    Cookie linked = importOne(linkedSrc);
    Cookie copied = importOne(source("copied.mov"), true);
    Cookie cv0 = convertCookie(copied, 'V', 0);
    ASSERT_NE(MaterialInfo::write_header(cv0, "header text"), MaterialInfo::kWriteFailed);
    WString copyPath = SystemCache::findFileForCookie(cv0);
    WString sidecar = MaterialInfo::headerFileName(cv0);
    ASSERT_TRUE(fs::exists(U(sidecar)));

    WString why;
    EXPECT_EQ(SystemCache::removeFile(cv0, nullptr, 1, &why), 1) << U(why);
    EXPECT_FALSE(fs::exists(U(copyPath)));
    EXPECT_FALSE(fs::exists(U(sidecar)));
    EXPECT_FALSE(SystemCache::findEntryForCookie(cv0));

    Cookie lv0 = convertCookie(linked, 'V', 0);
    WString linkFile = SystemCache::findEntryForCookie(lv0)->getFile().getOsPath();
    EXPECT_EQ(SystemCache::removeFile(lv0, nullptr, 3), 1);
    EXPECT_FALSE(fs::exists(fs::symlink_status(U(linkFile))));
    EXPECT_TRUE(fs::exists(linkedSrc));
    EXPECT_EQ(SystemCache::removeFile(lv0, nullptr, 1, &why), 0);
    EXPECT_NE(U(why).find("not in the directory"), std::string::npos);
    EXPECT_TRUE(SystemCache::fileExists(convertCookie(linked, 'S', 1)));
}

TEST_P(ProjectDirectory, AddFileRegistersWriterOutputAndMovesReplaceTheHighResRecord) {
    Cookie m('V', 77, 88, 0);
    MaterialFilename name = getMaterialFilenameForCookie(m, DriveId('A'));
    EXPECT_EQ(U(name.getPath()), "video/" + U(m.asWString()));
    // The writer added an extension the name did not have.
    std::string written = makeFile(U(name.getOsPath()) + ".y4m", 321);
    EXPECT_EQ(SystemCache::addFile(m, name, 0), 1);
    auto entry = SystemCache::findEntryForCookie(m);
    ASSERT_TRUE(entry && entry->hasFile());
    EXPECT_EQ(U(entry->getPhysicalFilename(false)), written);
    EXPECT_EQ(entry->getSize(), 321u);

    // A move to drive B: the old record goes, the new one comes, sizes re-measured.
    WString error;
    ASSERT_TRUE(DiskManager::addDrive(DriveId('B'), W((tmp.path() / "drive B").string()), W(""), "", &error));
    MaterialFilename moved(DriveId('B'), name.getPath() + L".y4m");
    makeFile(U(moved.getOsPath()), 999);
    MediaFileInfo old = entry->getFile();
    ASSERT_TRUE(entry->removeFile(old));
    EXPECT_FALSE(entry->removeFile(old));
    ASSERT_TRUE(entry->addFile(MediaFileInfo(moved, 321)));
    ASSERT_TRUE(entry->updateFileSize());
    auto fresh = SystemCache::findEntryForCookie(m);
    EXPECT_EQ(fresh->getMaterialFilename().getDriveChar(), 'B');
    EXPECT_EQ(fresh->getSize(), 999u);
    EXPECT_TRUE(fs::exists(written)); // the directory does not delete on removeFile

    // An OS path outside every drive is kept on drive '0' under its absolute path.
    std::string outside = source("outside.mov");
    EXPECT_EQ(SystemCache::addFile(Cookie('V', 77, 89, 0), W(outside), 0), 1);
    MaterialFilename o = SystemCache::findEntryForCookie(Cookie('V', 77, 89, 0))->getMaterialFilename();
    EXPECT_TRUE(o.getDrive().isNone());
    EXPECT_EQ(U(o.getOsPath()), outside);
}

TEST_P(ProjectDirectory, HeadersLiveInTheProjectAndBesideTheMediaAndStartOffsetsPersist) {
    Cookie v0 = convertCookie(importOne(source("h.mov"), true), 'V', 0);
    String text("vision\nrate 25\nname Ü\n");
    EXPECT_EQ(MaterialInfo::write_header(v0, text), text.size());
    WString sidecar = MaterialInfo::headerFileName(v0);
    EXPECT_EQ(U(sidecar), U(stripExtension(SystemCache::findFileForCookie(v0))) + ".hdr");
    EXPECT_EQ(readFile(U(sidecar)), text.str());
    EXPECT_TRUE(MaterialInfo::set_start_offset(v0, 200));
    reopen();
    EXPECT_EQ(MaterialInfo::read_header(v0), text);
    EXPECT_EQ(MaterialInfo::get_start_offset(v0), 200);
    EXPECT_EQ(MaterialInfo::get_start_offset(Cookie('V', 5, 5, 0)), 0);
    EXPECT_TRUE(MaterialInfo::read_header(Cookie('V', 5, 5, 0)).isNull());
    // A header written only beside the media (by another program) is found there.
    std::ofstream(U(sidecar), std::ios::trunc) << "from the sidecar";
    {
        ProjectDatabase::Write w(*db());
        ASSERT_TRUE(w.db().exec("UPDATE material SET header = ''"));
        ASSERT_TRUE(w.commit());
    }
    EXPECT_EQ(MaterialInfo::read_header(v0), String("from the sidecar"));
}

TEST_P(ProjectDirectory, CreateLinkRepointsEveryLinkToTheOldPlace) {
    std::string remote = source("remote.mov");
    Cookie clip = importOne(remote);
    std::string local = makeFile(driveRoot / "video" / "remote.mov", 1000);
    EXPECT_TRUE(MaterialLink::createLink(W(remote), W(local), true));
    for (const auto& f : SystemCache::getClipMediaFiles(clip)) {
        EXPECT_EQ(U(f.file.getLinkTarget()), local);
        EXPECT_EQ(fs::read_symlink(U(f.file.getOsPath())).string(), local);
    }
    EXPECT_TRUE(fs::exists(remote));
    // Nothing links to a name: the name itself becomes a link, but never over a file.
    EXPECT_FALSE(MaterialLink::createLink(W(remote), W(local), true));
    std::string fresh = (tmp.path() / "fresh link").string();
    EXPECT_TRUE(MaterialLink::createLink(W(fresh), W(local), false));
    EXPECT_FALSE(MaterialLink::createLink(W(fresh), W(remote), false));
    EXPECT_TRUE(MaterialLink::createLink(W(fresh), W(remote), true));
    EXPECT_EQ(fs::read_symlink(fresh).string(), remote);
}

TEST_P(ProjectDirectory, DrivesAnswerByIdTaskPathAndCharacter) {
    WString error;
    EXPECT_FALSE(DiskManager::addDrive(DriveId('0'), W("/tmp/x"), W(""), "", &error));
    EXPECT_FALSE(DiskManager::addDrive(DriveId('C'), W("relative"), W(""), "", &error));
    ASSERT_TRUE(DiskManager::addDrive(DriveId('C'), W((tmp.path() / "c").string() + "/"), W(""), "render", &error));
    auto a = DiskManager::getDriveWithUniqueId(DriveId('A'));
    ASSERT_TRUE(a);
    EXPECT_EQ(U(a->getLocation(0)), driveRoot.string() + "/");
    EXPECT_EQ(U(a->getFolder(Cookie('E', 1, 2))), (driveRoot / "video/").string()); // edits go with video
    EXPECT_GT(DiskManager::getSpaceForRecording(DriveId('A')), 0);
    EXPECT_EQ(DiskManager::getDriveForTask("render", false), DriveId('A'));
    EXPECT_TRUE(DiskManager::removeDrive(DriveId('A')));
    EXPECT_EQ(DiskManager::getDriveForTask("render", false), DriveId('C'));
    EXPECT_EQ(DiskManager::getDriveForTask("import", false), DriveId());
    EXPECT_EQ(DiskManager::getDriveForTask("import", true), DriveId('C'));
    EXPECT_TRUE(DiskManager::isMaterialVolume('C'));
    EXPECT_FALSE(DiskManager::isMaterialVolume('A'));
    EXPECT_EQ(U(DiskManager::getMaterialVolumeName(DriveId('C'), false)), (tmp.path() / "c").string() + "/");
    EXPECT_EQ(DiskManager::findDriveForPath(W((tmp.path() / "c" / "video" / "x").string()))->getUniqueId(),
              DriveId('C'));
    EXPECT_FALSE(DiskManager::findDriveForPath(W((tmp.path() / "cc" / "x").string())));

    int heard = 0;
    int token = DiskManager::addMediaOnlineListener([&] { ++heard; });
    uint64_t before = DiskManager::mediaOnlineChangeCount();
    DiskManager::issueMediaOnlineChangeNotification();
    DiskManager::removeMediaOnlineListener(token);
    DiskManager::issueMediaOnlineChangeNotification();
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(DiskManager::mediaOnlineChangeCount(), before + 2);
}

TEST_P(ProjectDirectory, CompanionFilesAreNotEligibleButMediaAndRegisteredFilesAre) {
    std::string src = source("movie.mov");
    Cookie v0 = convertCookie(importOne(src), 'V', 0);
    EXPECT_TRUE(SystemCache::isEligible(W("/x/other.MXF")));
    EXPECT_TRUE(SystemCache::isEligible(W("/x/") + v0.asWString() + L".bin"));
    EXPECT_FALSE(SystemCache::isEligible(W("/x/") + v0.asWString() + L".hdr")); // travels with its media
    EXPECT_FALSE(SystemCache::isEligible(W("/x/movie.xml")));
    EXPECT_FALSE(SystemCache::isEligible(W("/x/notes")));
    std::string odd = makeFile(driveRoot / "video" / "strange.bin", 10);
    EXPECT_FALSE(SystemCache::isEligible(W(odd)));
    ASSERT_EQ(SystemCache::addFile(Cookie('V', 9, 9, 0), W(odd), 0), 1);
    EXPECT_TRUE(SystemCache::isEligible(W(odd)));
}

TEST_P(ProjectDirectory, UnusualNamesRoundTripThroughImportAndReopening) {
    std::string longDir(200, 'd'), longName(240, 'n');
    std::vector<std::string> names = {
        "with spaces/clip one.mov",
        "caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC/\xC3\xB1" "and\xC3\xBA \xF0\x9F\x8E\xAC.mov",
        longDir + "/" + longDir + "/" + longDir + "/" + longDir + "/" + longName + ".mov",
    };
    std::vector<std::pair<Cookie, std::string>> imported;
    for (size_t i = 0; i < names.size(); ++i) {
        std::string src = source(names[i], 100 + i);
        imported.push_back({importOne(src, false), src});
        imported.push_back({importOne(src, true), src});
    }
    reopen();
    for (size_t i = 0; i < imported.size(); ++i) {
        auto [clip, src] = imported[i];
        EditPtr e;
        ASSERT_TRUE(e.i_open(clip));
        EXPECT_EQ(U(e->getName()), fs::path(src).stem().string());
        auto entry = SystemCache::findEntryForCookie(convertCookie(clip, 'S', 2));
        ASSERT_TRUE(entry);
        if (i % 2 == 0) {
            EXPECT_EQ(U(entry->getPhysicalFilename(false)), src);
            EXPECT_EQ(U(entry->getPhysicalFilename(true)), fs::canonical(src).string());
        } else {
            EXPECT_EQ(readFile(U(entry->getPhysicalFilename(false))), readFile(src));
        }
        EXPECT_EQ(entry->updateStatus(1), MediaFileInfo::eStatusAvailable);
    }
}
