// Which video packets hold a picture that no other picture refers to, so that a decode
// that does not show it may leave it out: the container's word where it gives one
// (AV_PKT_FLAG_DISPOSABLE, from a QuickTime sample-dependency table), else the codec's own
// headers: H.264 slices with nal_ref_idc 0, HEVC sub-layer non-reference pictures in the
// highest temporal sub-layer, MPEG-1/2 B-pictures and MPEG-4 part 2 B-VOPs. H.264 and HEVC
// come length-prefixed (avcC / hvcC extradata, as in MP4 and Matroska) or with start
// codes (Annex B, as in elementary streams and MPEG-TS); the extradata tells which.
// Anything unclear (another codec, a damaged or truncated header) counts as referred to.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavcodec/packet.h>
}

namespace ffmpeg_engine {

class DisposablePictures {
public:
    explicit DisposablePictures(const AVCodecParameters& codec);

    // True when no other picture refers to the picture of pkt. Also learns from the
    // packets what their headers tell of the stream (HEVC's temporal sub-layers in its
    // parameter sets, MPEG-4's packed B-frames), so every packet sent to the decoder should
    // pass through observe() or disposable().
    bool disposable(const AVPacket& pkt);
    void observe(const AVPacket& pkt);

    // The same for a packet's bytes alone (no container flag); for the fuzz target.
    bool disposable(const uint8_t* data, size_t size);

private:
    enum class Kind { None, H264, Hevc, Mpeg12, Mpeg4 };
    struct Verdict {
        int pictures = 0;    // coded picture units seen
        bool referred = false; // one of them may be referred to
    };
    // Walks the NAL units of one packet (or of the extradata), handing each to onNal.
    template <class OnNal> void forEachNal(const uint8_t* data, size_t size, bool prefixed, OnNal onNal) const;
    void learnSequenceParameters(const uint8_t* nal, size_t n);
    void learnFromUnits(const uint8_t* data, size_t size, bool prefixed);
    Verdict h264(const uint8_t* data, size_t size) const;
    Verdict hevc(const uint8_t* data, size_t size);
    Verdict startCodePictures(const uint8_t* data, size_t size);

    Kind kind_ = Kind::None;
    int lengthSize_ = 0; // bytes of each NAL unit's length prefix; 0 for start codes
    int highestTemporalId_ = -1; // HEVC: from the sequence parameter set; -1 unknown
    bool packed_ = false;        // MPEG-4 with packed B-frames: nothing is left out
};

} // namespace ffmpeg_engine
