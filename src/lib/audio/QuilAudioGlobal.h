#pragma once

/// \file
/// The export macro of the library's classes.

/// \def QUIL_AUDIO_EXPORT
/// Marks a class of the library's binary interface: the library is built with
/// hidden visibility, and only the classes marked with it are exported.
#if defined(QUIL_AUDIO_BUILDING_LIBRARY)
#define QUIL_AUDIO_EXPORT __attribute__((visibility("default")))
#else
#define QUIL_AUDIO_EXPORT
#endif
