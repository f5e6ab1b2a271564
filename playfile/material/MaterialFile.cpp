// Reading RIFF chunk headers from an open material file.
#include "playfile/material/MaterialFile.h"

#include "host/os/Log.h"
#include "host/os/OS.h"

#include <cstring>

MaterialFile::~MaterialFile() = default;

void MaterialFile::set(Zn::Ptr<iFile> file) {
    if (!file) return;
    file_ = std::move(file);
    hasFile_ = true;
    iFileManager* fm = OS()->fileManager();
    alignment_ = fm->volumeStorageUnit(fm->volumeOf(file_->name()));
}

uint64_t MaterialFile::readSome(void* buf, uint64_t n) {
    if (!file_) return 0;
    int64_t got = file_->read(buf, n);
    return got > 0 ? uint64_t(got) : 0;
}

bool MaterialFile::readRIFFChunkHeader(unsigned int& fourcc, unsigned int& length) {
    uint8_t header[8];
    if (readSome(header, sizeof header) < sizeof header) return false;
    std::memcpy(&fourcc, header, 4);
    std::memcpy(&length, header + 4, 4);
    if (length == kDamagedChunkLength) {
        Log("found chunk length 0xFF000000\n");
        return false;
    }
    return true;
}

bool MaterialFile::readNextFourCC(unsigned int& fourcc) { return readSome(&fourcc, sizeof fourcc) > 0; }

bool MaterialFile::readNextFourCCAndSize(unsigned int& fourcc, unsigned int& length) {
    if (!readNextFourCC(fourcc)) return false;
    if (readSome(&length, sizeof length) == 0) return false;
    length = (length + 1) & ~1u;
    return true;
}
