// The physical files behind one clip's media: a material's high-resolution file and its
// proxies, each possibly on another drive, gathered as one LogicalMediaFile with the size
// of each file, so that they can be copied to another drive together. Also the lists of
// such records for a set of materials or for everything on a drive, and the size of a
// file named with a drive letter.
#pragma once

#include "host/core/Cookie.h"
#include "host/project/DriveId.h"
#include "host/project/MediaFileInfo.h"
#include "playfile/Export.h"

#include <cstdint>
#include <vector>

// One physical file: the directory's record of it and its size in bytes, measured on
// disk when the record is made.
class MediaFileInfoEx : public MediaFileInfo {
public:
    explicit MediaFileInfoEx(const MediaFileInfo& info);
    MediaFileInfoEx(const MediaFileInfo& info, uint64_t fileSize) : MediaFileInfo(info), fileSize_(fileSize) {}
    uint64_t getFileSize() const noexcept { return fileSize_; }

private:
    uint64_t fileSize_ = 0;
};

// The high-resolution file first, then the proxies in the entry's order, and the
// material they belong to.
struct PLAYFILE_API LogicalMediaFile {
    std::vector<MediaFileInfoEx> files;
    Cookie cookie;

    uint64_t totalSize() const noexcept;
};

// The files of the material that are present (size above 0) and not on `excluded`: the
// files that would have to travel to that drive. No directory entry: no files.
PLAYFILE_API LogicalMediaFile makeLogicalMediaFile(const Cookie& material, DriveId excluded);
// One record per material, in order, leaving out those with no file to travel.
PLAYFILE_API void getMaterialFiles(const CookieVec& materials, std::vector<LogicalMediaFile>& out, DriveId excluded);
// The records of the project's shots whose material lies on the drive. Each is made with
// that same drive excluded, so it holds the shot's files that lie elsewhere (its proxies
// on other drives, say); shots with none are left out.
PLAYFILE_API void getMaterialFilesOnDrive(const DriveId& drive, std::vector<LogicalMediaFile>& out);
// The size of a file named in ASCII, whose first character may be a drive id followed by
// a separator ("A:video/x.mov" is x.mov in drive A's video folder); 0 when missing.
PLAYFILE_API uint64_t ToolsGetfilesize(const char* name);
