// Seed inputs of the WAV fuzz target: small valid files of each kind and broken ones.
#include "backends/wav/WavFormat.h"

#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds() {
    std::vector<std::string> seeds;
    struct Kind { uint16_t tag, channels, bits; uint32_t mask; };
    for (Kind k : {Kind{1, 1, 8, 0}, Kind{1, 2, 16, 0}, Kind{1, 6, 24, 0x3F}, Kind{3, 2, 32, 0}, Kind{1, 8, 32, 0}}) {
        wav::Info f;
        f.formatTag = k.tag;
        f.channels = k.channels;
        f.sampleRate = 48000;
        f.bitsPerSample = k.bits;
        f.blockAlign = uint16_t(k.channels * k.bits / 8);
        f.channelMask = k.mask;
        auto h = wav::makeHeader(f, 4u * f.blockAlign);
        std::string s(h.begin(), h.end());
        s += std::string(4u * f.blockAlign, '\x55');
        seeds.push_back(s);
        seeds.push_back(s.substr(0, s.size() / 2)); // cut in the middle
    }
    seeds.push_back("RIFF\xff\xff\xff\xffWAVEfmt \x10\0\0\0");
    seeds.push_back("RF64\xff\xff\xff\xffWAVEdata\xff\xff\xff\xff");
    seeds.push_back("");
    return seeds;
}
