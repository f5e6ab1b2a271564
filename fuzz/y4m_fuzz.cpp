// Fuzz target for the YUV4MPEG2 stream and frame header parsers.
#include "backends/y4m/Y4mFormat.h"

#include <cstdlib>
#include <cstring>
#include <memory>

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
        y4m::StreamHeader again;
        std::string text = y4m::formatStreamHeader(h);
        if (!y4m::parseStreamHeader(reinterpret_cast<const uint8_t*>(text.data()), text.size(), again, error) ||
            again.width != h.width || again.height != h.height || again.frameBytes() != h.frameBytes())
            std::abort();
    } else if (error.empty()) {
        std::abort();
    }
    return 0;
}
