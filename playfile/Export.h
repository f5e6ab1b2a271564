// PLAYFILE_API marks what libplayfile exports. The library is built with its symbols
// hidden (-fvisibility=hidden -fvisibility-inlines-hidden); a class or function marked
// here is what embedding programs, the back-end plug-ins, the `playfile` program and the
// tests may use. Marking a class exports all its members, its vtable and its type
// information (needed for dynamic_cast and exceptions across the library's boundary).
#pragma once

#define PLAYFILE_API __attribute__((visibility("default")))
