// The per-thread state of a file-system query's scope: the stats it made and whether it
// looked at the mount table. Kept per thread between scopes so that opening one costs
// nothing; each outermost scope starts it afresh.
#include "host/os/FileQueryScope.h"

#include <array>
#include <cerrno>
#include <cstddef>

namespace {

// What the scope open on this thread has seen.
struct ScopeState {
    struct Seen {
        std::string path;
        int error = 0;
        struct stat st {};
    };
    static constexpr size_t kKept = 16;

    bool open = false;
    bool mountsChecked = false;
    std::array<Seen, kKept> seen;
    size_t count = 0; // paths kept in this scope; the next one replaces slot count % kKept
};

thread_local ScopeState t_scope;

} // namespace

FileQueryScope::FileQueryScope() noexcept : outermost_(!t_scope.open) {
    if (!outermost_) return;
    t_scope.open = true;
    t_scope.mountsChecked = false;
    t_scope.count = 0;
}

FileQueryScope::~FileQueryScope() {
    if (outermost_) t_scope.open = false;
}

int FileQueryScope::stat(const std::string& path, struct stat& st) {
    ScopeState& scope = t_scope;
    if (scope.open) {
        const size_t n = scope.count < ScopeState::kKept ? scope.count : ScopeState::kKept;
        for (size_t i = 0; i < n; ++i) {
            const ScopeState::Seen& s = scope.seen[i];
            if (s.path == path) {
                st = s.st;
                return s.error;
            }
        }
    }
    const int error = ::stat(path.c_str(), &st) == 0 ? 0 : errno;
    if (scope.open) {
        ScopeState::Seen& s = scope.seen[scope.count++ % ScopeState::kKept];
        s.path = path;
        s.error = error;
        s.st = st;
    }
    return error;
}

bool FileQueryScope::shouldCheckMounts() noexcept {
    ScopeState& scope = t_scope;
    if (!scope.open) return true;
    if (scope.mountsChecked) return false;
    scope.mountsChecked = true;
    return true;
}
