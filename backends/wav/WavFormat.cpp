#include "backends/wav/WavFormat.h"

#include "host/os/FileManager.h"
#include "playfile/material/MaterialFile.h"

#include <cstring>

namespace wav {

namespace {

uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }
uint32_t le32(const uint8_t* p) { return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24); }
uint64_t le64(const uint8_t* p) { return uint64_t(le32(p)) | (uint64_t(le32(p + 4)) << 32); }

void put16(std::vector<uint8_t>& v, uint16_t x) {
    v.push_back(uint8_t(x));
    v.push_back(uint8_t(x >> 8));
}
void put32(std::vector<uint8_t>& v, uint32_t x) {
    put16(v, uint16_t(x));
    put16(v, uint16_t(x >> 16));
}
void put64(std::vector<uint8_t>& v, uint64_t x) {
    put32(v, uint32_t(x));
    put32(v, uint32_t(x >> 32));
}
void putId(std::vector<uint8_t>& v, const char* id) { v.insert(v.end(), id, id + 4); }

// The reader's callback as a file, so that the chunk walk reads through MaterialFile.
class CallbackFile final : public iFile {
public:
    CallbackFile(const ReadAt& read, uint64_t size) : read_(read), size_(size) {}
    int64_t read(void* buf, uint64_t n) override {
        int64_t got = read_(position_, buf, size_t(n));
        if (got > 0) position_ += uint64_t(got);
        return got;
    }
    int64_t readAt(uint64_t offset, void* buf, uint64_t n) override { return read_(offset, buf, size_t(n)); }
    bool seek(uint64_t offset) override {
        position_ = offset;
        return true;
    }
    uint64_t position() const override { return position_; }
    uint64_t size() const override { return size_; }
    const WString& name() const override { return name_; }

private:
    const ReadAt& read_;
    uint64_t size_;
    uint64_t position_ = 0;
    WString name_;
};

bool isCode(unsigned code, const char* text) { return std::memcmp(&code, text, 4) == 0; }

bool readBody(iFile& file, uint64_t offset, void* buf, size_t n) {
    return file.seek(offset) && file.read(buf, n) == int64_t(n);
}

// The data chunk at body: size bytes as its header says (0 when the writer never came
// back to fill it in). An unknown size, or one past the end of a cut file, runs to the
// end of the file.
bool takeData(Info& info, uint64_t body, uint64_t fileSize, uint64_t size, Info& out) {
    const uint64_t available = fileSize - body;
    if (size == 0 || size > available) {
        size = available;
        info.dataRunsToEnd = true;
    }
    info.dataOffset = body;
    info.dataBytes = size - size % info.blockAlign;
    out = info;
    return true;
}

// The GUID tail shared by the KSDATAFORMAT_SUBTYPE_* values.
constexpr uint8_t kGuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                   0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

bool parseFormat(const uint8_t* f, uint32_t size, Info& info, std::string& error) {
    if (size < 16) {
        error = "format chunk too short";
        return false;
    }
    uint16_t tag = le16(f);
    info.channels = le16(f + 2);
    info.sampleRate = le32(f + 4);
    info.blockAlign = le16(f + 12);
    info.bitsPerSample = le16(f + 14);
    info.validBits = info.bitsPerSample;
    if (tag == kFormatExtensible) {
        if (size < 40) {
            error = "extensible format chunk too short";
            return false;
        }
        info.extensible = true;
        info.validBits = le16(f + 18);
        info.channelMask = le32(f + 20);
        if (std::memcmp(f + 26, kGuidTail, sizeof kGuidTail) != 0) {
            error = "unsupported extensible sub-format";
            return false;
        }
        tag = le16(f + 24);
    }
    if (tag != kFormatPcm && tag != kFormatFloat) {
        error = "unsupported WAVE format tag " + std::to_string(tag) + " (only PCM and float)";
        return false;
    }
    info.formatTag = tag;
    if (info.channels == 0 || info.channels > kMaxChannels) {
        error = "absurd channel count " + std::to_string(info.channels);
        return false;
    }
    if (info.sampleRate == 0 || info.sampleRate > kMaxSampleRate) {
        error = "absurd sample rate " + std::to_string(info.sampleRate);
        return false;
    }
    bool intOk = tag == kFormatPcm && (info.bitsPerSample == 8 || info.bitsPerSample == 16 ||
                                       info.bitsPerSample == 24 || info.bitsPerSample == 32);
    bool floatOk = tag == kFormatFloat && (info.bitsPerSample == 32 || info.bitsPerSample == 64);
    if (!intOk && !floatOk) {
        error = "unsupported sample size of " + std::to_string(info.bitsPerSample) + " bits";
        return false;
    }
    if (info.validBits == 0 || info.validBits > info.bitsPerSample) info.validBits = info.bitsPerSample;
    const unsigned expected = unsigned(info.channels) * info.bytesPerSample();
    if (info.blockAlign != expected) {
        error = "block size " + std::to_string(info.blockAlign) + " does not match " +
                std::to_string(info.channels) + " channels of " + std::to_string(info.bitsPerSample) + " bits";
        return false;
    }
    return true;
}

} // namespace

bool parseHeader(const ReadAt& read, uint64_t fileSize, Info& out, std::string& error) {
    Zn::Ptr<iFile> file(new CallbackFile(read, fileSize));
    MaterialFile riff;
    riff.set(file);
    unsigned form = 0, riffSize = 0, wave = 0;
    if (fileSize < 12 || !riff.readRIFFChunkHeader(form, riffSize) || !riff.readNextFourCC(wave) ||
        (!isCode(form, "RIFF") && !isCode(form, "RF64") && !isCode(form, "BW64")) || !isCode(wave, "WAVE")) {
        error = riffSize == MaterialFile::kDamagedChunkLength ? "damaged RIFF header (length 0xFF000000)"
                                                              : "not a RIFF WAVE file";
        return false;
    }
    Info info;
    info.rf64 = !isCode(form, "RIFF");
    uint64_t ds64DataSize = 0;
    bool haveDs64 = false, haveFormat = false;
    uint64_t pos = 12;
    while (pos + 8 <= fileSize) {
        unsigned id = 0, size32 = 0;
        if (!file->seek(pos)) break;
        const bool whole = riff.readRIFFChunkHeader(id, size32);
        const uint64_t body = pos + 8;
        if (!whole) {
            if (size32 != MaterialFile::kDamagedChunkLength) break;
            // An unfinished data chunk: its samples run to the end of the file.
            if (isCode(id, "data") && haveFormat) return takeData(info, body, fileSize, fileSize - body, out);
            error = "damaged chunk header (length 0xFF000000) at offset " + std::to_string(pos);
            return false;
        }
        if (isCode(id, "ds64") && info.rf64) {
            uint8_t d[24];
            if (size32 < 24 || !readBody(*file, body, d, 24)) {
                error = "ds64 chunk too short";
                return false;
            }
            ds64DataSize = le64(d + 8);
            haveDs64 = true;
        } else if (isCode(id, "fmt ")) {
            uint8_t f[40] = {};
            uint32_t want = size32 < 40 ? size32 : 40;
            if (!readBody(*file, body, f, want)) {
                error = "truncated format chunk";
                return false;
            }
            if (!parseFormat(f, size32, info, error)) return false;
            haveFormat = true;
        } else if (isCode(id, "data")) {
            if (!haveFormat) {
                error = "data chunk before the format chunk";
                return false;
            }
            uint64_t size = size32;
            if (info.rf64 && size32 == 0xFFFFFFFFu) {
                if (!haveDs64) {
                    error = "RF64 file without a ds64 chunk";
                    return false;
                }
                size = ds64DataSize;
            }
            // Streams written without seeking back leave all ones in a plain RIFF file.
            if (!info.rf64 && size32 == 0xFFFFFFFFu) size = 0;
            return takeData(info, body, fileSize, size, out);
        }
        pos = body + size32 + (size32 & 1);
    }
    error = haveFormat ? "no data chunk" : "no format chunk";
    return false;
}

std::vector<uint8_t> makeHeader(const Info& f, uint64_t dataBytes) {
    const bool extensible = f.channels > 2 || f.bitsPerSample > 16 || f.channelMask != 0;
    const uint32_t fmtSize = extensible ? 40 : 16;
    const uint64_t headerBytes = 12 + (8 + 28) + (8 + fmtSize) + 8;
    const uint64_t riffSize = headerBytes - 8 + dataBytes;
    const bool big = riffSize > 0xFFFFFFFFull;
    std::vector<uint8_t> v;
    v.reserve(size_t(headerBytes));
    putId(v, big ? "RF64" : "RIFF");
    put32(v, big ? 0xFFFFFFFFu : uint32_t(riffSize));
    putId(v, "WAVE");
    // A ds64 chunk for RF64, else a JUNK chunk of the same size so that the header keeps
    // its length when a growing file is turned into RF64.
    putId(v, big ? "ds64" : "JUNK");
    put32(v, 28);
    put64(v, big ? riffSize : 0);
    put64(v, big ? dataBytes : 0);
    put64(v, big && f.blockAlign ? dataBytes / f.blockAlign : 0);
    put32(v, 0);
    putId(v, "fmt ");
    put32(v, fmtSize);
    put16(v, extensible ? kFormatExtensible : f.formatTag);
    put16(v, f.channels);
    put32(v, f.sampleRate);
    put32(v, f.sampleRate * f.blockAlign);
    put16(v, f.blockAlign);
    put16(v, f.bitsPerSample);
    if (extensible) {
        put16(v, 22);
        put16(v, f.validBits ? f.validBits : f.bitsPerSample);
        put32(v, f.channelMask);
        put16(v, f.formatTag);
        v.insert(v.end(), kGuidTail, kGuidTail + sizeof kGuidTail);
    }
    putId(v, "data");
    put32(v, big ? 0xFFFFFFFFu : uint32_t(dataBytes));
    return v;
}

} // namespace wav
