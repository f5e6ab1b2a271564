// MemoryFile: an iFile over bytes held in memory (a copy made at construction), for
// parsers that read through iFile and for their tests and fuzz targets. Reads past the
// end answer 0; seeking past the end is allowed and reads nothing there.
//
// read, seek and position share one current position and are for one reader at a time;
// readAt may be called from any number of threads at once.
#pragma once

#include "host/os/FileManager.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

class MemoryFile final : public iFile {
public:
    explicit MemoryFile(std::string_view bytes, const WString& name = WString()) : bytes_(bytes), name_(name) {}

    int64_t read(void* buf, uint64_t n) override {
        int64_t got = readAt(position_, buf, n);
        position_ += uint64_t(got);
        return got;
    }
    int64_t readAt(uint64_t offset, void* buf, uint64_t n) override {
        if (offset >= bytes_.size()) return 0;
        size_t take = size_t(std::min<uint64_t>(n, bytes_.size() - offset));
        std::memcpy(buf, bytes_.data() + offset, take);
        return int64_t(take);
    }
    bool seek(uint64_t offset) override {
        position_ = offset;
        return true;
    }
    uint64_t position() const override { return position_; }
    uint64_t size() const override { return bytes_.size(); }
    const WString& name() const override { return name_; }

private:
    std::string bytes_;
    WString name_;
    uint64_t position_ = 0;
};
