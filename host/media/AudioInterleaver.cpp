#include "host/media/AudioInterleaver.h"

#include <cstring>
#include <vector>

namespace {

// Samples are moved a tile at a time through a small planar array on the stack. With the
// channel count a constant and the array's rows at fixed distances, the inner loop is a
// plain interleaved-load pattern the vectoriser turns into loads and shuffles, which it
// will not do when writing straight to N separate destinations it cannot prove apart.
constexpr uint32_t kTile = 64;

template <class T, uint32_t N>
void splitTiles(const uint8_t* src, uint8_t* const* dst, uint32_t samples) {
    T tile[N][kTile];
    uint32_t done = 0;
    for (; done + kTile <= samples; done += kTile) {
        T in[kTile * N];
        std::memcpy(in, src + size_t(done) * N * sizeof(T), sizeof in);
        for (uint32_t i = 0; i < kTile; ++i)
            for (uint32_t c = 0; c < N; ++c)
                tile[c][i] = in[i * N + c];
        for (uint32_t c = 0; c < N; ++c)
            std::memcpy(dst[c] + size_t(done) * sizeof(T), tile[c], sizeof tile[c]);
    }
    for (; done < samples; ++done)
        for (uint32_t c = 0; c < N; ++c)
            std::memcpy(dst[c] + size_t(done) * sizeof(T), src + (size_t(done) * N + c) * sizeof(T),
                        sizeof(T));
}

// Any channel count: one strided pass per channel.
template <class T>
void splitStrided(const uint8_t* src, uint32_t n, uint8_t* const* dst, uint32_t samples) {
    for (uint32_t c = 0; c < n; ++c) {
        uint8_t* d = dst[c];
        const uint8_t* s = src + size_t(c) * sizeof(T);
        for (uint32_t i = 0; i < samples; ++i)
            std::memcpy(d + size_t(i) * sizeof(T), s + size_t(i) * n * sizeof(T), sizeof(T));
    }
}

template <class T>
void split(const uint8_t* src, uint32_t n, uint8_t* const* dst, uint32_t samples) {
    switch (n) {
    case 1:
        std::memcpy(dst[0], src, size_t(samples) * sizeof(T));
        return;
    case 2:
        splitTiles<T, 2>(src, dst, samples);
        return;
    case 3:
        splitTiles<T, 3>(src, dst, samples);
        return;
    case 4:
        splitTiles<T, 4>(src, dst, samples);
        return;
    case 6:
        splitTiles<T, 6>(src, dst, samples);
        return;
    case 8:
        splitTiles<T, 8>(src, dst, samples);
        return;
    default:
        splitStrided<T>(src, n, dst, samples);
        return;
    }
}

// Three-byte samples do not fit vector lanes on the baseline instruction set, so each is
// moved as one four-byte load and store: the store's fourth byte lands where the next
// sample of the channel goes and is overwritten by it. The last position is copied byte
// by byte, so nothing is read or written past either buffer.
template <uint32_t N> void split24Fixed(const uint8_t* src, uint8_t* const* dst, uint32_t samples) {
    uint8_t* d[N];
    for (uint32_t c = 0; c < N; ++c)
        d[c] = dst[c];
    for (uint32_t i = 0; i + 1 < samples; ++i) {
        const uint8_t* s = src + size_t(i) * 3 * N;
        for (uint32_t c = 0; c < N; ++c) {
            uint32_t v;
            std::memcpy(&v, s + 3 * c, 4);
            std::memcpy(d[c] + size_t(i) * 3, &v, 4);
        }
    }
    if (samples) {
        const uint8_t* s = src + size_t(samples - 1) * 3 * N;
        for (uint32_t c = 0; c < N; ++c)
            std::memcpy(d[c] + size_t(samples - 1) * 3, s + 3 * c, 3);
    }
}

void split24(const uint8_t* src, uint32_t n, uint8_t* const* dst, uint32_t samples) {
    switch (n) {
    case 1:
        std::memcpy(dst[0], src, size_t(samples) * 3);
        return;
    case 2:
        split24Fixed<2>(src, dst, samples);
        return;
    case 4:
        split24Fixed<4>(src, dst, samples);
        return;
    case 6:
        split24Fixed<6>(src, dst, samples);
        return;
    case 8:
        split24Fixed<8>(src, dst, samples);
        return;
    default:
        for (uint32_t c = 0; c < n; ++c)
            for (uint32_t i = 0; i < samples; ++i)
                std::memcpy(dst[c] + size_t(i) * 3, src + (size_t(i) * n + c) * 3, 3);
        return;
    }
}

struct Bytes8 {
    uint8_t b[8];
};

} // namespace

void AudioInterleaver::deinterleave(const uint8_t* src, uint32_t channels, uint32_t bytesPerSample,
                                    uint32_t samples, uint8_t* const* dst) {
    if (!samples || !channels) return;
    switch (bytesPerSample) {
    case 1:
        split<uint8_t>(src, channels, dst, samples);
        return;
    case 2:
        split<uint16_t>(src, channels, dst, samples);
        return;
    case 3:
        split24(src, channels, dst, samples);
        return;
    case 4:
        split<uint32_t>(src, channels, dst, samples);
        return;
    case 8:
        split<Bytes8>(src, channels, dst, samples);
        return;
    default:
        for (uint32_t c = 0; c < channels; ++c)
            for (uint32_t i = 0; i < samples; ++i)
                std::memcpy(dst[c] + size_t(i) * bytesPerSample,
                            src + (size_t(i) * channels + c) * bytesPerSample, bytesPerSample);
        return;
    }
}

namespace {

// Destinations for the channels: on the stack up to a count no real stream passes.
class Destinations {
public:
    explicit Destinations(uint32_t n) {
        if (n > kOnStack) {
            onHeap_.resize(n);
            at_ = onHeap_.data();
        }
    }
    uint8_t** data() noexcept { return at_; }
    uint8_t*& operator[](uint32_t c) noexcept { return at_[c]; }

private:
    static constexpr uint32_t kOnStack = 32;
    uint8_t* onStack_[kOnStack];
    std::vector<uint8_t*> onHeap_;
    uint8_t** at_ = onStack_;
};

void setCounts(Aud::StreamBufferList& out, const Aud::Metadata& stream, uint32_t samples) {
    out.setSampleCount(samples);
    out.setSampleRate(stream.getSampleRate());
    out.setBytesPerSample(stream.getBytesPerSample());
}

} // namespace

bool AudioInterleaver::deinterleaveInto(const Aud::Metadata& stream, const iMemHolder& interleaved,
                                        Aud::StreamBufferList& out) {
    const uint32_t n = stream.getNumChannels();
    const uint32_t b = stream.getBytesPerSample();
    if (!n || !b || out.size() != n) return false;
    const uint32_t samples = interleaved.getUsed() / (n * b);
    for (const Aud::StreamBuffer& buffer : out)
        if (!buffer.getMemory() || buffer.getMemory()->getSize() < samples * b) return false;
    Destinations dst(n);
    for (uint32_t c = 0; c < n; ++c) {
        Aud::StreamBuffer& buffer = out[c];
        buffer.getMemory()->setUsed(samples * b);
        dst[c] = buffer.getData();
        buffer = Aud::StreamBuffer(buffer.getMemory(), 1, samples, samples, buffer.getFlags());
    }
    deinterleave(interleaved.getBuffer(), n, b, samples, dst.data());
    setCounts(out, stream, samples);
    return true;
}

bool AudioInterleaver::deinterleaveAudio(const Aud::Metadata& stream,
                                         const Zn::Ptr<iMemHolder>& interleaved,
                                         Aud::StreamBufferList& out) {
    const uint32_t n = stream.getNumChannels();
    const uint32_t b = stream.getBytesPerSample();
    if (!n || !b || !interleaved) return false;
    const uint32_t samples = interleaved->getUsed() / (n * b);

    Destinations dst(n);
    Aud::StreamBufferList made;
    for (uint32_t c = 0; c < n; ++c) {
        Zn::Ptr<iMemHolder> mem(new ByteBufferImpl(samples * b));
        mem->setUsed(samples * b);
        dst[c] = mem->getBuffer();
        made.add(Aud::StreamBuffer(std::move(mem), 1, samples, samples));
    }
    deinterleave(interleaved->getBuffer(), n, b, samples, dst.data());

    for (const Aud::StreamBuffer& buffer : made)
        out.add(buffer);
    setCounts(out, stream, samples);
    return true;
}
