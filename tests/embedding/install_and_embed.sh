#!/bin/bash
# Installs the build under a temporary prefix, moves the installation elsewhere, and
# builds and runs a small embedding program with nothing but what pkg-config says about
# the moved installation. Everything happens in a temporary folder, removed at the end.
#   install_and_embed.sh BUILD_DIR CXX PROGRAM_SOURCE [EXTRA_COMPILER_ARGUMENT...]
set -euo pipefail
build=$1 cxx=$2 source=$3
shift 3

work=$(mktemp -d "${TMPDIR:-/tmp}/playfile-embed-XXXXXX")
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
mv "$work/first" "$work/moved"
prefix=$work/moved
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig

# The pkg-config file and the CMake package follow the installation, not the prefix
# given at install time.
if grep -rq "$work/first" "$prefix/lib/pkgconfig" "$prefix/lib/cmake"; then
    echo "the installed package files name the install prefix:"; grep -rn "$work/first" "$prefix/lib"; exit 1
fi
[ "$(pkg-config --variable=includedir playfile)" -ef "$prefix/include/playfile" ] ||
    { echo "includedir is $(pkg-config --variable=includedir playfile)"; exit 1; }

# The CMake package of the moved installation names the moved files.
mkdir "$work/package"
cat >"$work/package/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(uses_playfile LANGUAGES CXX)
find_package(playfile REQUIRED)
get_target_property(configs playfile::playfile IMPORTED_CONFIGURATIONS)
list(GET configs 0 config)
get_target_property(library playfile::playfile IMPORTED_LOCATION_${config})
get_target_property(includes playfile::playfile INTERFACE_INCLUDE_DIRECTORIES)
message(STATUS "library=${library} includes=${includes}")
foreach(path ${library} ${includes})
    if(NOT EXISTS "${path}" OR NOT path MATCHES "^${PLAYFILE_PREFIX}/")
        message(FATAL_ERROR "the package names ${path}, outside ${PLAYFILE_PREFIX}")
    endif()
endforeach()
CMAKE
cmake -S "$work/package" -B "$work/package/build" -DCMAKE_PREFIX_PATH="$prefix" -DPLAYFILE_PREFIX="$prefix" \
    >"$work/package.log" 2>&1 || { cat "$work/package.log"; exit 1; }

# Only the headers an embedding program needs: the library's internals stay behind.
for internal in playfile/requests/QueuePool.h playfile/requests/VideoReadQueue.h playfile/header/PlayPriv.h \
                playfile/tasks/LocaliseTask.h host/project/ProjectCatalog.h; do
    if [ -e "$prefix/include/playfile/$internal" ]; then echo "$internal is installed"; exit 1; fi
done

read -r -a cflags <<<"$(pkg-config --cflags playfile)"
read -r -a flags <<<"$(pkg-config --cflags --libs playfile)"
# Every installed header compiles with nothing but the installation.
(cd "$prefix/include/playfile" && find . -name '*.h' | sort | sed 's|^\./\(.*\)|#include "\1"|') >"$work/all.cpp"
"$cxx" -std=c++20 -fsyntax-only "$work/all.cpp" "${cflags[@]}"
"$cxx" -std=c++20 "$source" "$@" "${flags[@]}" -o "$work/embedding_program"

# The back-ends are found beside the installed host library; nothing points at the build.
env -u PLAYFILE_BACKEND_PATH LD_LIBRARY_PATH="$prefix/lib" HOME="$work" XDG_STATE_HOME="$work" \
    XDG_CONFIG_HOME="$work" "$work/embedding_program" "$work"
