#include "host/media/FileWriterInfo.h"

#include <algorithm>

namespace Zn {

namespace {
struct Registry {
    std::mutex mutex;
    std::vector<Zn::Ptr<iFileWriter>> writers;
};
Registry& registry() {
    static Registry* r = new Registry; // never destroyed: writers may be asked for at exit
    return *r;
}
} // namespace

FileWriterParams FileWriterParams::forVideo(const ShotVideoMetadata& shot, Image::eDataFormat pixels) {
    FileWriterParams p;
    p.kind = kVideo;
    p.video = shot;
    if (const DigitalVideoFormat* f = DigitalVideoFormats::findByUID(shot.getVideoFormatUID()))
        p.core.setCoreData(f->storedWidth(), f->storedHeight(), pixels);
    getFrameRateFraction(shot.getFrameRate(), p.rateNum, p.rateDen);
    return p;
}

FileWriterParams FileWriterParams::forAudio(const Aud::Metadata& layout) {
    FileWriterParams p;
    p.kind = kAudio;
    p.audio = layout;
    return p;
}

ShotVideoMetadata FileWriterParams::videoMetadata() const {
    if (video.isSet()) return video;
    return ShotVideoMetadata::fromPicture(core.getWidth(), core.getHeight(), rateNum, rateDen);
}

FileWriteInstance::FileWriteInstance(const WString& fileName, const FileWriterParams& params)
    : fileName_(fileName), params_(params) {
    metadata_.audioStream = params.audio;
}

int FileWriteInstance::writeSurface(const Image::Surface&, int) { return 0; }
int FileWriteInstance::writeFrame(const Image::Surface&, int) { return 0; }

int FileWriteInstance::writeAudio(Zn::Ptr<iMemHolder>&, WriteDoneFn done) {
    if (done) done(Failed);
    return 0;
}

std::vector<Zn::Ptr<iFileWriter>> FileWriterInfo::getAll() {
    std::lock_guard<std::mutex> lock(registry().mutex);
    return registry().writers;
}

Zn::Ptr<iFileWriter> FileWriterInfo::getFileWriterFor(const FileWriterParams& params) {
    for (auto& w : getAll())
        if (w->accepts(params)) return w;
    return nullptr;
}

std::vector<WString> FileWriterInfo::getExtensionsForFormat(const FileWriterParams& params) {
    Zn::Ptr<iFileWriter> w = getFileWriterFor(params);
    return w ? w->extensions(params) : std::vector<WString>();
}

void FileWriterInfo::registerFileWriter(Zn::Ptr<iFileWriter> writer, int position) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto& v = registry().writers;
    if (position < 0 || size_t(position) >= v.size()) v.push_back(std::move(writer));
    else v.insert(v.begin() + position, std::move(writer));
}

bool FileWriterInfo::unregisterFileWriter(const Zn::Ptr<iFileWriter>& writer) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto& v = registry().writers;
    auto it = std::find(v.begin(), v.end(), writer);
    if (it == v.end()) return false;
    v.erase(it);
    return true;
}

} // namespace Zn
