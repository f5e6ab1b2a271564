// The WAV back-end's file reader: RIFF WAVE (and RF64/BW64) files of PCM integer samples
// of 8 to 32 bits or float samples, WAVE_FORMAT_EXTENSIBLE included. Audio only: one
// stream whose samples are read straight from the file by position, as stored (8-bit
// unsigned, the rest signed little-endian, 24-bit in three bytes).
#pragma once

#include "backends/Result.h"
#include "backends/wav/WavFormat.h"
#include "host/media/FileReaderInfo.h"
#include "playfile/audio/AudioReader.h"
#include "playfile/open/FileReadInstance.h"

#include <string>

namespace wav {

// The host's description of a WAV file's one audio stream.
Aud::Metadata audioMetadataOf(const Info& info);

// Threads: the header and descriptor are fixed at open; samples are read with pread, so
// reads need no lock of their own (requests run through the audio reader, under its lock).
class WavReadInstance : public FileReadInstance, public Zn::AudioReader {
public:
    // Opens the file; fails with a reason when it is not a WAVE file this reader reads,
    // and with the errno as cause when the system failed rather than the file.
    static backend::Result<Zn::Ptr<WavReadInstance>> open(const DecodeFormat& format, const WString& fileName,
                                                          OpenType type);
    ~WavReadInstance() override;

    String getReaderName() const override { return "WAV"; }
    void readAudio(Zn::Ptr<AudioReadRequest>& request) override;

    // Reads up to count sample frames (all channels, interleaved as stored) of the stream
    // from position into to; answers the bytes read (0 past the end), or -1 on a read
    // error. A file whose data runs to its end is read as far as it reaches now, so a
    // file still being written grows.
    int64_t readSamples(uint64_t position, uint32_t count, uint8_t* to) const;

    const Info& info() const { return info_; }

protected:
    eResult readAudioSamples(uint32_t stream, uint64_t position, uint32_t samples, uint8_t* into,
                         uint32_t& delivered) override;

private:
    WavReadInstance(const WString& fileName, const DecodeFormat& format, OpenType type, int fd, const Info& info);
    uint64_t availableFrames() const;

    const int fd_;
    const Info info_;
};

// Accepts files named .wav/.wave/.bwf or starting with a RIFF/RF64/BW64 WAVE header, for
// audio.
class WavFileReader : public Zn::iFileReader {
public:
    String name() const override { return "WAV"; }
    bool accepts(const WString& fileName, OpenType type) override;
    Zn::Ptr<FileReadInstance> open(const DecodeFormat& format, const WString& fileName, OpenType type) override;
    Opened openFile(const DecodeFormat& format, const WString& fileName, OpenType type) override;
    unsigned capabilities(const DecodeFormat& format, OpenType type, const PlayFileMetadataRep& metadata,
                          const Aud::Metadata& stream, Zn::ReaderDetails& details) override;
};

// Registers the WAV reader and writer with the host; later calls do nothing.
void registerBackend();

} // namespace wav
