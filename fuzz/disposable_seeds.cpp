// Seed inputs of the disposable-picture fuzz target: for each codec a stream header and a
// packet of a picture nobody refers to, in both H.264/HEVC framings, and broken ones.
#include <string>
#include <vector>

namespace {

std::string seed(char codec, const std::string& extra, const std::string& packet) {
    return std::string(1, codec) + std::string(1, char(extra.size())) + extra + packet;
}

} // namespace

std::vector<std::string> fuzzSeeds() {
    using namespace std::string_literals;
    // H.264: avcC with 4-byte lengths, a non-reference slice (nal_ref_idc 0, type 1) after
    // an SEI; the same with start codes; an IDR.
    const std::string avcc = "\x01\x64\x00\x1f\xff\xe1\x00\x04\x67\x64\x00\x1f\x01\x00\x04\x68\xee\x3c\x80"s;
    const std::string hvcc = "\x01\x01\x60\x00\x00\x00\x90\x00\x00\x00\x00\x00\x5d\xf0\x00\xfc\xfd\xf8\xf8\x00\x00\x0f"
                             "\x01\x21\x00\x01\x00\x05\x42\x01\x01\x01\x60"s; // one SPS, one sub-layer
    return {
        seed(0, avcc, "\x00\x00\x00\x02\x06\x05\x00\x00\x00\x03\x01\x9e\x11"s),
        seed(0, "", "\x00\x00\x00\x01\x09\x10\x00\x00\x01\x01\x9e\x11\x22"s),
        seed(0, "", "\x00\x00\x01\x65\x88\x84\x00"s),
        // HEVC: a TRAIL_N picture (type 0, temporal id 0) length-prefixed and with start codes.
        seed(1, hvcc, "\x00\x00\x00\x03\x00\x01\xaf"s),
        seed(1, "", "\x00\x00\x00\x01\x42\x01\x01\x01\x60\x00\x00\x01\x00\x01\xaf"s),
        // MPEG-2: a picture header of a B-picture; MPEG-4: a B-VOP.
        seed(2, "", "\x00\x00\x01\x00\x00\x1f\xff\xf8"s),
        seed(3, "", "\x00\x00\x01\xb6\x94\x00"s),
        // Lengths that run past the packet.
        seed(0, avcc, "\x00\x00\x10\x00\x01"s),
        seed(1, hvcc.substr(0, 25), "\x00\x00\x00\x09\x00\x01"s),
        "",
    };
}
