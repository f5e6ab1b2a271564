// An embedding program, built outside the project against the installed library only
// (its pkg-config flags): it writes a two-frame Y4M file, loads the back-ends, opens the
// file through the play file cache, reads its second frame and checks its pixels.
//   embedding_program FOLDER
#include "host/core/Strings.h"
#include "host/media/BackendPlugins.h"
#include "host/media/FrameBufferRep.h"
#include "playfile/EntryPoints.h"
#include "playfile/Version.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/requests/RequestWaiter.h"
#include "playfile/requests/VideoReadRequest.h"

#include <cstdio>
#include <fstream>
#include <string>

namespace {

constexpr int kWidth = 32, kHeight = 16;

int fail(const std::string& what) {
    std::fprintf(stderr, "embedding_program: %s\n", what.c_str());
    return 1;
}

// Frame k is flat: luma 40 + 100 k, both chroma planes 128.
bool writeY4m(const std::string& path) {
    std::ofstream out(path, std::ios::binary);
    out << "YUV4MPEG2 W" << kWidth << " H" << kHeight << " F25:1 Ip A1:1 C420jpeg\n";
    for (int k = 0; k < 2; ++k) {
        out << "FRAME\n";
        out << std::string(kWidth * kHeight, char(40 + 100 * k));
        out << std::string(kWidth * kHeight / 2, char(128));
    }
    return bool(out);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) return fail("usage: embedding_program FOLDER");
    const std::string path = std::string(argv[1]) + "/two.y4m";
    if (!writeY4m(path)) return fail("cannot write " + path);

    Zn::BackendPlugins::loadAll();
    Zn::Ptr<FileReadInstance> file =
        PlayFileCache::Shared().open(fromUTF8(path.c_str()), Cookie(), DecodeFormat(1), OpenType::kVideo, 0);
    if (!file) return fail("the library did not open " + path);
    const unsigned frames = file->getMetadata()->getFrameCount();
    if (frames != 2) return fail("expected 2 frames, the library found " + std::to_string(frames));

    RequestWaiter waiter;
    Zn::Ptr<IndexInfoRep> index;
    auto request = Zn::makePtr<VideoReadRequest>(file, index, 1u, kResultDecoded, DecodeFormat(1), waiter.getProxy());
    if (!waiter.queue(request) || !waiter.wait(std::chrono::seconds(30)) || waiter.status() != Complete)
        return fail("reading frame 1 failed");
    auto buffer = Zn::dynamicPtrCast<FrameBufferRep>(waiter.result());
    if (!buffer) return fail("the read answered no frame buffer");
    Zn::Image::Surface picture = buffer->getSurface(0);
    if (picture.wait() != Zn::Image::Surface::kWaitComplete || picture.getWidth() != kWidth ||
        picture.getHeight() != kHeight)
        return fail("frame 1 is not a 32x16 picture");
    const int luma = picture.plane(0)[0];
    if (luma != 140) return fail("frame 1's luma is " + std::to_string(luma) + ", not 140");
    request = nullptr;
    file = nullptr;
    playfile_close_all_files();
    std::printf("playfile %s: read frame 1 of 2 (%dx%d, luma %d)\n", playfileDllVersionStr(), kWidth, kHeight, luma);
    return 0;
}
