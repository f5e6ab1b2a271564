// Fuzz target for the RIFF WAVE header parser.
#include "backends/wav/WavFormat.h"

#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    wav::ReadAt read = [&](uint64_t offset, void* buf, size_t n) -> int64_t {
        if (offset >= size) return 0;
        size_t take = size - size_t(offset) < n ? size - size_t(offset) : n;
        std::memcpy(buf, data + offset, take);
        return int64_t(take);
    };
    wav::Info info;
    std::string error;
    if (wav::parseHeader(read, size, info, error)) {
        if (info.dataOffset > size || info.dataOffset + info.dataBytes > size || info.blockAlign == 0 ||
            info.dataBytes % info.blockAlign != 0 || info.channels == 0)
            std::abort();
        std::vector<uint8_t> header = wav::makeHeader(info, info.dataBytes);
        wav::Info again;
        std::vector<uint8_t> file(header);
        file.resize(header.size() + size_t(info.dataBytes));
        wav::ReadAt readBack = [&](uint64_t offset, void* buf, size_t n) -> int64_t {
            if (offset >= file.size()) return 0;
            size_t take = file.size() - size_t(offset) < n ? file.size() - size_t(offset) : n;
            std::memcpy(buf, file.data() + offset, take);
            return int64_t(take);
        };
        if (!wav::parseHeader(readBack, file.size(), again, error) || again.channels != info.channels ||
            again.bitsPerSample != info.bitsPerSample || again.dataBytes != info.dataBytes ||
            again.formatTag != info.formatTag)
            std::abort();
    } else if (error.empty()) {
        std::abort();
    }
    return 0;
}
