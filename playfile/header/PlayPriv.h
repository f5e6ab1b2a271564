// PlayPriv: the play headers of newly created material files. PlayFileCache::create
// fills one of these for every file it creates and has the host store it with the clip.
#pragma once

#include "host/core/RefCount.h"
#include "host/media/ShotVideoMetadata.h"
#include "playfile/Export.h"
#include "playfile/header/PlayHeader.h"
#include "playfile/open/PlayFile.h"

class PLAYFILE_API PlayPriv {
public:
    // A vision header: the picture size of the shot's video format (reduced by its size
    // divisor), its frame rate as both input and replay rate, "PAL" exactly at 25 frames
    // per second and "NTSC" at any other rate, field dominance "both", and the file's
    // name as the original name. A format the table does not know gives size 0 x 0.
    static void make_vision_header(Zn::Ptr<PlayFile> file, ShotVideoMetadata const& meta, SAV_HEADER* out);
    // A sound header: every sound play file holds one channel of linear samples.
    static void make_audio_header(Zn::Ptr<PlayFile> file, SAV_HEADER* out, double sample_rate, int bytes_per_sample);
};
