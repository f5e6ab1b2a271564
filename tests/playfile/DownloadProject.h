// A project for the download and localise tests: clips whose material is linked to frame
// files in a folder that counts as remote (PLAYFILE_REMOTE_PREFIXES names it), read
// through the play file cache by a registered frame-file reader, and helpers to run a
// task of the material actions to its end and read its log.
#pragma once

#include "CacheTestSupport.h"

#include "host/project/EditModifier.h"
#include "host/tasks/TaskLog.h"
#include "playfile/material/MaterialManager.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/VideoReadRequest.h"
#include "support/RecordingIssuer.h"
#include "support/ScopedEnv.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace download_test {

using namespace cache_test;
using namespace project_test;
using testing_support::readFile;
using testing_support::writeFile;
namespace fs = std::filesystem;

class DownloadProject : public ClipTest {
protected:
    void SetUp() override {
        ClipTest::SetUp();
        remote = tmp.path() / "remote share";
        fs::create_directories(remote);
        remotePrefixes = std::make_unique<testing_support::ScopedEnv>("PLAYFILE_REMOTE_PREFIXES", remote.string());
    }
    void TearDown() override {
        PlayFileCache::Shared().closeAll();
        remotePrefixes.reset();
        ClipTest::TearDown();
    }

    // A clip (with flags, e.g. Edit::eImage) whose video and sound material is linked to
    // the frame file `file` in the remote folder, written with the layout unless it exists.
    Cookie remoteClip(const std::string& name, const std::string& file, const FrameFileLayout& shape = layout(8, 2, 400),
                      unsigned flags = 0, int audioChannels = 2) {
        const fs::path path = remote / file;
        if (!fs::exists(path)) fs::rename(writeFrameFile(tmp, "new.frames", shape), path);
        plugin->setLayout(path.string(), shape);
        plugin->setLayout((driveRoot / "video" / file).string(), shape);
        ClipRecord r;
        r.name = W(name);
        r.audioChannels = audioChannels;
        r.flags = flags;
        r.file = MediaFileInfo(MaterialFilename(DriveId('A'), W("video/link " + name + ".frames"), W(driveRoot.string())),
                               fs::file_size(path), W(path.string()));
        std::vector<Cookie> made = ProjectImporter::registerClips({r});
        EXPECT_EQ(made.size(), 1u);
        return made.empty() ? Cookie() : made[0];
    }
    // A linked proxy of the clip's video material: the file at path.
    static void addProxy(const Cookie& clip, const fs::path& path) {
        MediaFileInfo proxy(MaterialFilename(DriveId('A'), W("video/" + path.filename().string())),
                            fs::file_size(path), W(path.string()));
        proxy.setProxy(true);
        auto entry = SystemCache::findEntryForCookie(video(clip));
        ASSERT_TRUE(entry && entry->addFile(proxy));
    }
    static void rename(const Cookie& clip, const std::string& name) {
        EditPtr edit;
        ASSERT_TRUE(edit.i_open(clip));
        EditModifier m(edit);
        ASSERT_TRUE(edit->setName(W(name)));
        ASSERT_TRUE(m.commit()) << m.error();
    }
    static CookieVec items(std::initializer_list<Cookie> cookies) {
        CookieVec v;
        for (const Cookie& c : cookies) v.add(c);
        return v;
    }
    // Waits for a task the actions queued; answers it.
    static Zn::Ptr<DownloadTask> finished(Zn::Ptr<DownloadTask> task) {
        EXPECT_TRUE(task);
        if (task) {
            EXPECT_TRUE(task->waitForCompletion(60000));
        }
        return task;
    }
    static std::vector<std::string> errors(const Zn::Ptr<DownloadTask>& task) {
        std::vector<std::string> out;
        for (const auto& e : task->getLog()->getEntries())
            if (e.severity >= iTaskLog::eError) out.push_back(U(e.text));
        return out;
    }
    // The files (names) in a folder, sorted.
    static std::vector<std::string> listing(const fs::path& folder) {
        std::vector<std::string> out;
        std::error_code ec;
        for (const auto& e : fs::directory_iterator(folder, ec)) out.push_back(e.path().filename().string());
        std::sort(out.begin(), out.end());
        return out;
    }
    static std::string physical(const Cookie& material) {
        auto entry = SystemCache::findEntryForCookie(material);
        return entry ? U(entry->getPhysicalFilename(false)) : std::string();
    }

    // A frame's first pixel and a sample of a channel, read through the shared cache; -1
    // when the read fails.
    static int pixel(const Cookie& material, int frame) {
        RecordingIssuer issuer;
        Zn::Ptr<VideoReadRequest> request;
        if (PlayFileCache::Shared().videoReadRequest(request, material, frame, false, kResultDecoded, DecodeFormat(1),
                                                     issuer.getProxy()) != PlayFileCache::kVideoQueued ||
            !issuer.waitForCalls(1) || issuer.status() != RequestStatus::Complete)
            return -1;
        return issuer.buffer()->getSurface(0).plane(0)[1];
    }
    static int sample(const Cookie& material, uint64_t start) {
        RecordingIssuer issuer;
        Zn::Ptr<AudioReadRequest> r;
        if (PlayFileCache::Shared().audioReadRequest(r, material, start, 4, kProxyLevelHighRes, issuer.getProxy(),
                                                     true) != PlayFileCache::kAudioCreated ||
            !r->getFile()->queueReadRequest(r, false) || !issuer.waitForCalls(1) || issuer.status() != RequestStatus::Complete)
            return -1;
        return reinterpret_cast<const int16_t*>(r->getBuffer())[0];
    }

    fs::path remote;
    std::unique_ptr<testing_support::ScopedEnv> remotePrefixes;
};

} // namespace download_test
