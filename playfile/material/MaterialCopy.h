// Copying the files of logical media files to another media drive: each physical file to
// the same path on the destination drive (a linked file that lies in a media drive's
// folder to the same place under the destination's root, with a new link file), the
// companion files beside a high-resolution file with it, and for a move the material
// directory re-pointed at the copies. Progress goes to the logger weighted by bytes;
// Escape (g_esc_pressed) stops between files.
//
// The copies go through a copy batch of the host file manager (iCopyBatch): each file is
// written beside its destination as it is reached, and the batch is committed (data
// synced, then every file renamed into place, then each folder synced) when it is full and
// at the end, Escape included. Only then are link files written and, for a move, the
// material directory re-pointed, so a file appears under its final name only once it is
// complete and on disk, and the directory never names a copy that is not. Several
// materials sharing one file are all re-pointed at its one copy. Runs on the calling
// thread; the progress callback runs inside the batch's copy on that thread. No locks of
// its own.
#pragma once

#include "host/project/DriveId.h"
#include "host/tasks/Logger.h"
#include "playfile/material/LogicalMediaFile.h"
#include "playfile/material/MaterialMove.h"

#include <vector>

// Copies (or, with MaterialMove::eMove, moves) every physical file of the record to the
// destination drive. A file whose destination exists already is left alone entirely; a
// file that fails to copy is reported and skipped.
void copyMaterialFile(const LogicalMediaFile& record, const DriveId& destination, MaterialMove::eType type,
                      LoggerHandle logger);
// Copies all records, after checking once that the destination has strictly more free
// space than their total size; stops between records when Escape is pressed. Always ends
// with the media-online notice and the closing message, unless the space check refused.
void copyFiles(const std::vector<LogicalMediaFile>& records, const DriveId& destination, MaterialMove::eType type,
               LoggerHandle logger);
// The copy's progress callback: client is an iProgressClient (LoggerHandle::progressClient)
// or null. Always answers 1: a copy is never cancelled from here.
int progress(void* client, unsigned long done, unsigned long total);
