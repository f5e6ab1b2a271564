// The shared pieces of the FFmpeg transfer plug-in: opening the source, failure texts, and
// the container a vision section is written in.
#include "backends/ffmpegxfer/XferCommon.h"

#include "host/core/Strings.h"

#include <cstring>

namespace ffmpeg_xfer {

Outcome Outcome::failed(const char* what, int averror) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(averror, text, sizeof text);
    return failed(std::string(what) + ": " + text);
}

Outcome openInput(const std::string& path, InputPtr& out) {
    AVFormatContext* ctx = nullptr;
    if (int rc = avformat_open_input(&ctx, path.c_str(), nullptr, nullptr); rc < 0)
        return Outcome::failed(("cannot open " + path).c_str(), rc);
    out.reset(ctx);
    if (int rc = avformat_find_stream_info(ctx, nullptr); rc < 0)
        return Outcome::failed(("cannot read the streams of " + path).c_str(), rc);
    return Outcome::done();
}

OutputFile::~OutputFile() {
    if (!ctx_) return;
    if (ctx_->pb) avio_closep(&ctx_->pb);
    avformat_free_context(ctx_);
}

Outcome OutputFile::create(const std::string& path, const std::string& muxer, AVStream*& stream) {
    path_ = path;
    if (int rc = avformat_alloc_output_context2(&ctx_, nullptr, muxer.c_str(), path.c_str()); rc < 0)
        return Outcome::failed(("cannot make a " + muxer + " file").c_str(), rc);
    stream = avformat_new_stream(ctx_, nullptr);
    return stream ? Outcome::done() : Outcome::failed("no memory for the stream");
}

Outcome OutputFile::start() {
    if (int rc = avio_open(&ctx_->pb, path_.c_str(), AVIO_FLAG_WRITE); rc < 0)
        return Outcome::failed(("cannot write " + path_).c_str(), rc);
    if (int rc = avformat_write_header(ctx_, nullptr); rc < 0) return Outcome::failed("writing the file's header", rc);
    return Outcome::done();
}

Outcome OutputFile::write(AVPacket& pkt) {
    pkt.stream_index = 0;
    pkt.pos = -1;
    if (int rc = av_write_frame(ctx_, &pkt); rc < 0) return Outcome::failed("writing", rc);
    return Outcome::done();
}

Outcome OutputFile::finish() {
    if (int rc = av_write_trailer(ctx_); rc < 0) return Outcome::failed("finishing the file", rc);
    if (int rc = avio_closep(&ctx_->pb); rc < 0) return Outcome::failed("closing the file", rc);
    return Outcome::done();
}

std::string utf8(const WString& text) { return toUTF8(text).str(); }

Container containerFor(const AVFormatContext& input, const AVCodecParameters& video) {
    // The source's kind of container where it has one that takes the codec; QuickTime, then
    // Matroska (which takes nearly anything) otherwise.
    static const struct {
        const char* demuxer; // a name in the demuxer's comma-separated list
        const char* extension;
        Container container;
    } kKinds[] = {
        {"mp4", "mp4", {"mp4", "mp4"}},     {"mp4", "m4v", {"mp4", "m4v"}},
        {"mov", nullptr, {"mov", "mov"}},   {"matroska", nullptr, {"matroska", "mkv"}},
        {"avi", nullptr, {"avi", "avi"}},   {"mpegts", nullptr, {"mpegts", "ts"}},
        {"nut", nullptr, {"nut", "nut"}},
    };
    const std::string names = std::string(",") + input.iformat->name + ",";
    const char* dot = input.url ? std::strrchr(input.url, '.') : nullptr;
    const std::string extension = dot ? dot + 1 : "";
    auto takes = [&](const std::string& muxer) {
        const AVOutputFormat* f = av_guess_format(muxer.c_str(), nullptr, nullptr);
        return f && avformat_query_codec(f, video.codec_id, FF_COMPLIANCE_NORMAL) == 1;
    };
    for (const auto& k : kKinds) {
        if (names.find(std::string(",") + k.demuxer + ",") == std::string::npos) continue;
        if (k.extension && strcasecmp(extension.c_str(), k.extension) != 0) continue;
        if (takes(k.container.muxer)) return k.container;
        break;
    }
    return takes("mov") ? Container{"mov", "mov"} : Container{"matroska", "mkv"};
}

} // namespace ffmpeg_xfer
