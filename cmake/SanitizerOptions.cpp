// Default options of the sanitizer runtimes, linked into every program of a sanitizer
// build. The library binds its own allocation operators to the host allocator, while a
// sanitizer runtime supplies the operators of the rest of the process; memory crossing
// between the two is the same heap underneath, so the pairing check is switched off.
//
// The command-line program runs without the leak check: at its exit, LeakSanitizer's
// tracer (GCC 12's runtime on glibc 2.36) now and then crashes reading the dynamic TLS of
// the back-end plug-ins it loaded, and the program's status turns to 1 although it did its
// work. The test programs, which drive the same library code, keep the check.
#ifdef PLAYFILE_NO_LEAK_CHECK
extern "C" const char* __asan_default_options() { return "alloc_dealloc_mismatch=0:detect_leaks=0"; }
#else
extern "C" const char* __asan_default_options() { return "alloc_dealloc_mismatch=0:detect_leaks=1"; }
#endif

// FFmpeg's libraries and the x265 encoder they drive are not built with ThreadSanitizer:
// their frame, slice and row threads hand pictures over through atomics it cannot see, so
// every buffer a codec thread fills and the caller frees looks like a race. Reports whose
// stacks pass through them are dropped; races between the project's own threads still show.
extern "C" const char* __tsan_default_suppressions() {
    return "race:libavcodec.so\n"
           "race:libavutil.so\n"
           "race:libavformat.so\n"
           "race:libswscale.so\n"
           "race:libswresample.so\n"
           "race:libx265.so\n";
}

// libx265 (3.5, as Debian ships it) keeps one allocation of every encoder it opens after
// the encoder is closed; the extraction's re-encode of HEVC opens one per run of frames.
extern "C" const char* __lsan_default_suppressions() { return "leak:libx265.so\n"; }
