// Fuzz target for the RIFF chunk reader: walks the input as RIFF chunks both ways (the
// header reader with its damaged-length stop, and code-and-size with its rounding),
// skipping each body, and checks what each answer promises.
#include "host/os/MemoryFile.h"
#include "playfile/material/MaterialFile.h"

#include <cstdlib>
#include <string_view>

namespace {

void walkHeaders(MaterialFile& riff, iFile& file) {
    for (;;) {
        const uint64_t at = file.position();
        unsigned fourcc = 0, length = 0;
        if (!riff.readRIFFChunkHeader(fourcc, length)) {
            // Either fewer than 8 bytes were left or the length marks a damaged header.
            if (at + 8 <= file.size() && length != MaterialFile::kDamagedChunkLength) std::abort();
            return;
        }
        if (file.position() != at + 8) std::abort();
        file.seek(file.position() + length + (length & 1));
    }
}

void walkCodesAndSizes(MaterialFile& riff, iFile& file) {
    for (;;) {
        const uint64_t at = file.position();
        unsigned fourcc = 0, length = 0;
        if (!riff.readNextFourCCAndSize(fourcc, length)) {
            if (at + 4 < file.size()) std::abort(); // bytes were left for the length
            return;
        }
        if (length & 1) std::abort();
        if (file.position() <= at) std::abort(); // every step moves on
        file.seek(file.position() + length);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    Zn::Ptr<iFile> file(new MemoryFile(bytes));
    MaterialFile riff;
    riff.set(file);
    if (!riff.hasFile() || riff.getAlignment() < 512) std::abort();
    walkHeaders(riff, *file);
    file->seek(0);
    walkCodesAndSizes(riff, *file);
    // Whatever the input, the end of the file answers false everywhere.
    file->seek(size);
    unsigned a = 0, b = 0;
    if (riff.readRIFFChunkHeader(a, b) || riff.readNextFourCC(a) || riff.readNextFourCCAndSize(a, b)) std::abort();
    return 0;
}
