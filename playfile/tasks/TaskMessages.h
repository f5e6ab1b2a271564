// The numbers of the string resources (resourceStrW) that the media tasks and the material
// actions show.
#pragma once

enum eTaskMessage : unsigned {
    kMsgNotEnoughSpace = 0x2d35, // "$BYTES1$" free, "$BYTES2$" needed
    kMsgCouldNotWrite = 0x2edb,  // "$FILE$"
    kMsgSeveralLogs = 11591,     // "$NUM$"
    kMsgProxy = 12531,           // follows a clip's name, in brackets, for its proxy
    kMsgStalePartial = 12532,    // "$FILE$": an unfinished copy of an earlier run was discarded
    kMsgDownloadedFiles = 12533, // the heading of the files a download wrote
    kMsgDownloadMedia = 13649,
    kMsgLocaliseMedia = 14293,
};
