// The WAV back-end's file writer: interleaved PCM or float samples in a RIFF WAVE file,
// turned into RF64 when it grows past 4 GiB.
#pragma once

#include "host/media/FileWriterInfo.h"

namespace wav {

class WavFileWriter : public Zn::iFileWriter {
public:
    String name() const override { return "WAV"; }
    bool accepts(const Zn::FileWriterParams& params) const override;
    std::vector<WString> extensions(const Zn::FileWriterParams& params) const override;
    int create(const WString& fileName, Zn::FileWriterParams& params, Zn::Ptr<Zn::FileWriteInstance>& out) override;
};

} // namespace wav
