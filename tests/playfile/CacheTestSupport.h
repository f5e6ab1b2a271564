// Support for the play file cache tests: FramePlugin, a real reader of the frame files of
// FrameFileReader.h that a test registers in the host's reader registry for its length
// (and can hold at a gate, make failing, throwing or limited in what it serves, and count), and a
// project whose clips keep their material in such files.
#pragma once

#include "FrameFileReader.h"
#include "host/ProjectFixture.h"

#include "host/core/Strings.h"
#include "host/media/FileReaderInfo.h"
#include "playfile/open/PlayFileCache.h"

#include <functional>
#include <map>
#include <thread>

namespace cache_test {

using namespace test_backend;

inline FrameFileLayout layout(uint32_t frames, uint32_t audioChannels = 0, uint64_t samples = 0) {
    return {.frames = frames, .audioChannels = audioChannels, .audioSamples = samples, .extraStreamChannels = {}};
}

struct FramePlugin : Zn::iFileReader {
    explicit FramePlugin(const char* name, unsigned caps = OpenType::kVideoAndAudio) : name_(name), caps_(caps) {}

    String name() const override { return name_; }
    bool accepts(const WString& file, OpenType) override { return file.endsWith(L".frames"); }
    Zn::Ptr<FileReadInstance> open(const DecodeFormat& format, const WString& file, OpenType type) override {
        ++opens;
        gate.pass();
        if (throws) throw std::runtime_error("unreadable");
        if (fails) return nullptr;
        auto reader = Zn::makePtr<FrameFileReader>(toUTF8(file).str(), format, type, layoutOf(file));
        if (tweak) tweak(*reader->getMetadata());
        return reader;
    }
    unsigned capabilities(const DecodeFormat&, OpenType, const PlayFileMetadataRep&, const Aud::Metadata& stream,
                          Zn::ReaderDetails&) override {
        if (!stream.valid()) sawDefaultStream = true;
        return caps_;
    }

    void setLayout(const std::string& path, const FrameFileLayout& layout) {
        std::lock_guard<std::mutex> l(mutex_);
        layouts_[path] = layout;
    }

    std::atomic<int> opens{0};
    std::atomic<bool> fails{false}, throws{false}, sawDefaultStream{false};
    std::function<void(PlayFileMetadataRep&)> tweak; // set before the plug-in is used
    Gate gate;

private:
    FrameFileLayout layoutOf(const WString& file) {
        std::lock_guard<std::mutex> l(mutex_);
        auto it = layouts_.find(toUTF8(file).str());
        return it == layouts_.end() ? FrameFileLayout() : it->second;
    }
    String name_;
    unsigned caps_;
    std::mutex mutex_;
    std::map<std::string, FrameFileLayout> layouts_;
};

// Registers plug-ins, in order after any already there, for a scope.
struct Registered {
    explicit Registered(std::initializer_list<Zn::Ptr<FramePlugin>> plugins) : plugins_(plugins) {
        for (auto& p : plugins_) Zn::FileReaderInfo::registerFileReader(p);
    }
    ~Registered() {
        for (auto& p : plugins_) Zn::FileReaderInfo::unregisterFileReader(p);
    }

private:
    std::vector<Zn::Ptr<FramePlugin>> plugins_;
};

// A project (see ProjectFixture.h) with one registered plug-in, whose clips each keep
// all their material in one frame file.
struct ClipTest : project_test::ProjectTest {
    // A clip with a video channel and audio channels, its file written with layout.
    Cookie clip(const std::string& name, const FrameFileLayout& layout, int audioChannels = 0) {
        std::string path = writeFrameFile(tmp, name + ".frames", layout);
        plugin->setLayout(path, layout);
        return importClip(name, path, audioChannels);
    }

    Zn::Ptr<FramePlugin> plugin = Zn::makePtr<FramePlugin>("frames");
    Registered registered{plugin};
};

} // namespace cache_test
