#pragma once

#include <QString>

namespace quil {

/// The error values of the library's objects (devices, cards, mixer handles
/// and elements), kept beside them rather than in them: host programs are
/// built against the classes' published layouts, which hold no such field.
///
/// Entries are keyed by the object's address as its public class sees it;
/// single, non-virtual inheritance puts a device's interface at the object's
/// own address, so `this` serves from the concrete class as well. Failures
/// write; successes never touch the registry, so the read and write paths
/// stay lock-free. Safe from any thread.
class ErrorRegistry {
public:
    /// Records text and code as the object's last failure; an empty text
    /// clears the entry instead.
    static void record(const void* object, const QString& text, int code);
    /// Drops the object's entry: its error value is empty again. Takes no
    /// lock while no object has one.
    static void clear(const void* object);
    static QString text(const void* object);
    static int code(const void* object);

    /// Marks a mixer element that ALSA removed; cleared with the entry.
    static void retire(const void* object);
    static bool isRetired(const void* object);
};

} // namespace quil
