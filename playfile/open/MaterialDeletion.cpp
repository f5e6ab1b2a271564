#include "playfile/open/MaterialDeletion.h"

#include "host/core/Strings.h"
#include "host/os/Log.h"
#include "host/project/SystemCache.h"
#include "playfile/Configuration.h"
#include "playfile/open/PlayFileCache.h"

#include <vector>

int MaterialDeletion::deleteMaterial(const Cookie& cookie, eMediaTypes types) {
    Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(cookie);
    if (!entry) {
        LogBoth("PlayFile[%s]::delete: *** Material not available ***\n", cookie.asString().c_str());
        return 0;
    }
    std::vector<WString> files;
    if (types == kMediaProxy || types == kMediaAll)
        for (const MediaFileInfo& proxy : entry->getProxyFiles()) files.push_back(proxy.getPhysicalFilename(false));
    if (types != kMediaProxy && entry->hasFile()) files.push_back(entry->getPhysicalFilename(false));
    for (const WString& f : files) PlayFileCache::Shared().remove(f);

    WString reason;
    int rc = SystemCache::removeFile(cookie, nullptr, types, &reason);
    if (rc != 1)
        LogBoth("PlayFile[%s]::delete: *** Unable to delete material file ***, %s\n", cookie.asString().c_str(),
                toUTF8(reason).c_str());
    // A sound file's derived data in this host is its header, which removeFile deletes with
    // the file (the project's copy and the sidecar); decoded audio lives only in the open
    // instance, closed above. So there is nothing further to drop for 'S'.
    return rc;
}

int MaterialDeletion::deleteClipMaterial(const Cookie& cookie, eMediaTypes types) {
    int result = 1;
    auto deleteIfKnown = [&](const Cookie& material) {
        if (!SystemCache::fileExists(material)) return;
        int rc = deleteMaterial(material, types);
        if (rc != 1) result = rc; // the last failure is the one reported
    };
    for (unsigned variant = 0; variant < 24; ++variant) deleteIfKnown(convertCookie(cookie, 'V', uint8_t(variant)));
    const int channels = PlayfileConfig::maxAudioChansInShot();
    if (channels < 1) return result;
    for (int channel = 1; channel <= channels && channel < Cookie::kNoIndex; ++channel)
        deleteIfKnown(convertCookie(cookie, 'S', uint8_t(channel)));
    return result;
}
