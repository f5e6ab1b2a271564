// What FFmpeg's own program says about a file, for the back-end tests: the MD5 of every
// video frame it shows (framemd5, native pixel format, no frame dropped or repeated) and
// the samples it decodes from an audio stream.
#pragma once

#include "backends/ffmpeg/FfmpegCommon.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace ffmpeg_oracle {

// FFmpeg's complaints about the damaged files the tests make are expected: keep them out
// of the test output.
inline const bool kQuiet = (ffmpeg_engine::routeFfmpegLog(AV_LOG_QUIET, nullptr), true);

// Makes dir/name with the ffmpeg program from its input and output arguments.
inline std::string made(const testing_support::TempDir& dir, const std::string& name, const std::string& input,
                        const std::string& output) {
    const std::string path = dir.file(name);
    EXPECT_TRUE(testing_support::ffmpeg(input + " " + output + " " + testing_support::shellQuote(path))) << name;
    return path;
}

// One framemd5 line per shown frame of the first video stream: its MD5. outputArgs
// (such as "-pix_fmt rgb24") go before the output, inputArgs (such as "-threads 1")
// before the input.
inline std::vector<std::string> frameMd5s(const std::string& path, const std::string& outputArgs = "",
                                          const std::string& inputArgs = "") {
    using namespace testing_support;
    auto r = runCommand("ffmpeg -nostdin -v error " + inputArgs + " -i " + shellQuote(path) + " -map 0:v:0 -fps_mode passthrough " +
                        outputArgs + " -f framemd5 - 2>/dev/null");
    std::vector<std::string> md5s;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line[0] != '#' && line.rfind(',') != std::string::npos)
            md5s.push_back(line.substr(line.find_first_not_of(' ', line.rfind(',') + 1)));
    return md5s;
}

// The pictures FFmpeg decodes from the first video stream, packed one after the other in
// pixel format pixFmt; and what ffprobe says of the stream's entries ("stream=codec_name").
inline std::string decodedFrames(const std::string& path, const std::string& pixFmt) {
    using namespace testing_support;
    return runCommand("ffmpeg -nostdin -v error -i " + shellQuote(path) + " -f rawvideo -pix_fmt " + pixFmt +
                      " - 2>/dev/null")
        .out;
}
inline std::string probe(const std::string& path, const std::string& entries) {
    using namespace testing_support;
    return runCommand("ffprobe -v error -select_streams v:0 -show_entries " + entries + " -of default=nw=1 " +
                      shellQuote(path))
        .out;
}

// The raw samples FFmpeg decodes from audio stream `stream`, interleaved, in the raw
// format `format` ("f32le", "s16le", "s32le", "u8", "f64le").
inline std::string decodedSamples(const std::string& path, int stream, const std::string& format) {
    using namespace testing_support;
    std::string codec = format == "u8" ? "pcm_u8" : "pcm_" + format;
    return runCommand("ffmpeg -nostdin -v error -i " + shellQuote(path) + " -map 0:a:" + std::to_string(stream) +
                      " -c:a " + codec + " -f " + format + " - 2>/dev/null")
        .out;
}

} // namespace ffmpeg_oracle
