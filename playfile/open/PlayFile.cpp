#include "playfile/open/PlayFile.h"

PlayFile::PlayFile(const WString& fileName)
    : fileName_(fileName), metadata_(Zn::makePtr<PlayFileMetadataRep>(fileName)) {}

PlayFile::~PlayFile() = default;

void PlayFile::ZnFileIxCache_open(Zn::Ptr<IndexInfoRep>&, unsigned) {}

unsigned PlayFile::getVideoOrigin() const { return 0; }
