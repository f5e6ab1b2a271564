// The clips of the look-up benchmarks' projects: clip i has one video and `sound` sound
// materials, all held by one file on drive A, every other one linked to a file in place.
#pragma once

#include "host/project/ProjectImporter.h"

#include <vector>

inline std::vector<ClipRecord> lookupClips(int count, int sound) {
    std::vector<ClipRecord> clips(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        ClipRecord& c = clips[size_t(i)];
        c.name = Zn::WStringFromInteger(i);
        c.audioChannels = sound;
        c.file = MediaFileInfo(MaterialFilename(DriveId('A'), WString(L"video/clip") + c.name + L".mov"), 1u << 20,
                               i % 2 ? WString(L"/media/source/clip") + c.name + L".mov" : WString());
        c.file.setStatus(MediaFileInfo::eStatusAvailable);
    }
    return clips;
}
