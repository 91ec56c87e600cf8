#pragma once

/// \file
/// Thread naming and log helpers of the platform library libquil_api (a stand-in of it).

#include <QString>

#include <ostream>
#include <string>

/// Names the calling OS thread, as top and gdb show it (at most 15 bytes).
/// \ingroup internals
void quilSetThreadName(const QString& name);

/// The text that names a function in entry log lines.
/// \ingroup internals
std::string dbglog_scopedFunction(const std::string& function, const std::string& loggerName);

/// Writes a QString to a standard stream as UTF-8.
/// \ingroup internals
std::ostream& operator<<(std::ostream& stream, const QString& text);
