// `playfile probe`: what the library makes of media files: the reader that serves each,
// what it can serve, the video and audio streams as the reader describes them, and the
// play header when the file has one.
#include "tools/Command.h"
#include "tools/MediaSession.h"
#include "tools/Options.h"

#include "host/core/Strings.h"
#include "host/media/FileReaderInfo.h"
#include "host/project/MaterialInfo.h"
#include "playfile/header/PlayHeader.h"
#include "playfile/open/FileReadInstance.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kProbeUsage[] =
    "usage: playfile probe FILE... [--json]\n"
    "\n"
    "Opens each file through the play file cache, for video and audio, and prints what the\n"
    "reader that serves it reports: the reader's name, what it serves (video, audio), the\n"
    "video's frame count, rate, picture size, native pixel format and codec, whether frames\n"
    "are decoded in groups (long-GOP), each audio stream's channels, sample rate, bytes per\n"
    "sample as stored and as decoded, sample type, codec and whether it is compressed, and\n"
    "the file's play header (its \".hdr\" sidecar) when it has one.\n"
    "\n"
    "  --json   one JSON array on standard output, one object per FILE, in order:\n"
    "             file          the name as given\n"
    "             error         why the file could not be probed (only then; the other\n"
    "                           members are absent)\n"
    "             reader        the reader's name (\"Y4M\", \"WAV\", \"FFmpeg\")\n"
    "             container     the container's short name, when the reader says\n"
    "             serves        array of \"video\" and/or \"audio\"\n"
    "             video         null, or {frames, rate: [num, den], fps, width, height,\n"
    "                           format, codec, grouped, groupSize, stillImage}\n"
    "             audio         array, per stream: {stream, channels, sampleRate,\n"
    "                           bytesPerSample, bytesPerDecodedSample, bitsPerSample,\n"
    "                           sampleType (\"int\" or \"float\"), codec, compressed,\n"
    "                           samplesPerBlock, length (sample frames)}\n"
    "             audioLength   the file's audio length in sample frames\n"
    "             header        null, or {version, text} (the text as stored)\n"
    "           Members are only ever added, never renamed or removed.\n"
    "\n"
    "Exit status: 0 every file probed, 1 a file could not be read or no reader opens it\n"
    "(one line on standard error per such file), 2 a usage error.\n";

const char* servesText(uint32_t caps) {
    switch (caps & 3) {
    case 1: return "video";
    case 2: return "audio";
    case 3: return "video, audio";
    default: return "nothing";
    }
}

Json describe(const std::string& path, MediaSession& session, std::string& error) {
    std::string why;
    if (!checkMediaFile(path, why)) {
        error = why;
        return {};
    }
    Zn::Ptr<FileReadInstance> file = MediaSession::openByName(path, OpenType::kVideoAndAudio);
    if (!file) {
        error = "no reader can open it (not a media file, or damaged)";
        return {};
    }
    const PlayFileMetadataRep& m = *file->getMetadata();
    const uint32_t caps = file->getCapabilities();
    Json j;
    j["file"] = path;
    j["reader"] = file->getReaderName().str();
    // The registry's reader of that name adds what it knows of the container and codec.
    for (const auto& reader : Zn::FileReaderInfo::getAll()) {
        if (reader->name() != file->getReaderName()) continue;
        Zn::ReaderDetails details;
        Aud::Metadata none;
        reader->capabilities(file->getDecodeFormat(), file->getOpenType(), m,
                             m.getAudioMetadata().empty() ? none : m.getAudioMetadata()[0], details);
        if (!details.container.empty()) j["container"] = details.container.str();
        break;
    }
    j["serves"] = Json::array();
    if (caps & OpenType::kVideo) j["serves"].push_back("video");
    if (caps & OpenType::kAudio) j["serves"].push_back("audio");
    if ((caps & OpenType::kVideo) && (m.getFrameCount() > 0 || m.hasStillImage())) {
        const auto& native = m.getNativeFormat();
        j["video"] = {{"frames", m.getFrameCount()},
                      {"rate", {m.getFrameRate().numerator, m.getFrameRate().denominator}},
                      {"fps", m.getFrameRate().asDouble()},
                      {"width", native.getWidth()},
                      {"height", native.getHeight()},
                      {"format", Zn::Image::formatName(native.getDataFormat())},
                      {"codec", m.getVideoCodec().str()},
                      {"grouped", m.framesAreGrouped()},
                      {"groupSize", m.getGroupSize()},
                      {"stillImage", m.hasStillImage()}};
    } else {
        j["video"] = nullptr;
    }
    j["audio"] = Json::array();
    const auto& streams = m.getAudioMetadata();
    for (size_t s = 0; s < streams.size(); ++s) {
        const Aud::Metadata& a = streams[s];
        j["audio"].push_back({{"stream", s},
                              {"channels", a.getNumChannels()},
                              {"sampleRate", a.getSampleRate()},
                              {"bytesPerSample", a.getBytesPerSample()},
                              {"bytesPerDecodedSample", a.getBytesPerDecodedSample()},
                              {"bitsPerSample", a.bitsPerSample},
                              {"sampleType", a.sampleType == Aud::kSampleFloat ? "float" : "int"},
                              {"codec", a.codec.str()},
                              {"compressed", a.isCompressedFormat()},
                              {"samplesPerBlock", a.getSamplesPerBlock()},
                              {"length", a.getLength()}});
    }
    j["audioLength"] = m.getAudioLength();

    j["header"] = nullptr;
    const Cookie clip = session.addClip(path, true, 0, 0, error);
    if (!clip.valid()) return {};
    const std::string text = MaterialInfo::read_header(convertCookie(clip, 'V', 0)).str();
    if (!text.empty()) {
        std::string copy = text;
        j["header"] = {{"version", playhdr_get_version(copy.data())}, {"text", text}};
    }
    return j;
}

void printText(const Json& j) {
    std::printf("%s\n", j["file"].get<std::string>().c_str());
    std::printf("  reader        %s%s\n", j["reader"].get<std::string>().c_str(),
                j.contains("container") ? (" (" + j["container"].get<std::string>() + ")").c_str() : "");
    uint32_t caps = 0;
    for (const auto& s : j["serves"]) caps |= s == "video" ? 1 : 2;
    std::printf("  serves        %s\n", servesText(caps));
    if (const Json& v = j["video"]; !v.is_null()) {
        std::printf("  video         %u frames, %u/%u (%.3f fps), %ux%u %s, codec %s%s\n", v["frames"].get<unsigned>(),
                    v["rate"][0].get<unsigned>(), v["rate"][1].get<unsigned>(), v["fps"].get<double>(),
                    v["width"].get<unsigned>(), v["height"].get<unsigned>(), v["format"].get<std::string>().c_str(),
                    v["codec"].get<std::string>().empty() ? "-" : v["codec"].get<std::string>().c_str(),
                    v["grouped"].get<bool>()
                        ? (", groups of " + std::to_string(v["groupSize"].get<unsigned>()) + " frames").c_str()
                        : (v["stillImage"].get<bool>() ? ", still image" : ""));
    }
    for (const auto& a : j["audio"]) {
        std::printf("  audio %-7u %u channel%s, %u Hz, %s %u-byte samples (%u as stored), %s%s, %llu samples\n",
                    a["stream"].get<unsigned>(), a["channels"].get<unsigned>(),
                    a["channels"].get<unsigned>() == 1 ? "" : "s", a["sampleRate"].get<unsigned>(),
                    a["sampleType"].get<std::string>().c_str(), a["bytesPerDecodedSample"].get<unsigned>(),
                    a["bytesPerSample"].get<unsigned>(),
                    a["codec"].get<std::string>().empty() ? "pcm" : a["codec"].get<std::string>().c_str(),
                    a["compressed"].get<bool>()
                        ? (", compressed (" + std::to_string(a["samplesPerBlock"].get<unsigned>()) + " per block)")
                              .c_str()
                        : ", uncompressed",
                    (unsigned long long)a["length"].get<uint64_t>());
    }
    if (const Json& h = j["header"]; h.is_null()) {
        std::printf("  header        none\n");
    } else {
        std::printf("  header        version %d\n", h["version"].get<int>());
        const std::string text = h["text"].get<std::string>();
        size_t at = 0;
        while (at < text.size()) {
            const size_t end = text.find_first_of("\n\r", at);
            const std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
            if (!line.empty()) std::printf("                %s\n", line.c_str());
            if (end == std::string::npos) break;
            at = end + 1;
        }
    }
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("probe", args, {{"--json", false}})) return fail(kUsage, o.error());
    if (o.positional().empty()) return fail(kUsage, "probe: no files given");
    const bool json = o.has("--json");
    std::string error;
    if (!readersAvailable(error)) return fail(kFailure, "probe: " + error);
    MediaSession session;
    if (!session.openScratch(error)) return fail(kFailure, "probe: " + error);
    int status = kOk;
    Json all = Json::array();
    for (const std::string& path : o.positional()) {
        Json j = describe(path, session, error);
        if (j.is_null()) {
            fail(kFailure, "probe: " + path + ": " + error);
            status = kFailure;
            all.push_back({{"file", path}, {"error", error}});
            continue;
        }
        if (json)
            all.push_back(j);
        else
            printText(j);
    }
    if (json) std::printf("%s\n", all.dump(2).c_str());
    return status;
}

CommandRegistration reg({"probe", "what the library makes of media files", kProbeUsage, run});

} // namespace
} // namespace tool
