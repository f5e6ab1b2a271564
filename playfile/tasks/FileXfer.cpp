// Extraction of material sections: the section in samples or frames, the checks against the
// source, the hand-over to a file-transfer plug-in and the registration of the new file.
#include "playfile/tasks/FileXfer.h"

#include "host/core/Strings.h"
#include "host/media/DecodeFormat.h"
#include "host/media/PlayFileMetadataRep.h"
#include "host/media/PluginResources.h"
#include "host/media/VideoFormats.h"
#include "host/os/Log.h"
#include "host/project/DiskManager.h"
#include "host/project/Edit.h"
#include "host/project/MaterialFilename.h"
#include "host/project/MaterialInfo.h"
#include "host/project/ProjectFiles.h"
#include "host/project/SystemCache.h"
#include "host/tasks/Logger.h"
#include "playfile/header/PlayHeader.h"
#include "playfile/header/PlayPriv.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayFileCache.h"

#include <cmath>
#include <exception>
#include <string>

namespace {

// The margins absorb the floating error of a section given in seconds (0.99999999 for 1.0);
// they differ by kind, as they always have.
constexpr double kVisionMargin = 0.0001;
constexpr double kSoundMargin = 1e-6;

int64_t floorSamples(double seconds, double margin, double rate) {
    return int64_t(std::floor((seconds + margin) * rate));
}

} // namespace

FileXferSpec::FileXferSpec() : destinationDrive(DiskManager::getDriveForTask("render", true)) {}

int32_t FileXferSpec::get_vision_samples() {
    const double fps = Zn::getFramesPerSecond(videoMetadata.getFrameRate());
    firstSample = floorSamples(start, kVisionMargin, fps);
    endSample = int32_t(floorSamples(end, kVisionMargin, fps));
    return endSample;
}

int32_t FileXferSpec::get_sound_samples() {
    const double rate = double(get_soundfile_sample_rate(source));
    firstSample = floorSamples(start, kSoundMargin, rate);
    endSample = int32_t(floorSamples(end, kSoundMargin, rate));
    return endSample;
}

int FileXferSpec::get_extract_samples() {
    switch (source.type()) {
    case 'V': get_vision_samples(); return 1;
    case 'S': get_sound_samples(); return 1;
    default: Log("get_extract_samples(): Unknown Cookie type"); return 0;
    }
}

unsigned FileXferSpec::get_soundfile_sample_rate(const Cookie& material) {
    EditPtr edit;
    if (!edit.i_open(material, eEditOpenReadOnly)) return 0;
    const unsigned rate = edit->getAudioInputSampleRate();
    edit.i_close();
    return rate;
}

Zn::Ptr<iFileXferManager> FileXferSpec::getOurFileXferManager() const {
    for (const Zn::Ptr<iFileXferManager>& m : Zn::findPluginResources<iFileXferManager>(Zn::kFileXferPluginResource)) {
        // A plug-in that throws is a broken plug-in: the next one is asked.
        try {
            if (m->acceptsExtraction(*this)) return m;
        } catch (const std::exception& e) {
            LogBoth("getOurFileXferManager: %ls failed: %s\n", m->getName().c_str(), e.what());
        }
    }
    return nullptr;
}

eExtractResult FileXferSpec::get_extract(LoggerHandle& log) {
    const int64_t offset = MaterialInfo::get_start_offset(source);
    if (start < 0.0) {
        if (end < 0.0) Log("get_extract: requested section before start\n");
        else Log("get_extract: file '%s' needs %g seconds black padding\n", source.asString().c_str(), -start);
        return kExtractDone;
    }
    if (!(start < end)) return kEmptySection;
    if (get_extract_samples() != 1) return kExtractFailed;
    if (source.type() == 'S') {
        firstSample += offset;
        endSample = int32_t(endSample + offset);
    }

    Zn::Ptr<FileReadInstance> file = PlayFileCache::Shared().open(source, DecodeFormat(1), 0);
    if (!file) {
        LogBoth("PlayFile::extract(): Unable to open input material file\n");
        return kExtractFailed;
    }
    sourceFile = file->getFileName();
    int64_t length;
    switch (source.type()) {
    case 'S': length = int64_t(file->getMetadata()->getAudioLength()); break;
    case 'V': length = int64_t(file->getMetadata()->getFrameCount()); break;
    default: Log("playfile_extract(): Unknown record type to extract\n"); return kExtractFailed;
    }
    file = nullptr; // the plug-in reads the file its own way
    if (endSample > length) endSample = int32_t(length);

    eExtractResult rc = kExtractFailed;
    if (Zn::Ptr<iFileXferManager> plugin = getOurFileXferManager()) {
        try {
            rc = plugin->extract(*this, log);
        } catch (const std::exception& e) {
            LogBoth("get_extract: %ls failed: %s\n", plugin->getName().c_str(), e.what());
            rc = kExtractFailed;
        }
    }
    if (rc == kExtractDone) {
        SystemCache::addFile(destination, getMaterialFilenameForCookie(destination, destinationDrive), 0);
    } else if (rc == kExtractInterrupted) {
        Log("playfile_extract: *** Interrupted ***\n");
    } else if (rc != kExtractFailed) {
        Log("playfile_extract: *** Error ***\n");
    } else {
        Log("playfile_extract: *** Error copying file ***\n");
    }
    return rc;
}

bool FileXferSpec::storeDestinationHeader(const WString& newFile, double sampleRate, int bytesPerSample) const {
    Zn::Ptr<PlayFile> file = Zn::makePtr<PlayFile>(newFile);
    SAV_HEADER hdr;
    if (destination.type() == 'S') PlayPriv::make_audio_header(file, &hdr, sampleRate, bytesPerSample);
    else PlayPriv::make_vision_header(file, videoMetadata, &hdr);
    std::string text(header_text_size(&hdr), '\0');
    text.resize(size_t(header_to_string(&hdr, text.data()) - text.data()));
    // The file is not registered yet, so the project keeps the text and the sidecar is
    // written here.
    if (!projectfs::writeTextFile(stripExtension(newFile) + L".hdr", String(text))) return false;
    return MaterialInfo::write_header(destination, String(text)) != MaterialInfo::kWriteFailed;
}
