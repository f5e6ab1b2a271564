#include "host/media/FileReaderInfo.h"

namespace Zn {

// Never destroyed: back-ends may unregister from their own static destructors, which can
// run after this file's statics are gone.
Registry<iFileReader>& FileReaderInfo::registry() {
    static auto* r = new Registry<iFileReader>;
    return *r;
}

unsigned FileReaderInfo::getNumFileReaders() { return unsigned(registry().size()); }

Zn::Ptr<iFileReader> FileReaderInfo::getFileReaders(uint8_t index) { return registry().at(index); }

void FileReaderInfo::registerFileReader(Zn::Ptr<iFileReader> reader, int position) {
    registry().add(std::move(reader), position);
}

bool FileReaderInfo::unregisterFileReader(const Zn::Ptr<iFileReader>& reader) { return registry().remove(reader); }

std::vector<Zn::Ptr<iFileReader>> FileReaderInfo::getAll() { return registry().snapshot(); }

} // namespace Zn
