# The transfer plug-in writes through FFmpeg's libraries, as the FFmpeg back-end reads.
find_package(PkgConfig REQUIRED)
if(NOT TARGET PkgConfig::FFMPEG)
    pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libavutil libswscale libswresample)
endif()
target_link_libraries(playfile-backend-${name} PUBLIC PkgConfig::FFMPEG)
target_compile_definitions(playfile-backend-${name} PUBLIC __STDC_CONSTANT_MACROS)
