// Fuzz target for the YUV4MPEG2 stream and frame header parsers: no input crashes them, and
// a header they accept, written back, parses to the same header.
#include "backends/y4m/Y4mFormat.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

bool sameHeader(const y4m::StreamHeader& a, const y4m::StreamHeader& b) {
    return a.width == b.width && a.height == b.height && a.rateNum == b.rateNum && a.rateDen == b.rateDen &&
           a.aspectNum == b.aspectNum && a.aspectDen == b.aspectDen && a.interlace == b.interlace &&
           std::strcmp(a.layout.chromaTag, b.layout.chromaTag) == 0 && a.frameBytes() == b.frameBytes();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exactly sized copy, so that a sanitizer sees any read past the end.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[size ? size : 1]);
    if (size) std::memcpy(copy.get(), data, size);
    y4m::StreamHeader h;
    std::string error;
    if (y4m::parseStreamHeader(copy.get(), size, h, error)) {
        if (h.headerBytes > size || h.width < 1 || h.height < 1 || h.frameBytes() == 0 ||
            h.frameBytes() > y4m::kMaxFrameBytes)
            std::abort();
        size_t frame = y4m::parseFrameHeader(copy.get() + h.headerBytes, size - h.headerBytes);
        if (frame > size - h.headerBytes) std::abort();
        // Written back and parsed again, every header it accepts is the same header.
        y4m::StreamHeader again;
        const std::string text = y4m::formatStreamHeader(h);
        if (!y4m::parseStreamHeader(reinterpret_cast<const uint8_t*>(text.data()), text.size(), again, error) ||
            again.headerBytes != text.size() || !sameHeader(h, again) || y4m::formatStreamHeader(again) != text)
            std::abort();
    } else if (error.empty()) {
        std::abort();
    }
    return 0;
}
