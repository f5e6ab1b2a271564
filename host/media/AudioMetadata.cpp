#include "host/media/AudioMetadata.h"

#include <cstdlib>
#include <sstream>
#include <string>

namespace Aud {

String metadataToText(const std::vector<Metadata>& streams) {
    std::ostringstream out;
    for (const Metadata& m : streams) {
        out << "rate=" << m.sampleRate << " channels=" << m.channels << " bytes=" << m.bytesPerSample
            << " bits=" << m.bitsPerSample << " type=" << int(m.sampleType) << " compressed=" << int(m.compressed)
            << " block=" << m.samplesPerBlock << " decoded=" << m.bytesPerDecodedSample << " length=" << m.length
            << " stream=" << m.streamIndex;
        // Codec names are short words; one with a blank or '=' would not read back.
        if (!m.codec.empty()) out << " codec=" << m.codec.c_str();
        out << '\n';
    }
    return String(out.str());
}

std::vector<Metadata> metadataFromText(const String& text) {
    std::vector<Metadata> out;
    std::istringstream lines(text.str());
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string word;
        Metadata m;
        bool any = false;
        while (words >> word) {
            size_t eq = word.find('=');
            if (eq == std::string::npos) continue;
            std::string key = word.substr(0, eq), value = word.substr(eq + 1);
            auto number = [&] { return std::strtoll(value.c_str(), nullptr, 10); };
            any = true;
            if (key == "rate") m.sampleRate = uint32_t(number());
            else if (key == "channels") m.channels = uint32_t(number());
            else if (key == "bytes") m.bytesPerSample = uint32_t(number());
            else if (key == "bits") m.bitsPerSample = uint32_t(number());
            else if (key == "type") m.sampleType = eSampleType(number());
            else if (key == "compressed") m.compressed = number() != 0;
            else if (key == "block") m.samplesPerBlock = uint32_t(number());
            else if (key == "decoded") m.bytesPerDecodedSample = uint32_t(number());
            else if (key == "length") m.length = uint64_t(number());
            else if (key == "stream") m.streamIndex = int32_t(number());
            else if (key == "codec") m.codec = String(value);
        }
        if (any) out.push_back(m);
    }
    return out;
}

} // namespace Aud
