#include "playfile/requests/VideoReadRequest.h"

#include "host/media/DecoderInfo.h"
#include "host/os/OS.h"
#include "playfile/open/FileReadInstance.h"

VideoReadRequest::VideoReadRequest(Zn::Ptr<FileReadInstance>& file, Zn::Ptr<IndexInfoRep>& indexInfo,
                                   unsigned int frame, eResultType resultType, const DecodeFormat& format,
                                   Zn::Ptr<ReadRequestIssuer::Proxy> proxy)
    : DecodeFormat(format), frame_(frame), indexInfo_(indexInfo), resultType_(resultType), file_(file) {
    proxies_.insert(proxy);
    coverFrames();
}

VideoReadRequest::~VideoReadRequest() = default;

void VideoReadRequest::setResultBuffer(Zn::Ptr<FrameBufferRep> buffer) {
    // The new buffer is referenced (by the argument) before the old one is released.
    if (buffer.get() != resultBuffer_.get()) std::swap(resultBuffer_, buffer);
}

void VideoReadRequest::coverFrames() {
    uint32_t& first = firstCovered_;
    uint32_t& last = lastCovered_;
    if (indexInfo_) {
        first = indexInfo_->getBaseFrame() + indexInfo_->getOffset();
        last = indexInfo_->getLastFrame();
        return;
    }
    const PlayFileMetadataRep* meta = file_ ? file_->getMetadata().get() : nullptr;
    if (meta && meta->framesAreGrouped() && meta->getGroupSize() > 0) {
        uint32_t g = meta->getGroupSize();
        first = frame_ - frame_ % g;
        last = first + g - 1;
        return;
    }
    first = last = frame_;
}

void VideoReadRequest::doCallbacks(Zn::Ptr<iObject>& result, RequestStatus status) {
    proxies_.deliver(result, status, [] {});
}

RequestStatus VideoReadRequest::finishFrameBuffer(FrameBufferRep& buffer, RequestStatus s) {
    Zn::Ptr<FrameBufferRep> held(&buffer);
    const VideoDecompressionInfo& info = buffer.getVideoDecompressionInfo();
    if (buffer.isCompressedFormat() && Zn::Image::isCompressedFormat(buffer.getMetadata().image.getDataFormat())) {
        buffer.getFormat().setDecodeFormat(*this);
        if (resultType_ != kResultCompressed) {
            Zn::Ptr<Zn::iDecoder> decoder = Zn::DecoderInfo::getDecoderFor(info);
            if (!decoder || decoder->decodeFrame(held) != 1) {
                s = RequestStatus::Failed;
                buffer.setDecompressComplete(FrameBufferRep::kDecompressFailed);
            }
        } else {
            // Left compressed: a later decode may claim it again.
            buffer.decompressionState().store(FrameBufferRep::kCompressed, std::memory_order_release);
        }
        return s;
    }
    // Raw pixels as read: describe them as the frame's surface without copying; the
    // surface keeps the data block alive.
    Zn::Image::Surface surface;
    surface.attachContiguous(info.core, buffer.getCompressedData(0), info.bufferFormat.stride,
                             buffer.getCompressedMemory(0));
    const FrameBufferMetadata& meta = buffer.getMetadata();
    surface.setOrientation(meta.orientation);
    surface.setColour(meta.colourSpace, meta.colourRange);
    buffer.setSurface(0, surface);
    buffer.setDecompressComplete(FrameBufferRep::kDecompressed);
    return s;
}

void VideoReadRequest::requestHasCompleted(RequestStatus status) {
    RequestStatus s = status;
    Zn::Ptr<FrameBufferRep> buffer = resultBuffer_;
    if (status == RequestStatus::Complete && getStatus() != RequestStatus::Complete && buffer &&
        OSServices::atomicCompareExchange(buffer->decompressionState(), FrameBufferRep::kCompressed,
                                          FrameBufferRep::kDecompressing)) {
        s = finishFrameBuffer(*buffer, s);
    }
    // The status changes under the request lock, after the calls: a reader that sees it
    // final knows the issuers were called, and an issuer joining under the same lock
    // either is called here or finds the final status and is served by the queue.
    Zn::Ptr<iObject> result(buffer);
    proxies_.deliver(result, s, [&] { setStatus(s); });
}
