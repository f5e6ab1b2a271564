// MaterialManager's queries on real projects: clips imported in place and copied, files
// in a folder that counts as remote, missing files, proxies, and a remote project space
// with mount points. Grouped by query; each case says what it shows.
#include "MaterialProject.h"

#include "playfile/material/MaterialManager.h"

#include <gtest/gtest.h>

namespace material_test {
namespace {

std::set<Cookie> materialsOf(const Cookie& log) {
    std::set<Cookie> out;
    MaterialManager::getReferencedMediaFiles(CookieVec{log}, out);
    return out;
}

struct Answer {
    const char* what;
    Cookie item;
    eMediaTypes types;
    bool expected;
};

void expectAll(const std::vector<Answer>& cases, const std::function<bool(const Cookie&, eMediaTypes)>& ask) {
    for (const Answer& c : cases) EXPECT_EQ(ask(c.item, c.types), c.expected) << c.what << " (types " << c.types << ")";
}

using MaterialQueries = OnBothDatabases<MaterialProject>;
PLAYFILE_ON_BOTH_DATABASES(MaterialQueries);

TEST_P(MaterialQueries, RemoteInALocalSpaceMeansALinkedFileOnARemoteLocation) {
    Cookie local = importNew(this->local, "local.mov");
    Cookie linkedRemote = importNew(remote, "remote.mov");
    Cookie copiedFromRemote = importNew(remote, "copied.mov", true);
    Cookie remoteProxy = importNew(this->local, "with remote proxy.mov");
    addProxy(remoteProxy, makeFile(remote / "proxy.mov", 100), true);
    Cookie driveProxy = importNew(this->local, "with drive proxy.mov");
    addProxy(driveProxy, makeFile(remote / "proxy2.mov", 100), false);
    // A drive whose root is remote: files held on it are not linked, so not remote.
    ASSERT_TRUE(DiskManager::addDrive(DriveId('B'), W((remote / "drive B").string()), W("B"), "", nullptr));
    ImportOptions onB;
    onB.copy = true, onB.drive = DriveId('B'), onB.videoChannels = 1, onB.audioChannels = 0;
    Cookie onRemoteDrive = ProjectImporter(onB).importFile(W(makeFile(this->local / "b.mov", 10))).clip;
    Cookie missingRemote = importNew(remote, "gone.mov");
    std::filesystem::remove(remote / "gone.mov");

    expectAll({{"a linked local file", local, kMediaAll, false},
               {"a linked remote file", linkedRemote, kMediaHighRes, true},
               {"a linked remote file has no proxy", linkedRemote, kMediaProxy, false},
               {"a copy of a remote file", copiedFromRemote, kMediaAll, false},
               {"a linked remote proxy", remoteProxy, kMediaProxy, true},
               {"a linked remote proxy, high-res asked", remoteProxy, kMediaHighRes, false},
               {"a linked remote proxy, both asked", remoteProxy, kMediaAll, true},
               {"a proxy held on the drive", driveProxy, kMediaAll, false},
               {"a file held on a remote drive", onRemoteDrive, kMediaAll, false},
               {"a missing file whose name is remote", missingRemote, kMediaHighRes, true}},
              [](const Cookie& c, eMediaTypes t) { return MaterialManager::isMediaRemote(materialsOf(c), t); });
    EXPECT_FALSE(MaterialManager::isMediaRemote(std::set<Cookie>{}, kMediaAll));
    EXPECT_TRUE(MaterialManager::isMediaRemote(video(linkedRemote), kMediaHighRes)); // the one-cookie form
    EXPECT_TRUE(MaterialManager::logsReferToRemoteMedia(CookieVec{local, linkedRemote}, kMediaHighRes));
}

TEST_P(MaterialQueries, RemoteInARemoteSpaceMeansUnderAMountPointOrAnAvailableLinkedProxy) {
    const auto server = tmp.path() / "server";
    Cookie underMount = importNew(server, "on server.mov");
    Cookie elsewhere = importNew(local, "here.mov");
    Cookie copied = importNew(server, "copied.mov", true);
    // Linked through a symbolic link that leads under the mount point: the resolved name counts.
    makeFile(server / "target.mov", 100);
    std::filesystem::create_directories(local);
    std::filesystem::create_symlink(server / "target.mov", local / "alias.mov");
    Cookie viaLink = importPath((local / "alias.mov").string());
    Cookie proxyHere = importNew(local, "proxied.mov");
    addProxy(proxyHere, makeFile(local / "proxied.proxy.mov", 100), true);
    Cookie proxyGone = importNew(local, "proxy gone.mov");
    addProxy(proxyGone, local / "never made.proxy.mov", true);
    Cookie proxyOnDrive = importNew(local, "drive proxy.mov");
    addProxy(proxyOnDrive, makeFile(local / "dp.mov", 100), false);

    auto remoteAsked = [](const Cookie& c, eMediaTypes t) { return MaterialManager::isMediaRemote(materialsOf(c), t); };
    remoteSpace({(tmp.path() / "elsewhere").string(), server.string()});
    expectAll({{"linked under the second mount point", underMount, kMediaHighRes, true},
               {"linked elsewhere", elsewhere, kMediaHighRes, false},
               {"copied onto the drive", copied, kMediaHighRes, false},
               {"linked through a link into the mount", viaLink, kMediaHighRes, true},
               {"a linked proxy that is there", proxyHere, kMediaProxy, true},
               {"a linked proxy that is there, high-res asked", proxyHere, kMediaHighRes, false},
               {"a linked proxy that is missing", proxyGone, kMediaProxy, false},
               {"a proxy held on the drive", proxyOnDrive, kMediaProxy, false}},
              remoteAsked);
    remoteSpace({""}); // an empty mount path holds every file
    expectAll({{"linked elsewhere, empty mount path", elsewhere, kMediaHighRes, true},
               {"copied, empty mount path", copied, kMediaHighRes, false}},
              remoteAsked);
    remoteSpace({});
    expectAll({{"no mount points", underMount, kMediaHighRes, false}}, remoteAsked);
    {
        ScopedProjectSpaceResource none(nullptr);
        expectAll({{"no resource", underMount, kMediaAll, false}}, remoteAsked);
    }
}

TEST_P(MaterialQueries, LocalIsOnlyDefinedInARemoteSpace) {
    const auto server = tmp.path() / "server";
    Cookie here = importNew(local, "here.mov");
    Cookie onServer = importNew(server, "there.mov");
    Cookie missing = importNew(local, "gone.mov");
    std::filesystem::remove(local / "gone.mov");
    Cookie missingProxy = importNew(server, "proxied.mov");
    addProxy(missingProxy, local / "never made.proxy.mov", true);
    Cookie remoteProxy = importNew(server, "remote proxied.mov");
    addProxy(remoteProxy, makeFile(remote / "p.mov", 10), true);

    auto localAsked = [](const Cookie& c, eMediaTypes t) { return MaterialManager::isMediaLocal(materialsOf(c), t); };
    expectAll({{"a file on the local disk, local space", here, kMediaAll, false}}, localAsked);
    remoteSpace({server.string()});
    expectAll({{"present and under no mount point", here, kMediaHighRes, true},
               {"under the mount point", onServer, kMediaHighRes, false},
               {"missing", missing, kMediaHighRes, false},
               {"a missing proxy that is not remote still counts", missingProxy, kMediaProxy, true},
               {"a proxy on a remote location", remoteProxy, kMediaProxy, false}},
              localAsked);
    // The mount path is searched anywhere in the name: "local media" appears inside the
    // file's folder, so the file is not local, though it is not remote either.
    remoteSpace({"local media"});
    expectAll({{"mount path inside the name", here, kMediaHighRes, false}}, localAsked);
    EXPECT_FALSE(MaterialManager::isMediaRemote(materialsOf(here), kMediaHighRes));
    remoteSpace({""});
    expectAll({{"empty mount path", here, kMediaHighRes, false}}, localAsked);
    remoteSpace({});
    expectAll({{"no mount points", here, kMediaHighRes, false}}, localAsked);
    EXPECT_TRUE(MaterialManager::isMediaLocal(video(missingProxy), kMediaProxy)); // the one-cookie form
}

TEST_P(MaterialQueries, AvailabilityLooksAtTheFirstReferenceWithAnEntry) {
    Cookie present = importNew(local, "present.mov");
    Cookie gone = importNew(local, "gone.mov");
    std::filesystem::remove(local / "gone.mov");
    Cookie proxyOnly = importNew(local, "proxy only.mov");
    addProxy(proxyOnly, makeFile(local / "po.proxy.mov", 10), true);
    std::filesystem::remove(local / "proxy only.mov");
    // Filler first (no entry), then the missing clip, then the present one.
    EditPtr seq = makeSequence({{0, 1, Piece::eFiller, {}}, {1, 2, Piece::eClip, gone}, {2, 3, Piece::eClip, present}});

    expectAll({{"present", present, kMediaHighRes, true},
               {"missing", gone, kMediaHighRes, false},
               {"high-res missing, proxy there: high-res", proxyOnly, kMediaHighRes, false},
               {"high-res missing, proxy there: proxy", proxyOnly, kMediaProxy, true},
               {"high-res missing, proxy there: both", proxyOnly, kMediaAll, true},
               {"only the first reference with an entry counts", seq->getCookie(), kMediaHighRes, false},
               {"no such clip", Cookie('E', 9, 9), kMediaAll, false}},
              [](const Cookie& c, eMediaTypes t) { return MaterialManager::isMediaAvailable(c, t); });
    EXPECT_TRUE(MaterialManager::isHighResMediaAvailable(present));
    EXPECT_TRUE(MaterialManager::isProxyMediaAvailable(proxyOnly));
}

TEST_P(MaterialQueries, ReferencesAddToTheOutputWithoutClearingIt) {
    Cookie a = importNew(local, "a.mov");
    Cookie b = importNew(local, "b.mov", false, 0, 1);
    EditPtr seq = makeSequence({{0, 1, Piece::eClip, a}, {1, 2, Piece::eFiller, {}}});
    const Cookie kept('V', 7, 7, 0);
    std::set<Cookie> media{kept}, clips{kept};
    MaterialManager::getReferencedMediaFiles(CookieVec{seq->getCookie(), b, Cookie('E', 9, 9)}, media);
    MaterialManager::getReferencedClips(CookieVec{seq->getCookie(), b}, clips);
    EXPECT_EQ(media, (std::set<Cookie>{kept, video(a), sound(b, 1)}));
    EXPECT_EQ(clips, (std::set<Cookie>{kept, convertCookie(a, 'E', 255), b}));
    MaterialManager::getReferencedMediaFiles(CookieVec{}, media);
    EXPECT_EQ(media.size(), 3u);
}

TEST_P(MaterialQueries, DownloadsFetchRemoteHighResOrWhatTheServerHoldsAndIsNotLocal) {
    const auto server = tmp.path() / "server";
    Cookie linkedRemote = importNew(remote, "remote.mov");
    Cookie here = importNew(local, "here.mov");
    Cookie onServer = importNew(server, "there.mov");
    auto download = [](const Cookie& c, eMediaTypes t) { return MaterialManager::canDownload(c, t); };
    expectAll({{"remote high-res, local space", linkedRemote, kMediaHighRes, true},
               {"proxies never, outside a remote space", linkedRemote, kMediaProxy, false},
               {"local high-res, local space", here, kMediaAll, false}},
              download);
    EXPECT_FALSE(MaterialManager::canDownload(CookieVec{}, kMediaAll));

    remoteSpace({server.string()});
    for (Cookie c : {here, onServer}) {
        ASSERT_TRUE(ProjectSpacesManager::addServerMediaEntry(c, {video(c), WString()}));
        ASSERT_TRUE(ProjectSpacesManager::setServerProxies(c, true));
    }
    expectAll({{"server media, but the clip is local here", here, kMediaHighRes, false},
               {"server media, not local", onServer, kMediaHighRes, true},
               {"server proxies, no local proxy", onServer, kMediaProxy, true},
               {"the server holds nothing of it", linkedRemote, kMediaAll, false}},
              download);
    EXPECT_TRUE(MaterialManager::canDownload(CookieVec{here, onServer}, kMediaHighRes));
}

TEST_P(MaterialQueries, ImageClipsAnswerTheirFile) {
    std::string png = makeFile(local / "still.png", 64);
    Cookie image = importPath(png, false, 1, 0);
    Cookie movie = importNew(local, "movie.mov");
    EXPECT_EQ(U(MaterialManager::findFileForImageClip(image)), png);
    EXPECT_EQ(MaterialManager::findFileForImageClip(movie), WString());
    EXPECT_EQ(MaterialManager::findFileForImageClip(Cookie('E', 9, 9)), WString());
}

} // namespace
} // namespace material_test
