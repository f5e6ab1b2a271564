// The FFmpeg transfer plug-in's entry: its one file-transfer manager, handed to the host as
// a plug-in resource of type 32. It is loaded from the plug-in folder with the back-ends.
#include "backends/ffmpegxfer/XferBackend.h"

#include "backends/ffmpegxfer/XferManager.h"
#include "host/media/BackendPlugins.h"
#include "host/media/PluginResources.h"

#include <mutex>

namespace ffmpeg_xfer {

void registerBackend() {
    static std::once_flag once;
    std::call_once(once, [] {
        Zn::PluginResources::add(Zn::kFileXferPluginResource, Zn::Ptr<iObject>(Zn::makePtr<FfmpegXferManager>()));
    });
}

} // namespace ffmpeg_xfer

extern "C" __attribute__((visibility("default"))) const PlayfileBackendEntry* playfile_backend_entry() {
    static const PlayfileBackendEntry entry{kPlayfileBackendAbi, "FFmpeg transfer", 95, &ffmpeg_xfer::registerBackend};
    return &entry;
}
