#include "playfile/EntryPoints.h"

#include "host/media/CodecPool.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/requests/PreOpen.h"

// The cache goes first in both close functions, so that decoders freed by closing files
// are flushed by the same call.

extern "C" Zn::FilePreOpen* playfile_init() { return &Zn::FilePreOpen::instance(); }

extern "C" void playfile_exit() { playfile_close_all_files(); }

extern "C" void playfile_close_all_files() {
    PlayFileCache::Shared().closeAll();
    CodecPool::flushAllUnreferenced();
}

extern "C" void playfile_close_files(const Cookie& clip, eMediaTypes types) {
    PlayFileCache::Shared().close(clip, types);
    CodecPool::flushAllUnreferenced();
}
