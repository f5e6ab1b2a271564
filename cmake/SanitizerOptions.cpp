// Default options of the sanitizer runtimes, linked into every program of a sanitizer
// build. The library binds its own allocation operators to the host allocator, while a
// sanitizer runtime supplies the operators of the rest of the process; memory crossing
// between the two is the same heap underneath, so the pairing check is switched off.
extern "C" const char* __asan_default_options() { return "alloc_dealloc_mismatch=0:detect_leaks=1"; }

// FFmpeg's libraries are not built with ThreadSanitizer: their frame and slice threads hand
// pictures over through atomics it cannot see, so every buffer a decoder thread fills and
// the caller frees looks like a race. Reports whose stacks pass through them are dropped;
// races between the project's own threads still show.
extern "C" const char* __tsan_default_suppressions() {
    return "race:libavcodec.so\n"
           "race:libavutil.so\n"
           "race:libavformat.so\n"
           "race:libswscale.so\n"
           "race:libswresample.so\n";
}
