#pragma once

#include <QMetaType>
#include <QString>

/// \file
/// The capture state that AudioInputDataProvider::captureStatus() reports.

/// The library's helper types (CaptureStatus.h).
namespace quil {

/// What an input data provider's capture is doing.
/// \ingroup hostapi
enum class CaptureState {
    Stopped, ///< not capturing: never started, stopped, or ended by a failed open
    Running, ///< the device is open and being read
    Restarting ///< a read failed; a new run opens the device again 2000 ms later
};

/// A provider's capture state with the reason of its last failure. A
/// program that runs for months can watch this instead of the log.
/// \ingroup hostapi
struct CaptureStatus {
    /// Stopped at first.
    CaptureState state = CaptureState::Stopped;
    /// Why capture is restarting, or why it stopped after a failed open: the
    /// device's errorString() (or the provider's own log line when the device
    /// gave none). Empty while running and after a plain stop.
    QString errorString;
    /// The device's errorCode() for that failure, or 0.
    int errorCode = 0;
    /// Restarts after read failures since the provider was built.
    int restartCount = 0;

    /// Equal when every field is.
    bool operator==(const CaptureStatus& other) const
    {
        return state == other.state && errorString == other.errorString && errorCode == other.errorCode
               && restartCount == other.restartCount;
    }
    /// Differs when any field does.
    bool operator!=(const CaptureStatus& other) const { return !(*this == other); }
};

} // namespace quil

Q_DECLARE_METATYPE(quil::CaptureStatus)
