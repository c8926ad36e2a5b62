#pragma once

/// @file
/// TREL_EXPORT marks what a host may use; everything else stays inside the library.
///
/// The library itself is built with TREL_BUILDING_LIBRARY. TREL_LINKS_OBJECTS is for programs that link the library's
/// objects directly, as the tests do; a host defines neither.

#if defined(_WIN32)
#if defined(TREL_BUILDING_LIBRARY)
#define TREL_EXPORT __declspec(dllexport)
#elif defined(TREL_LINKS_OBJECTS)
#define TREL_EXPORT
#else
#define TREL_EXPORT __declspec(dllimport)
#endif
#else
#define TREL_EXPORT __attribute__((visibility("default")))
#endif
