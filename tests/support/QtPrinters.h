#pragma once

// Readable GoogleTest output for Qt values.

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <ostream>

inline void PrintTo(const QString& text, std::ostream* os)
{
    *os << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QStringList& list, std::ostream* os)
{
    *os << "{\n";
    for (const QString& text : list)
        *os << "  \"" << text.toStdString() << "\"\n";
    *os << "}";
}

inline void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << bytes.size() << " bytes";
}
