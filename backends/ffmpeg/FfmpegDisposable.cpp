// Reads just enough of each picture's headers to know whether it can be a reference:
// the first bytes of every NAL unit or picture start code in the packet, nothing more.
#include "backends/ffmpeg/FfmpegDisposable.h"

#include <algorithm>
#include <cstring>

namespace ffmpeg_engine {

namespace {

// Where the next start code (00 00 01) at or after from begins; size when there is none.
size_t nextStartCode(const uint8_t* data, size_t size, size_t from) {
    while (from + 3 <= size) {
        const void* one = std::memchr(data + from + 2, 1, size - from - 2);
        if (!one) return size;
        const size_t at = size_t(static_cast<const uint8_t*>(one) - data) - 2;
        if (data[at] == 0 && data[at + 1] == 0) return at;
        from = at + 1;
    }
    return size;
}

bool startsWithStartCode(const uint8_t* data, size_t size) {
    return (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) ||
           (size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1);
}

} // namespace

DisposablePictures::DisposablePictures(const AVCodecParameters& codec) {
    const uint8_t* extra = codec.extradata;
    const size_t extraSize = codec.extradata && codec.extradata_size > 0 ? size_t(codec.extradata_size) : 0;
    switch (codec.codec_id) {
    case AV_CODEC_ID_H264:
        kind_ = Kind::H264;
        // avcC: version 1, then the prefix length in the low bits of byte 4.
        if (extraSize >= 7 && extra[0] == 1) lengthSize_ = (extra[4] & 3) + 1;
        break;
    case AV_CODEC_ID_HEVC:
        kind_ = Kind::Hevc;
        if (extraSize >= 23 && !startsWithStartCode(extra, extraSize)) {
            // hvcC: the prefix length in byte 21, then arrays of parameter-set NAL units.
            lengthSize_ = (extra[21] & 3) + 1;
            size_t at = 23;
            for (int arrays = extra[22]; arrays > 0 && at + 3 <= extraSize; --arrays) {
                int units = extra[at + 1] << 8 | extra[at + 2];
                at += 3;
                for (; units > 0 && at + 2 <= extraSize; --units) {
                    const size_t n = size_t(extra[at] << 8 | extra[at + 1]);
                    at += 2;
                    if (n > extraSize - at) return;
                    learnSequenceParameters(extra + at, n);
                    at += n;
                }
            }
        } else if (extraSize > 0) {
            learnFromUnits(extra, extraSize, false);
        }
        break;
    case AV_CODEC_ID_MPEG1VIDEO:
    case AV_CODEC_ID_MPEG2VIDEO:
        kind_ = Kind::Mpeg12;
        break;
    case AV_CODEC_ID_MPEG4:
        kind_ = Kind::Mpeg4;
        break;
    default:
        break;
    }
}

template <class OnNal>
void DisposablePictures::forEachNal(const uint8_t* data, size_t size, bool prefixed, OnNal onNal) const {
    if (prefixed) {
        size_t at = 0;
        while (at + size_t(lengthSize_) <= size) {
            size_t n = 0;
            for (int i = 0; i < lengthSize_; ++i) n = n << 8 | data[at + size_t(i)];
            at += size_t(lengthSize_);
            if (n == 0 || n > size - at) {
                onNal(nullptr, 0); // damaged: the caller decides what that means
                return;
            }
            if (!onNal(data + at, n)) return;
            at += n;
        }
        return;
    }
    size_t at = nextStartCode(data, size, 0);
    while (at < size) {
        const size_t begin = at + 3;
        const size_t end = nextStartCode(data, size, begin);
        if (begin < end && !onNal(data + begin, end - begin)) return;
        at = end;
    }
}

void DisposablePictures::learnSequenceParameters(const uint8_t* nal, size_t n) {
    // A sequence parameter set: after the two header bytes, 4 bits of VPS id, then
    // sps_max_sub_layers_minus1. With several sets the highest counts.
    if (nal && n >= 3 && ((nal[0] >> 1) & 0x3f) == 33)
        highestTemporalId_ = std::max(highestTemporalId_, (nal[2] >> 1) & 7);
}

void DisposablePictures::learnFromUnits(const uint8_t* data, size_t size, bool prefixed) {
    forEachNal(data, size, prefixed, [this](const uint8_t* nal, size_t n) {
        learnSequenceParameters(nal, n);
        return true;
    });
}

DisposablePictures::Verdict DisposablePictures::h264(const uint8_t* data, size_t size) const {
    Verdict v;
    forEachNal(data, size, lengthSize_ > 0, [&v](const uint8_t* nal, size_t n) {
        if (!nal || n < 1 || (nal[0] & 0x80)) {
            v.referred = true;
            return false;
        }
        const int type = nal[0] & 0x1f;
        if (type >= 1 && type <= 5) {
            ++v.pictures;
            // IDR pictures and slices with a non-zero nal_ref_idc are references.
            if (type == 5 || (nal[0] >> 5) != 0) v.referred = true;
        } else if (type == 20 || type == 21) {
            v.referred = true; // slices of other views or layers: not looked into
        }
        return !v.referred;
    });
    return v;
}

DisposablePictures::Verdict DisposablePictures::hevc(const uint8_t* data, size_t size) {
    Verdict v;
    forEachNal(data, size, lengthSize_ > 0, [&](const uint8_t* nal, size_t n) {
        if (!nal || n < 2 || (nal[0] & 0x80) || (nal[1] & 7) == 0) {
            v.referred = true;
            return false;
        }
        const int type = (nal[0] >> 1) & 0x3f;
        const int layer = (nal[0] & 1) << 5 | nal[1] >> 3;
        const int temporalId = (nal[1] & 7) - 1;
        if (type == 33) learnSequenceParameters(nal, n);
        if (type > 31) return true;
        ++v.pictures;
        // Sub-layer non-reference pictures (TRAIL_N, TSA_N, STSA_N, RADL_N, RASL_N and the
        // reserved even types below 16) serve as references to higher sub-layers only: in
        // the highest one, to nobody. Other layers are not looked into.
        const bool subLayerNonReference = type <= 14 && type % 2 == 0;
        if (!subLayerNonReference || layer != 0 || highestTemporalId_ < 0 || temporalId != highestTemporalId_)
            v.referred = true;
        return !v.referred;
    });
    return v;
}

DisposablePictures::Verdict DisposablePictures::startCodePictures(const uint8_t* data, size_t size) {
    Verdict v;
    const bool mpeg4 = kind_ == Kind::Mpeg4;
    forEachNal(data, size, false, [&](const uint8_t* unit, size_t n) {
        if (unit[0] != (mpeg4 ? 0xB6 : 0x00)) return true;
        if (!mpeg4) {
            // picture_header: 10 bits of temporal_reference, then picture_coding_type (3: B).
            if (n < 3 || ((unit[2] >> 3) & 7) != 3) v.referred = true;
        } else {
            // VOP header: vop_coding_type in the top two bits (2: B).
            if (n < 2 || (unit[1] >> 6) != 2) v.referred = true;
        }
        ++v.pictures;
        // MPEG-4 counts on: a packet of two VOPs tells a stream of packed B-frames.
        return mpeg4 || !v.referred;
    });
    // Packed B-frames (DivX, Xvid) hide a B-VOP in the packet of the P-VOP after it and
    // send a placeholder later, which the decoder needs to show the held-back picture.
    if (mpeg4 && v.pictures > 1) packed_ = true;
    if (packed_) v.referred = true;
    return v;
}

bool DisposablePictures::disposable(const uint8_t* data, size_t size) {
    if (!data || size == 0) return false;
    Verdict v;
    switch (kind_) {
    case Kind::H264: v = h264(data, size); break;
    case Kind::Hevc: v = hevc(data, size); break;
    case Kind::Mpeg12:
    case Kind::Mpeg4: v = startCodePictures(data, size); break;
    case Kind::None: return false;
    }
    return v.pictures > 0 && !v.referred;
}

bool DisposablePictures::disposable(const AVPacket& pkt) {
    if (pkt.flags & AV_PKT_FLAG_DISPOSABLE) return true;
    if (pkt.size <= 0) return false;
    return disposable(pkt.data, size_t(pkt.size));
}

void DisposablePictures::observe(const AVPacket& pkt) {
    if (!pkt.data || pkt.size <= 0) return;
    // Parameter sets come with the pictures a decode can start at.
    if (kind_ == Kind::Hevc && (pkt.flags & AV_PKT_FLAG_KEY)) learnFromUnits(pkt.data, size_t(pkt.size), lengthSize_ > 0);
    if (kind_ == Kind::Mpeg4 && !packed_) startCodePictures(pkt.data, size_t(pkt.size));
}

} // namespace ffmpeg_engine
