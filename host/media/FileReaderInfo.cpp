#include "host/media/FileReaderInfo.h"

#include <algorithm>

namespace Zn {

// Never destroyed: back-ends may unregister from their own static destructors, which can
// run after this file's statics are gone.
FileReaderInfo::Registry& FileReaderInfo::registry() {
    static Registry* r = new Registry;
    return *r;
}

unsigned FileReaderInfo::getNumFileReaders() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return unsigned(r.readers.size());
}

Zn::Ptr<iFileReader> FileReaderInfo::getFileReaders(uint8_t index) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return index < r.readers.size() ? r.readers[index] : nullptr;
}

void FileReaderInfo::registerFileReader(Zn::Ptr<iFileReader> reader, int position) {
    if (!reader) return;
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (position < 0 || size_t(position) >= r.readers.size()) r.readers.push_back(std::move(reader));
    else r.readers.insert(r.readers.begin() + position, std::move(reader));
}

bool FileReaderInfo::unregisterFileReader(const Zn::Ptr<iFileReader>& reader) {
    Zn::Ptr<iFileReader> dropped; // released after the lock: a reader's destructor may call back in
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = std::find(r.readers.begin(), r.readers.end(), reader);
    if (it == r.readers.end()) return false;
    dropped = std::move(*it);
    r.readers.erase(it);
    return true;
}

std::vector<Zn::Ptr<iFileReader>> FileReaderInfo::getAll() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.readers;
}

} // namespace Zn
