// Real audio files and a real back-end for the audio reader tests. writeWav makes a
// WAV-like file of plain interleaved samples; writeCoded makes a file of the "tbc" block
// codec written for these tests. In tbc every channel of a block holds the differences
// of its samples from the sample before, the first one from a key that the previous
// block carries at its end, so a block decodes right only after the block before it
// (priming: one block); the encoder puts priming samples of its own before the stream's
// first sample (the codec's delay). AudioFileReader serves both kinds of file through
// Zn::AudioReader.
#pragma once

#include "FrameFileReader.h"

#include "host/media/AudioDecoderInfo.h"
#include "playfile/audio/AudioReader.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace test_audio {

// The sample of channel ch at position pos, as the low bytes of a well-mixed value, so
// that a sample taken from the wrong place or channel shows.
inline uint32_t sampleOf(uint64_t pos, uint32_t ch) {
    uint64_t x = (pos + 1) * 0x9E3779B97F4A7C15ull ^ (uint64_t(ch) + 1) * 0xC2B2AE3D27D4EB4Full;
    return uint32_t(x >> 29);
}

inline void put(std::string& out, uint32_t v, unsigned bytes) {
    for (unsigned i = 0; i < bytes; ++i) out += char(v >> (8 * i));
}

// A 44-byte RIFF header and the samples, interleaved. Returns path.
inline std::string writeWav(const std::string& path, uint32_t channels, uint32_t bytes, uint64_t samples) {
    std::string f;
    const uint32_t frame = channels * bytes, data = uint32_t(samples * frame);
    const std::pair<uint32_t, unsigned> header[] = {
        {0x46464952, 4}, {36 + data, 4},  {0x45564157, 4}, {0x20746d66, 4},    {16, 4},
        {1, 2},          {channels, 2},   {48000, 4},      {48000 * frame, 4}, {frame, 2},
        {bytes * 8, 2},  {0x61746164, 4}, {data, 4}};
    for (auto [value, size] : header) put(f, value, size);
    for (uint64_t s = 0; s < samples; ++s)
        for (uint32_t c = 0; c < channels; ++c) put(f, sampleOf(s, c), bytes);
    testing_support::writeFile(path, f);
    return path;
}

struct CodedLayout {
    uint32_t channels = 2;
    uint64_t samples = 0;
    uint32_t perBlock = 256;
    uint32_t delay = 0;       // encoder priming samples before the stream's first
    uint32_t priming = 1;     // blocks the codec asks to be decoded ahead after a reset
    bool interleaved = false; // the codec's output layout
    bool mute = false;        // a broken codec that never gives anything
};

// "TBC1", channels, samples per block, delay, priming, flags, blocks; then the blocks:
// per channel the 16-bit differences and the key (the channel's last sample). The last
// block is padded with zeros. Returns path.
inline std::string writeCoded(const std::string& path, const CodedLayout& l) {
    const uint64_t total = l.delay + l.samples;
    const uint32_t blocks = uint32_t((total + l.perBlock - 1) / l.perBlock);
    std::string f = "TBC1";
    for (uint32_t v : {l.channels, l.perBlock, l.delay, l.priming,
                       uint32_t(l.interleaved) | uint32_t(l.mute) << 1, blocks})
        put(f, v, 4);
    std::vector<uint16_t> key(l.channels, 0);
    for (uint32_t b = 0; b < blocks; ++b)
        for (uint32_t c = 0; c < l.channels; ++c) {
            uint16_t prev = key[c];
            for (uint32_t i = 0; i < l.perBlock; ++i) {
                const uint64_t k = uint64_t(b) * l.perBlock + i;
                const uint16_t x = k < l.delay ? uint16_t(0x5A5A + k)
                                   : k < total ? uint16_t(sampleOf(k - l.delay, c))
                                               : 0;
                put(f, uint16_t(x - prev), 2);
                prev = x;
            }
            put(f, key[c] = prev, 2);
        }
    testing_support::writeFile(path, f);
    return path;
}
inline uint32_t codedBlockBytes(uint32_t channels, uint32_t perBlock) { return channels * (perBlock + 1) * 2; }
inline constexpr uint32_t kCodedHeaderBytes = 28;

struct TbcCodec : Zn::AudioCodecInstance {
    TbcCodec(uint32_t channels, uint32_t perBlock, uint32_t delay, uint32_t priming, uint32_t flags)
        : channels_(channels), perBlock_(perBlock), delay_(delay), priming_(priming), flags_(flags),
          key_(channels), out_(size_t(channels) * perBlock) {}

    String name() const override { return "tbc"; }
    uint32_t getPrimingBlocks() const override { return priming_; }
    uint32_t getDelaySamples() const override { return delay_; }
    bool producesInterleaved() const override { return flags_ & 1; }
    const uint8_t* getOutput(uint32_t channel) const override {
        return reinterpret_cast<const uint8_t*>(out_.data() + (producesInterleaved() ? 0 : size_t(channel) * perBlock_));
    }
    void resetToStart() override { ++resets, std::fill(key_.begin(), key_.end(), 0); }

    std::atomic<int> decodes{0}, resets{0};

    Zn::eAudioResult decode(const uint8_t* data, uint32_t size, uint32_t& samples) override {
        ++decodes;
        if (flags_ & 2) return kSuccess; // takes nothing, gives nothing
        if (size != codedBlockBytes(channels_, perBlock_)) return kFailed;
        const bool inter = producesInterleaved();
        for (uint32_t c = 0; c < channels_; ++c) {
            const uint8_t* in = data + size_t(c) * (perBlock_ + 1) * 2;
            uint16_t v = key_[c];
            for (uint32_t i = 0; i < perBlock_; ++i) {
                uint16_t d;
                std::memcpy(&d, in + size_t(i) * 2, 2);
                v = uint16_t(v + d);
                out_[inter ? size_t(i) * channels_ + c : size_t(c) * perBlock_ + i] = v;
            }
            std::memcpy(&key_[c], in + size_t(perBlock_) * 2, 2);
        }
        samples = perBlock_;
        return kSuccess;
    }

private:
    const uint32_t channels_, perBlock_, delay_, priming_, flags_;
    std::vector<uint16_t> key_, out_;
};

// Makes codecs for "tbc" streams from the file header handed to it.
struct TbcFactory : Zn::iAudioDecoderFactory {
    String name() const override { return "tbc"; }
    bool canDecode(const Aud::Metadata& m) const override { return m.codec == "tbc"; }
    Zn::Ptr<Zn::AudioCodecInstance> createCodec(const Aud::Metadata& m, const Zn::Ptr<iMemHolder>& header) override {
        if (!header || header->getUsed() < kCodedHeaderBytes) return nullptr;
        uint32_t v[6];
        std::memcpy(v, header->getBuffer() + 4, sizeof v);
        return Zn::Ptr<Zn::AudioCodecInstance>(new TbcCodec(v[0], v[1], v[2], v[3], v[4]));
    }
};

// Opens a file made by writeWav or writeCoded: one readable audio stream, then
// extraStreams more that are described but cannot be read.
struct AudioFileReader : FileReadInstance, Zn::AudioReader, test_backend::Locking {
    AudioFileReader(const std::string& path, uint32_t extraStreams = 0)
        : FileReadInstance(test_backend::wide(path), DecodeFormat::getDefault(), OpenType::kAudio),
          Zn::AudioReader(getMetadata()->getAudioMetadata()) {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        uint8_t head[44] = {};
        if (fd_ < 0 || ::pread(fd_, head, sizeof head, 0) < 28) throw std::runtime_error("cannot open " + path);
        auto field = [&](int at, int size) {
            uint32_t v = 0;
            std::memcpy(&v, head + at, size);
            return v;
        };
        std::vector<Aud::Metadata> streams;
        if (std::memcmp(head, "RIFF", 4) == 0) {
            frameBytes_ = field(32, 2);
            dataAt_ = 44;
            streams.emplace_back(48000, field(22, 2), field(34, 2) / 8, Aud::kSampleInt, field(40, 4) / frameBytes_);
        } else {
            Aud::Metadata m(48000, field(4, 4), 2);
            m.compressed = true;
            m.samplesPerBlock = field(8, 4);
            m.codec = "tbc";
            streams.push_back(m);
            blockBytes_ = codedBlockBytes(field(4, 4), field(8, 4));
            blocks_ = field(24, 4);
            dataAt_ = kCodedHeaderBytes;
        }
        for (uint32_t i = 0; i < extraStreams; ++i) streams.emplace_back(48000, 2, 2);
        getMetadata()->setAudioMetadata(std::move(streams));
        if (blockBytes_) {
            [[maybe_unused]] static const bool registered =
                (Zn::AudioDecoderInfo::instance().registerFactory(new TbcFactory), true);
            if (!initAudioCodec(0, Zn::Ptr<iMemHolder>(new ByteBufferImpl(head, kCodedHeaderBytes))))
                throw std::runtime_error("no tbc codec");
        }
    }
    ~AudioFileReader() override { ::close(fd_); }

    String getReaderName() const override { return "audio-test"; }
    void readAudio(Zn::Ptr<AudioReadRequest>& request) override { Zn::AudioReader::readAudio(request); }

    TbcCodec& codec() { return static_cast<TbcCodec&>(*getCodec(0)); }
    std::vector<uint64_t> takeBlocksRead() { return locked([&] { return std::move(blocksRead_); }); }

    std::atomic<int> sampleReads{0};

    eResult readAudioSamples(uint32_t stream, uint64_t position, uint32_t samples, uint8_t* into, uint32_t& delivered) override {
        delivered = 0;
        if (stream != 0 || !frameBytes_) return kFailed;
        ++sampleReads;
        ssize_t got = ::pread(fd_, into, size_t(samples) * frameBytes_, off_t(dataAt_ + position * frameBytes_));
        if (got < 0) return kFailed;
        delivered = uint32_t(got / frameBytes_);
        return kSuccess;
    }
    eResult readAudioBlock(uint32_t stream, uint64_t block, std::vector<uint8_t>& data) override {
        if (stream != 0 || !blockBytes_) return kFailed;
        if (block >= blocks_) return kEndedEarly;
        locked([&] { blocksRead_.push_back(block); });
        data.resize(blockBytes_);
        const ssize_t got = ::pread(fd_, data.data(), blockBytes_, off_t(dataAt_ + block * blockBytes_));
        return got == ssize_t(blockBytes_) ? kSuccess : kFailed;
    }

private:
    int fd_ = -1;
    uint64_t dataAt_ = 0;
    uint32_t frameBytes_ = 0, blockBytes_ = 0;
    uint64_t blocks_ = 0;
    std::vector<uint64_t> blocksRead_;
};

} // namespace test_audio
