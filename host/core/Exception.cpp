#include "host/core/Exception.h"

#include <execinfo.h>
#include <cstdlib>

namespace Zn::Exception {

Base::Base(const char* typeName, const String& message, const char* file, int line)
    : typeName_(typeName), message_(message), file_(file), line_(line) {
    void* frames[32];
    int n = backtrace(frames, 32);
    char** names = backtrace_symbols(frames, n);
    if (!names) return;
    // Frame 0 is this constructor: the stack starts at whoever made the exception.
    for (int i = 1; i < n; ++i) stack_.emplace_back(names[i]);
    std::free(names);
}

} // namespace Zn::Exception
