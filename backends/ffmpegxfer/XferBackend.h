// Registering the FFmpeg transfer plug-in with the host: what its plug-in entry does,
// callable directly by a program (or test) that links the plug-in instead of loading it.
#pragma once

namespace ffmpeg_xfer {

// Adds the FFmpeg transfer manager to the host's plug-in resources of type 32; later calls
// do nothing.
void registerBackend();

} // namespace ffmpeg_xfer
