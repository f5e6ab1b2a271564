// MaterialLink: re-pointing linked material. When media that the project uses in place
// moves (a remote file localised, say), every link to its old place is made a link to
// the new one: the records of linked files and their link files on the drives.
// Static; works on the current project (see EditManager).
#pragma once

#include "host/core/LightweightString.h"

class MaterialLink {
public:
    // Makes what links to `from` link to `to`: every linked file of the project whose
    // link target is `from` gets `to` as its target and a new link file. When no file
    // of the project links to `from`, `from` itself is made a symbolic link to `to`:
    // only where nothing exists yet, or where a symbolic link exists and replace is set
    // (a real file is never replaced). True when something was linked.
    static bool createLink(const WString& from, const WString& to, bool replace);
};
