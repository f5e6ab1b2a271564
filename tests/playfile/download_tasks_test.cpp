// The localise and download tasks that the material actions queue, on a real project whose
// media lies in a folder counted as remote: clips read the same frames and samples from
// the local copy afterwards, names by clip and by file (hostile clip names included),
// proxies, shared files fetched once, image sequences frame by frame, failures and
// cancellation leaving nothing behind, the settings' JSON, task titles and revealing files.
#include "DownloadProject.h"

#include "host/os/Resources.h"
#include "host/tasks/BackgroundTaskQueue.h"
#include "playfile/tasks/TaskMessages.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace download_test;

namespace {

const auto kNormal = iBackgroundTask::eNormalImportance;

timespec modified(const fs::path& p) {
    struct stat st {};
    ::stat(p.c_str(), &st);
    return st.st_mtim;
}

} // namespace

using DownloadTasks = OnBothDatabases<DownloadProject>;
PLAYFILE_ON_BOTH_DATABASES(DownloadTasks);

TEST_P(DownloadTasks, LocalisedClipsReadTheSameFramesAndSamplesFromTheLocalCopy) {
    const Cookie a = remoteClip("a", "a.frames"), twin = remoteClip("twin", "a.frames"), b = remoteClip("b", "b.frames");
    const Cookie here = clip("here", layout(8)); // on no remote location: left alone
    const int before[] = {pixel(video(a), 5), sample(sound(a, 2), 77), pixel(video(twin), 2)};
    ASSERT_EQ(before[0], pixelOf(5, 1, 0));
    const std::string remoteBytes = readFile(remote / "a.frames");
    const timespec remoteTime = modified(remote / "a.frames");
    int told = 0;
    const int token = EditManager::addModificationListener([&](const Cookie& edit, const EditModification& m) {
        told += edit == a && m == EditModification(eEditModMediaChanged, 1);
    });

    auto task = finished(MaterialManager::localiseRemoteMedia(items({a, twin, here}), kMediaHighRes, kNormal));
    EditManager::removeModificationListener(token);
    EXPECT_EQ(task->result(), DownloadTask::eResult::eDone);
    EXPECT_EQ(errors(task), std::vector<std::string>());
    EXPECT_EQ(task->writtenFiles().size(), 1u) << "the file the two clips share is fetched once";
    EXPECT_EQ(told, 1);

    const std::string local = (driveRoot / "video" / "a.frames").string();
    EXPECT_EQ(physical(video(a)), local);
    EXPECT_EQ(physical(video(twin)), local) << "the other clip's link follows";
    EXPECT_EQ(physical(sound(a, 1)), local);
    EXPECT_EQ(physical(video(b)), (remote / "b.frames").string()) << "not asked for";
    EXPECT_FALSE(MaterialManager::isMediaRemote(video(a), kMediaHighRes));
    // The old file's instance is gone: the next read opens the copy.
    EXPECT_FALSE(PlayFileCache::Shared().isOpen(video(a), DecodeFormat(1)));
    EXPECT_EQ((std::vector<int>{pixel(video(a), 5), sample(sound(a, 2), 77), pixel(video(twin), 2)}),
              std::vector<int>(std::begin(before), std::end(before)));
    auto open = PlayFileCache::Shared().isOpen(video(a), DecodeFormat(1));
    ASSERT_TRUE(open);
    EXPECT_TRUE(open->getFileName().endsWith(L"/video/a.frames")) << U(open->getFileName());
    EXPECT_EQ(readFile(remote / "a.frames"), remoteBytes);
    EXPECT_EQ(modified(remote / "a.frames").tv_nsec, remoteTime.tv_nsec);
    EXPECT_EQ(listing(driveRoot / "video"), (std::vector<std::string>{"a.frames", "link a.frames", "link twin.frames"}))
        << "no .partial";
    (void)here;
}

TEST_P(DownloadTasks, DownloadsAreNamedByClipOrByFileWithProxiesMarkedAndSharedFilesFetchedOnce) {
    const Cookie a = remoteClip("Interview", "a.frames"), twin = remoteClip("Interview again", "a.frames");
    const Cookie b = remoteClip("Interview", "b.frames"); // the same name as a
    writeFile(remote / "a small.mov", "proxy bytes");
    addProxy(a, remote / "a small.mov");
    struct Case {
        int naming;
        eMediaTypes types;
        std::vector<std::string> files;
    } cases[] = {
        {ExternalDownloadTask::Settings::eNameByClip, kMediaAll,
         {"Interview.frames", "Interview.proxy.webm", "Interview_2.frames"}},
        {ExternalDownloadTask::Settings::eNameByFile, kMediaAll, {"a small.proxy.webm", "a.frames", "b.frames"}},
        {ExternalDownloadTask::Settings::eNameByFile, kMediaProxy, {"a small.proxy.webm"}},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(n);
        ExternalDownloadTask::Settings s;
        s.location = W((tmp.path() / ("out" + std::to_string(++n))).string());
        s.naming = c.naming;
        s.proxyExt = W("webm");
        auto task = finished(MaterialManager::downloadRemoteMedia(items({a, twin, b}), c.types, s));
        EXPECT_EQ(task->result(), DownloadTask::eResult::eDone);
        EXPECT_EQ(task->getImportance(), iBackgroundTask::eHighImportance);
        EXPECT_TRUE(task->isAbortable());
        EXPECT_FALSE(task->isMemorable());
        EXPECT_EQ(listing(U(s.location)), c.files);
        const auto entries = task->getLog()->getEntries();
        ASSERT_FALSE(entries.empty());
        EXPECT_EQ(entries.back().type, iTaskLog::Entry::eHyperlink);
        EXPECT_EQ(entries.back().folder, s.location);
        EXPECT_EQ(entries.back().files.size(), c.files.size());
    }
    EXPECT_EQ(readFile(tmp.path() / "out1" / "Interview.proxy.webm"), "proxy bytes");
    EXPECT_EQ(readFile(tmp.path() / "out1" / "Interview_2.frames"), readFile(remote / "b.frames"));
    EXPECT_EQ(physical(video(a)), (remote / "a.frames").string()) << "a download does not touch the project";
}

TEST_P(DownloadTasks, HostileClipNamesDownloadToAFileInsideTheLocation) {
    const std::vector<std::string> names = {"a/b", "..", "../../escape", "x\ny", "/etc/passwd", std::string(300, 'n'),
                                            std::string(100, '\xC3') /* broken UTF-8 */, "\t"};
    std::vector<Cookie> clips;
    for (size_t i = 0; i < names.size(); ++i) {
        clips.push_back(remoteClip("c" + std::to_string(i), "f" + std::to_string(i) + ".frames", layout(2)));
        rename(clips.back(), names[i]);
    }
    ExternalDownloadTask::Settings s;
    s.location = W((tmp.path() / "location").string());
    s.naming = ExternalDownloadTask::Settings::eNameByClip;
    s.proxyExt = W("mp4");
    CookieVec all;
    for (const Cookie& c : clips) all.add(c);
    const auto before = listing(tmp.path());
    auto task = finished(MaterialManager::downloadRemoteMedia(all, kMediaHighRes, s));
    EXPECT_EQ(task->result(), DownloadTask::eResult::eDone) << testing::PrintToString(errors(task));
    const auto files = listing(tmp.path() / "location");
    EXPECT_EQ(files.size(), names.size());
    for (const std::string& f : files) {
        SCOPED_TRACE(f);
        EXPECT_TRUE(fs::is_regular_file(tmp.path() / "location" / f));
        EXPECT_LE(f.size() + 8, 255u);
        EXPECT_EQ(f.find('\n'), std::string::npos);
        EXPECT_NE(f[0], '.');
        EXPECT_EQ(fs::file_size(tmp.path() / "location" / f), fs::file_size(remote / "f0.frames"));
    }
    auto after = listing(tmp.path());
    after.erase(std::find(after.begin(), after.end(), "location"));
    EXPECT_EQ(after, before) << "nothing lands beside the location";
    EXPECT_FALSE(fs::exists("/etc/passwd.frames"));
}

TEST_P(DownloadTasks, ImageSequencesAreCopiedFrameByFrameIntoAFolder) {
    for (int n = 0; n < 5; ++n) writeFile(remote / ("shot_009" + std::to_string(5 + n) + ".dpx"), std::string(100 + n, 'p'));
    ClipRecord r;
    r.name = W("shot");
    r.audioChannels = 0;
    r.flags = Edit::eImage;
    const fs::path first = remote / "shot_0095.dpx";
    r.file = MediaFileInfo(MaterialFilename(DriveId('A'), W("video/link shot.dpx"), W(driveRoot.string())), 100,
                           W(first.string()));
    const Cookie shot = ProjectImporter::registerClips({r}).at(0);

    auto task = finished(MaterialManager::localiseRemoteMedia(items({shot}), kMediaHighRes, kNormal));
    EXPECT_EQ(task->result(), DownloadTask::eResult::eDone) << testing::PrintToString(errors(task));
    const fs::path folder = driveRoot / "video" / "shot_0095";
    EXPECT_EQ(listing(folder), (std::vector<std::string>{"shot_0095.dpx", "shot_0096.dpx", "shot_0097.dpx",
                                                         "shot_0098.dpx", "shot_0099.dpx"}));
    EXPECT_EQ(readFile(folder / "shot_0099.dpx"), std::string(104, 'p'));
    EXPECT_EQ(physical(video(shot)), (folder / "shot_0095.dpx").string());
}

TEST_P(DownloadTasks, AFailedCopyLeavesNothingAndKeepsTheClipOnItsRemoteMedia) {
    const Cookie a = remoteClip("a", "a.frames");
    fs::remove(remote / "a.frames"); // the share lost it
    testing_support::LogCapture log;
    auto task = finished(MaterialManager::localiseRemoteMedia(items({a}), kMediaHighRes, kNormal));
    EXPECT_EQ(task->result(), DownloadTask::eResult::eFailed);
    const std::string local = (driveRoot / "video" / "a.frames").string();
    EXPECT_EQ(errors(task), std::vector<std::string>{"Could not write the file " + local});
    EXPECT_EQ(listing(driveRoot / "video"), std::vector<std::string>());
    EXPECT_EQ(physical(video(a)), (remote / "a.frames").string());
    EXPECT_EQ(log.count("cancel download for " + (remote / "a.frames").string() + "\n"), 1);
}

TEST_P(DownloadTasks, CancellingMidCopyEndsWithResult3NoMessageAndNoPartial) {
    const fs::path big = remote / "big.frames";
    {
        std::string chunk(1 << 20, 'b');
        std::ofstream out(big, std::ios::binary);
        for (int i = 0; i < 64; ++i) out.write(chunk.data(), std::streamsize(chunk.size()));
    }
    const Cookie a = remoteClip("a", "big.frames");
    auto task = MaterialManager::localiseRemoteMedia(items({a}), kMediaHighRes, kNormal);
    ASSERT_TRUE(task);
    auto log = task->getLog();
    for (uint64_t seen = 0; !task->hasEnded() && log->getProgress().fraction == 0;) {
        seen = log->changeCount();
        log->waitForChange(seen, 100);
    }
    UIBackgroundTasksQueue::instance().cancel(task);
    finished(task);
    if (task->getStatus() != iBackgroundTask::eCancelled) GTEST_SKIP() << "the copy ended before it could be cancelled";
    EXPECT_EQ(task->result(), DownloadTask::eResult::eCancelled);
    EXPECT_EQ(errors(task), std::vector<std::string>());
    EXPECT_EQ(listing(driveRoot / "video"), std::vector<std::string>());
    EXPECT_EQ(physical(video(a)), big.string());
}

TEST(DownloadSettings, JsonRoundTripAndRefusals) {
    ExternalDownloadTask::Settings s;
    s.location = WString(L"/media/Ünïcode \"out\"");
    s.naming = ExternalDownloadTask::Settings::eNameByClip;
    s.proxyExt = WString(L"mp4");
    const String text = JSON::toText(s, -1);
    EXPECT_EQ(text.str(), "{\"Location\":\"/media/\xC3\x9Cn\xC3\xAF" "code \\\"out\\\"\",\"ProxyExt\":\"mp4\",\"Naming\":\"clip\"}");
    ExternalDownloadTask::Settings back;
    ASSERT_TRUE(JSON::fromText(back, text.view()));
    EXPECT_EQ(back.location, s.location);
    EXPECT_EQ(back.proxyExt, s.proxyExt);
    EXPECT_EQ(back.naming, s.naming);

    struct Case {
        const char* json;
        bool usable;
        int naming;
    } cases[] = {
        {R"({"Location":"/x","ProxyExt":"mov","Naming":"file"})", true, 1},
        {R"({"Location":"/x","ProxyExt":"mov","Naming":"Clip"})", true, 1},
        {R"({"Location":"/x","ProxyExt":"mov"})", true, 1},
        {R"({"Location":"/x","ProxyExt":"mov","Naming":7})", true, 1},
        {R"({"Location":"/x","ProxyExt":"","Naming":"clip"})", false, 0},
        {R"({"ProxyExt":"mov","Naming":"clip"})", false, 0},
        {R"({"Location":5,"ProxyExt":"mov"})", false, 1},
        {R"(["Location","/x"])", false, 1},
        {R"({"Location":"/x",)", false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json);
        ExternalDownloadTask::Settings r;
        String why;
        EXPECT_EQ(JSON::fromText(r, c.json, &why), c.usable);
        if (c.usable) {
            EXPECT_EQ(r.naming, c.naming);
        } else {
            EXPECT_FALSE(why.empty());
        }
    }
}

TEST_P(DownloadTasks, TaskTitlesNameOneLogOrCountSeveral) {
    const Cookie a = remoteClip("Beach take 2", "a.frames"), b = remoteClip("b", "b.frames");
    const WString prefix = resourceStrW(kMsgLocaliseMedia);
    struct Case {
        CookieVec logs;
        std::string title;
    } cases[] = {
        {items({a}), "Localise media : Beach take 2"},
        {items({a, b, a}), "Localise media : 3 logs"},
        {items({}), "Localise media : 0 logs"},
        {items({Cookie('E', 77, 77)}), "Localise media"},
    };
    for (const Case& c : cases) EXPECT_EQ(U(MaterialManager::makeTaskTitle(c.logs, prefix)), c.title);
    auto task = finished(MaterialManager::localiseMedia(items({a}), DriveId('A'), false, false, kNormal, WString()));
    EXPECT_EQ(U(task->getDescription()), "Localise media");
    EXPECT_EQ(task->args().types, kMediaNone);
    EXPECT_TRUE(task->writtenFiles().empty());
    EXPECT_EQ(task->result(), DownloadTask::eResult::eDone) << "nothing to copy is done";
    EXPECT_EQ(task->getProgress(), 0.0) << "a total of 0 bytes";
}

TEST_P(DownloadTasks, RevealShowsThePresentFilesAndLogsTheMissingOnes) {
    const Cookie a = remoteClip("a", "a.frames"), gone = remoteClip("gone", "gone.frames");
    fs::remove(remote / "gone.frames");
    const std::string script = tmp.file("reveal.sh"), out = tmp.file("revealed.txt");
    writeFile(script, "#!/bin/sh\nfor f in \"$@\"; do echo \"$f\" >> '" + out + "'; done\n");
    fs::permissions(script, fs::perms::owner_all);
    testing_support::ScopedEnv command("PLAYFILE_RevealCommand", script);

    EXPECT_EQ(MaterialManager::revealFilesInOS(a), MaterialManager::kShown);
    EXPECT_EQ(readFile(out), (remote / "a.frames").string() + "\n") << "shown once for all its materials";
    testing_support::LogCapture log;
    EXPECT_EQ(MaterialManager::revealFilesInOS(gone), MaterialManager::kNoneExists);
    EXPECT_EQ(log.count("MaterialManager::revealFilesInOS() File missing : " + (remote / "gone.frames").string() + "\n"),
              3) << "one line per material";
    EXPECT_EQ(MaterialManager::revealFilesInOS(Cookie('E', 5, 5)), MaterialManager::kNoneExists);
    EXPECT_EQ(readFile(out), (remote / "a.frames").string() + "\n") << "the browser was not asked again";
}

TEST_P(DownloadTasks, ASourceNameTooLongForItsPartialIsCutToFit) {
    const std::string name = std::string(244, 'L') + ".frames"; // 251 bytes: with ".partial", 259
    const Cookie a = remoteClip("long", name);
    auto task = finished(MaterialManager::localiseRemoteMedia(items({a}), kMediaHighRes, kNormal));
    EXPECT_EQ(task->result(), DownloadTask::eResult::eDone) << testing::PrintToString(errors(task));
    const std::string copy = physical(video(a));
    EXPECT_EQ(fs::path(copy).parent_path(), driveRoot / "video");
    EXPECT_EQ(fs::path(copy).filename().string().size(), 247u);
    EXPECT_EQ(fs::path(copy).extension(), ".frames");
    EXPECT_EQ(readFile(copy), readFile(remote / name));
}
