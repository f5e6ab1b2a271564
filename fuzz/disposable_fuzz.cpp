// Fuzz target for the picture-header reading that tells which video packets nobody refers
// to. The first byte picks the codec, the second how many of the following bytes are the
// stream's extradata; the rest is one packet. Both are exact-size copies, so that a read
// past either end is caught.
#include "backends/ffmpeg/FfmpegDisposable.h"

#include <algorithm>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    static const AVCodecID kCodecs[] = {AV_CODEC_ID_H264, AV_CODEC_ID_HEVC, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_MPEG4};
    const size_t extraSize = std::min<size_t>(data[1], size - 2);
    std::vector<uint8_t> extra(data + 2, data + 2 + extraSize);
    std::vector<uint8_t> packet(data + 2 + extraSize, data + size);
    AVCodecParameters par{};
    par.codec_id = kCodecs[data[0] % 4];
    par.extradata = extra.empty() ? nullptr : extra.data();
    par.extradata_size = int(extra.size());
    ffmpeg_engine::DisposablePictures pictures(par);
    AVPacket pkt{};
    pkt.data = packet.empty() ? nullptr : packet.data();
    pkt.size = int(packet.size());
    pkt.flags = data[0] & 0x80 ? AV_PKT_FLAG_KEY : 0;
    pictures.observe(pkt);
    pictures.disposable(pkt);
    return 0;
}
