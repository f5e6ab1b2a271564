// The Y4M back-end's file writer: uncompressed frames in a YUV4MPEG2 stream, for the
// planar YUV and grey layouts the host's surfaces carry.
#pragma once

#include "host/media/FileWriterInfo.h"

namespace y4m {

class Y4mFileWriter : public Zn::iFileWriter {
public:
    String name() const override { return "Y4M"; }
    bool accepts(const Zn::FileWriterParams& params) const override;
    std::vector<WString> extensions(const Zn::FileWriterParams& params) const override;
    int create(const WString& fileName, Zn::FileWriterParams& params, Zn::Ptr<Zn::FileWriteInstance>& out) override;
};

} // namespace y4m
