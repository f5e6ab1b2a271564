// MaterialFile: reads the chunk headers of a RIFF file (a four-character code and a
// 32-bit little-endian length before each chunk's data, the data padded to an even
// length) one after the other from the open file's current position. Skipping over a
// chunk's body is the caller's business, through the file itself (getFile()->seek).
//
// Codes and lengths are kept as they lie in the file, with no byte swapping (RIFF is
// little-endian, as is the host). Every failure is a false answer; the one message is
// the log line for a chunk length of 0xFF000000, the mark of a damaged or unfinished
// chunk header, which stops the walk.
//
// Not thread-safe: one walker per MaterialFile, and the file's current position is
// shared with whoever else reads the file.
#pragma once

#include "host/core/RefCount.h"
#include "host/os/FileManager.h"
#include "playfile/Export.h"

#include <cstdint>

class PLAYFILE_API MaterialFile {
public:
    static constexpr uint32_t kDefaultAlignment = 512;
    static constexpr uint32_t kDamagedChunkLength = 0xFF000000u;

    MaterialFile() = default;
    virtual ~MaterialFile();

    // Attaches the file and takes the storage unit of its volume as the alignment unit.
    // A null file is ignored: the previous file and alignment unit stay.
    void set(Zn::Ptr<iFile> file);

    // Reads a chunk header (8 bytes). False when fewer than 8 bytes could be read (the
    // outputs are then untouched), and false with the outputs written when the length is
    // 0xFF000000. The length is given as stored, odd or even.
    bool readRIFFChunkHeader(unsigned int& fourcc, unsigned int& length);
    // Reads 4 bytes into fourcc; true when any byte was read (a short read of 1 to 3
    // bytes still answers true and leaves the rest of fourcc as it was).
    bool readNextFourCC(unsigned int& fourcc);
    // A code and a length, the length rounded up to even so that it covers the pad byte
    // (0xFFFFFFFF wraps to 0). False when the code or the length gave no byte at all.
    bool readNextFourCCAndSize(unsigned int& fourcc, unsigned int& length);

    uint32_t getAlignment() const noexcept { return alignment_; }
    const Zn::Ptr<iFile>& getFile() const noexcept { return file_; }
    bool hasFile() const noexcept { return hasFile_; }

private:
    // Bytes read into buf (0 at the end or on an error, or without a file).
    uint64_t readSome(void* buf, uint64_t n);

    uint32_t alignment_ = kDefaultAlignment;
    Zn::Ptr<iFile> file_;
    bool hasFile_ = false;
};
