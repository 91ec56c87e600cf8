#pragma once

// The library is built with hidden visibility; only the classes marked with
// this macro form its binary interface.
#if defined(QUIL_AUDIO_BUILDING_LIBRARY)
#  define QUIL_AUDIO_EXPORT __attribute__((visibility("default")))
#else
#  define QUIL_AUDIO_EXPORT
#endif
