// Default options of the sanitizer runtimes, linked into every program of a sanitizer
// build. The library binds its own allocation operators to the host allocator, while a
// sanitizer runtime supplies the operators of the rest of the process; memory crossing
// between the two is the same heap underneath, so the pairing check is switched off.
extern "C" const char* __asan_default_options() { return "alloc_dealloc_mismatch=0:detect_leaks=1"; }
