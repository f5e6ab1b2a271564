// Registering the FFmpeg back-end with the host: what the plug-in entry does, callable
// directly by a program (or test) that links the back-end instead of loading it.
#pragma once

namespace ffmpeg_backend {

// Registers the FFmpeg file reader and video decoder; later calls do nothing.
void registerBackend();

} // namespace ffmpeg_backend
