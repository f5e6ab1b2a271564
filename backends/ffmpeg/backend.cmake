# The FFmpeg back-end links the FFmpeg libraries found with pkg-config. PUBLIC, so that the
# tests (which link every back-end) see FFmpeg's headers too.
find_package(PkgConfig REQUIRED)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libavutil libswscale libswresample)
target_link_libraries(playfile-backend-${name} PUBLIC PkgConfig::FFMPEG)
# libavutil's headers insist on this macro in C++ (INT64_C and friends).
target_compile_definitions(playfile-backend-${name} PUBLIC __STDC_CONSTANT_MACROS)
