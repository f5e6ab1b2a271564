// MediaLocationUtils on real projects: a clip's location record, the offline test of
// clips and of the material under a sequence's cursor, and the shared name and drive
// functions.
#include "MaterialProject.h"

#include "playfile/material/MediaLocationUtils.h"

#include <gtest/gtest.h>

namespace material_test {
namespace {

using MediaLocation = MaterialProject;
using Status = MediaLocationInfo::eMediaStatus;

TEST_F(MediaLocation, RecordListsEachReferencedFile) {
    Cookie here = importNew(local, "here.mov");
    MediaLocationInfo info = MediaLocationUtils::getClipLocationInfo(here);
    EXPECT_EQ(info.materialCookies, (Vector<Cookie>{video(here), sound(here, 1), sound(here, 2)}));
    EXPECT_EQ(info.highResStatuses, (Vector<Status>(std::vector<Status>(3, MediaLocationInfo::eAvailable))));
    EXPECT_EQ(info.proxyStatuses, (Vector<Status>(std::vector<Status>(3, MediaLocationInfo::eUnknown)))); // no proxies
    EXPECT_EQ(info.locations, (Vector<WString>(std::vector<WString>(3, W(local.string() + "/")))));
    EXPECT_EQ(info.fileNames, (Vector<WString>(std::vector<WString>(3, W("here.mov")))));
    ASSERT_EQ(info.materialFilenames.size(), 3u);
    EXPECT_EQ(info.materialFilenames[0].getDriveChar(), 'A');
    EXPECT_FALSE(info.allMediaOffline());

    // A file on a remote location: the whole name as its location, no file name.
    Cookie far = importNew(remote, "far.mov", false, 1, 0);
    info = MediaLocationUtils::getClipLocationInfo(far);
    EXPECT_EQ(info.locations, Vector<WString>{W((remote / "far.mov").string())});
    EXPECT_EQ(info.fileNames, Vector<WString>{WString()});

    // A referenced material without a directory entry is listed by cookie only.
    const Cookie orphan('V', here.id1(), here.id2(), 5);
    {
        EditPtr clip;
        clip.i_open(here);
        EditModifier m(clip);
        ASSERT_TRUE(clip->addReference(Edit::eRefMaterial, orphan));
    }
    info = MediaLocationUtils::getClipLocationInfo(here);
    EXPECT_EQ(info.materialCookies.size(), 4u);
    EXPECT_EQ(info.materialCookies.back(), orphan);
    EXPECT_EQ(info.highResStatuses.size(), 3u);
    EXPECT_EQ(info.locations.size(), 3u);

    // Missing media is offline; a proxy that is there keeps the clip from being all offline.
    std::filesystem::remove(local / "here.mov");
    info = MediaLocationUtils::getClipLocationInfo(here);
    EXPECT_EQ(info.highResStatuses[0], MediaLocationInfo::eOffline);
    EXPECT_TRUE(info.allMediaOffline());
    addProxy(here, makeFile(local / "here.proxy.mov", 10), true);
    EXPECT_FALSE(MediaLocationUtils::getClipLocationInfo(here).allMediaOffline());
}

TEST_F(MediaLocation, RecordServesClipLogTypesOnly) {
    Cookie clip = importNew(local, "clip.mov");
    EditPtr seq = makeSequence({{0, 1, Piece::eClip, clip}});
    EXPECT_TRUE(MediaLocationUtils::getClipLocationInfo(seq->getCookie()).empty());
    EXPECT_TRUE(MediaLocationUtils::getClipLocationInfo(Cookie('E', 9, 9)).empty());
    EditPtr bin = EditManager::createEdit(W("bin"), 64);
    EXPECT_TRUE(MediaLocationUtils::getClipLocationInfo(bin->getCookie()).empty());
    for (int type : {1, 16, 32, 1024}) {
        {
            EditPtr e;
            e.i_open(clip);
            EditModifier m(e);
            e->setLogType(type);
        }
        EXPECT_EQ(MediaLocationUtils::getClipLocationInfo(clip).materialCookies.size(), 3u) << type;
    }
}

TEST_F(MediaLocation, OfflineLooksAtTheClipOrTheMaterialUnderTheCursor) {
    Cookie present = importNew(local, "present.mov");
    Cookie gone = importNew(local, "gone.mov");
    std::filesystem::remove(local / "gone.mov");
    EditPtr seq = makeSequence({{0, 1, Piece::eClip, present},
                                {1, 2, Piece::eClip, gone},
                                {2, 3, Piece::eFiller, {}},
                                {3, 4, Piece::eEffect, {}}});
    struct Case {
        const char* what;
        Cookie edit;
        double time;
        bool select;
        bool offline;
    };
    for (const Case& c : std::vector<Case>{{"a present clip", present, 0, false, false},
                                           {"a missing clip", gone, 0, false, true},
                                           {"cursor over present material", seq->getCookie(), 0.5, true, false},
                                           {"cursor over missing material", seq->getCookie(), 1.5, true, true},
                                           {"cursor over filler", seq->getCookie(), 2.5, true, false},
                                           {"cursor over an effect", seq->getCookie(), 3.5, true, false},
                                           {"cursor past the end", seq->getCookie(), 9, true, false},
                                           {"no channel selected", seq->getCookie(), 1.5, false, false}}) {
        EditPtr edit;
        edit.i_open(c.edit);
        EditModule module(edit);
        module.setCurrentTime(c.time);
        if (c.select) module.selectChan(1);
        EXPECT_EQ(isMediaOffline(module), c.offline) << c.what;
        EXPECT_EQ(MediaLocationUtils::isAllMediaOffline(module), c.offline) << c.what;
        EXPECT_EQ(MediaLocationUtils::isSomeMediaOffline(module), c.offline) << c.what;
    }
    EXPECT_FALSE(isMediaOffline(EditModule()));
}

TEST_F(MediaLocation, NamesAndTypes) {
    struct Case {
        const char* path;
        const char* bare;
        int type;
    };
    // Only stripPath2 reads foreign separators: the type of a name written with
    // backslashes is not found.
    for (Case c : {Case{"C:\\media\\clips\\V0001e240_000003e8_00.mov", "V0001e240_000003e8_00.mov", 128},
                   Case{"/drive/video/V0001e240_000003e8_00.mov", "V0001e240_000003e8_00.mov", 1},
                   Case{"/drive/sound/S0001e240_000003e8_02.wav", "S0001e240_000003e8_02.wav", 2},
                   Case{"mixed\\folder/I0001e240_000003e8_ff.png", "I0001e240_000003e8_ff.png", 128},
                   Case{"/drive/video/V0001e240_000003e8_00.proxy.mov", "V0001e240_000003e8_00.proxy.mov", 128},
                   Case{"holiday.mov", "holiday.mov", 128}, Case{"", "", 128}}) {
        EXPECT_EQ(U(MediaLocationUtils::stripPath2(W(c.path))), c.bare) << c.path;
        EXPECT_EQ(int(MediaLocationUtils::getMaterialTypeFromName(W(c.path))), c.type) << c.path;
    }
}

TEST_F(MediaLocation, DrivesHoldFilesInTheirVideoAndSoundFolders) {
    const auto rootB = tmp.path() / "drive B";
    ASSERT_TRUE(DiskManager::addDrive(DriveId('B'), W(rootB.string()), W("B"), "", nullptr));
    struct Case {
        std::filesystem::path file;
        char drive; // '0': none
    };
    for (const Case& c : std::vector<Case>{{driveRoot / "video" / "a.mov", 'A'},
                                           {driveRoot / "sound" / "a.wav", 'A'},
                                           {rootB / "sound" / "b.wav", 'B'},
                                           {driveRoot / "a.mov", '0'},
                                           {driveRoot / "video" / "deeper" / "a.mov", '0'},
                                           {local / "a.mov", '0'}}) {
        auto d = MediaLocationUtils::findMediaLocationFromFile(W(c.file.string()));
        EXPECT_EQ(d ? d->getUniqueId().getUniqueId() : '0', c.drive) << c.file;
    }
    const MaterialFilename onA(DriveId('A'), W("video/x.mov"), W(driveRoot.string()));
    EXPECT_TRUE(MediaLocationUtils::isLinkedLocal(MediaFileInfo(onA, 1, W((rootB / "video" / "y.mov").string()))));
    EXPECT_FALSE(MediaLocationUtils::isLinkedLocal(MediaFileInfo(onA, 1, W((local / "y.mov").string()))));
    EXPECT_FALSE(MediaLocationUtils::isLinkedLocal(MediaFileInfo(onA, 1))); // held on the drive, not linked
}

TEST_F(MediaLocation, ShotListKeepsOrderAndLeavesFillerOut) {
    Cookie a = importNew(local, "a.mov", false, 1, 0);
    Cookie b = importNew(local, "b.mov", false, 1, 0);
    EditPtr first = makeSequence({{0, 1, Piece::eClip, b}, {1, 2, Piece::eFiller, {}}, {2, 3, Piece::eClip, a}});
    EditPtr second = makeSequence({{0, 1, Piece::eClip, a}});
    CookieVec shots = MediaLocationUtils::buildShotList(CookieVec{first->getCookie(), Cookie('E', 9, 9), second->getCookie()});
    EXPECT_EQ(shots, (CookieVec{video(b), video(a), video(a)}));
    EXPECT_TRUE(MediaLocationUtils::buildShotList(CookieVec{}).empty());
}

} // namespace
} // namespace material_test
