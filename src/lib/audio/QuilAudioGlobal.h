#pragma once

/// \file
/// The export macro of the library's classes.

/// \defgroup hostapi Host API
/// What a host program uses: the capture devices and the provider that hands
/// their audio to feeds, the playback devices, the mixer, the device listing,
/// and the data-transfer handles the feeds are made of. The main page shows
/// each task.

/// \defgroup internals Library internals
/// The library's own helpers, public because its headers or their templates
/// need them. A host program does not use them directly.

/// \def QUIL_AUDIO_EXPORT
/// Marks a class of the library's binary interface: the library is built with
/// hidden visibility, and only the classes marked with it are exported.
/// \ingroup internals
#if defined(QUIL_AUDIO_BUILDING_LIBRARY)
#define QUIL_AUDIO_EXPORT __attribute__((visibility("default")))
#else
#define QUIL_AUDIO_EXPORT
#endif
