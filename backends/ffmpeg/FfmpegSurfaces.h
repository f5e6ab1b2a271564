// Between FFmpeg's pictures and the host's surfaces: which host pixel format an FFmpeg
// pixel format is (and back), the format a decoded picture is delivered in for a requested
// DecodeFormat (the picture's own when none is set), and handing a picture to a surface.
// A picture already in the wanted form is handed over without a copy: the surface keeps a
// reference to FFmpeg's buffers; anything else is converted with libswscale first.
#pragma once

#include "backends/ffmpeg/FfmpegCommon.h"
#include "backends/ffmpeg/FfmpegPicture.h"
#include "host/media/DecodeFormat.h"
#include "host/media/MemHolder.h"
#include "host/media/Surface.h"

namespace ffmpeg_backend {

using ffmpeg_engine::FramePtr;

// The host format of an FFmpeg pixel format (the full-range "yuvj" formats map to their
// plain twins), kFormatUnknown when the host has none.
Zn::Image::eDataFormat hostFormatOf(AVPixelFormat format);
// The FFmpeg pixel format of a raw host format, AV_PIX_FMT_NONE when there is none.
AVPixelFormat avFormatOf(Zn::Image::eDataFormat format);
// The host format a picture of this FFmpeg format is delivered in when none is asked
// for: its own, or the nearest one the host has (no loss of depth or chroma detail where
// avoidable).
Zn::Image::eDataFormat nativeHostFormat(AVPixelFormat format);
Zn::Image::eColourRange colourRangeOf(const AVFrame& picture);
Zn::Image::eColourSpace colourSpaceOf(AVColorSpace space);

// Memory that keeps an FFmpeg picture's buffers alive (a new reference, no copy).
class FrameHolder : public iMemHolder {
public:
    explicit FrameHolder(FramePtr picture) : picture_(std::move(picture)) {}
    uint8_t* getBuffer() const override { return picture_->data[0]; }
    uint32_t getSize() const override;
    uint32_t getUsed() const override { return getSize(); }
    uint32_t setUsed(uint32_t) override { return getSize(); }
    const AVFrame& picture() const { return *picture_; }

private:
    FramePtr picture_;
};

// Memory that keeps a compressed packet alive (a new reference, no copy).
class PacketHolder : public iMemHolder {
public:
    explicit PacketHolder(ffmpeg_engine::PacketPtr packet) : packet_(std::move(packet)) {}
    uint8_t* getBuffer() const override { return packet_->data; }
    uint32_t getSize() const override { return uint32_t(packet_->size); }
    uint32_t getUsed() const override { return uint32_t(packet_->size); }
    uint32_t setUsed(uint32_t) override { return uint32_t(packet_->size); }
    const AVPacket& packet() const { return *packet_; }

private:
    ffmpeg_engine::PacketPtr packet_;
};

// Turns decoded pictures into surfaces in a wanted format. One thread at a time (it keeps
// its libswscale context).
class SurfaceMaker {
public:
    // Fills surface (pending or empty) with the picture in the form `wanted` asks for: its
    // size and pixel format when its core data is set (either may be 0/unknown to keep the
    // picture's), else the picture's own. Does not complete the surface. Answers false
    // with a reason when the picture cannot be delivered so.
    bool fill(const AVFrame& picture, const DecodeFormat& wanted, Zn::Image::Surface& surface, std::string& error);

private:
    ffmpeg_engine::PictureConverter converter_;
};

} // namespace ffmpeg_backend
