#include "host/media/FileWriterInfo.h"

namespace Zn {

namespace {
Registry<iFileWriter>& registry() {
    static auto* r = new Registry<iFileWriter>; // never destroyed: writers may be asked for at exit
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
    if (done) done(RequestStatus::Failed);
    return 0;
}

std::vector<Zn::Ptr<iFileWriter>> FileWriterInfo::getAll() { return registry().snapshot(); }

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
    registry().add(std::move(writer), position);
}

bool FileWriterInfo::unregisterFileWriter(const Zn::Ptr<iFileWriter>& writer) { return registry().remove(writer); }

} // namespace Zn
