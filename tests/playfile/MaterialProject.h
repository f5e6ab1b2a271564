// A project for the material query tests: clips imported from real files in place
// (linked) or copied onto drive A, folders that count as remote (PLAYFILE_REMOTE_PREFIXES
// names one for the test's duration), proxies, sequences with material, filler and
// effects on their timeline, and a remote project space with mount points.
#pragma once

#include "host/ProjectFixture.h"
#include "host/project/EditModifier.h"
#include "host/project/EditModule.h"
#include "host/project/ProjectSpacesManager.h"

#include "support/ScopedEnv.h"

#include <memory>

namespace material_test {

using namespace project_test;

class MaterialProject : public ProjectTest {
protected:
    void SetUp() override {
        ProjectTest::SetUp();
        local = tmp.path() / "local media";
        remote = tmp.path() / "remote share";
        remotePrefixes = std::make_unique<testing_support::ScopedEnv>("PLAYFILE_REMOTE_PREFIXES", remote.string());
    }
    void TearDown() override {
        remotePrefixes.reset();
        ProjectTest::TearDown();
    }

    // A clip of the file at folder/name (made with n bytes), imported as `playfile
    // import` does: linked in place, or copied onto drive A.
    Cookie importNew(const std::filesystem::path& folder, const std::string& name, bool copy = false, int video = 1,
                     int audio = 2) {
        return importPath(makeFile(folder / name, 2000), copy, video, audio);
    }
    static Cookie importPath(const std::string& path, bool copy = false, int video = 1, int audio = 2) {
        ImportOptions o;
        o.copy = copy;
        o.videoChannels = video;
        o.audioChannels = audio;
        ImportResult r = ProjectImporter(o).importFile(W(path));
        EXPECT_TRUE(r.ok) << U(r.error);
        return r.clip;
    }
    // A proxy of the clip's video material: linked (storage kind 512) to target, or a
    // file held on drive A (copied from target).
    void addProxy(const Cookie& clip, const std::filesystem::path& target, bool linked) {
        const std::string rel = "video/" + U(video(clip).asWString()) + ".proxy.mov";
        if (!linked) {
            std::filesystem::copy_file(target, driveRoot / rel);
            ASSERT_EQ(SystemCache::addFile(video(clip), W((driveRoot / rel).string()), SystemCache::eAddProxy), 1);
            return;
        }
        MediaFileInfo proxy(MaterialFilename(DriveId('A'), W(rel), W(driveRoot.string())), 100, W(target.string()));
        proxy.setProxy(true);
        auto entry = SystemCache::findEntryForCookie(video(clip));
        ASSERT_TRUE(entry && entry->addFile(proxy));
    }
    // A sequence (log type 2) with one video channel: what lies where, in seconds.
    struct Piece {
        double start, finish;
        enum { eClip, eFiller, eEffect } kind;
        Cookie clip;
    };
    static EditPtr makeSequence(const std::vector<Piece>& pieces) {
        EditPtr seq = EditManager::createEdit(W("sequence"), Edit::eLogSequence);
        EditModifier m(seq);
        int chan = seq->addChannel(Edit::eVideo);
        for (const Piece& p : pieces) {
            bool ok = p.kind == Piece::eClip     ? seq->addSegment(chan, p.start, p.finish, video(p.clip))
                      : p.kind == Piece::eFiller ? seq->addFiller(chan, p.start, p.finish)
                                                 : seq->addEffect(chan, p.start, p.finish, W("dissolve"));
            EXPECT_TRUE(ok);
        }
        EXPECT_TRUE(m.commit()) << m.error();
        return seq;
    }
    static void remoteSpace(const std::vector<std::string>& mounts) {
        ASSERT_TRUE(ProjectSpacesManager::setCurrentProjectSpaceType(ProjectSpacesManager::eRemote));
        ASSERT_TRUE(ProjectSpacesManager::clearMountPoints());
        for (const auto& m : mounts) ASSERT_TRUE(ProjectSpacesManager::addMountPoint({W(m), WString()}));
    }

    std::filesystem::path local, remote;
    std::unique_ptr<testing_support::ScopedEnv> remotePrefixes;
};

} // namespace material_test
