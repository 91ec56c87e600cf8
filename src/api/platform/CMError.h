#pragma once

#include <QHash>
#include <QString>
#include <QVariant>

/// \file
/// CMError, the error value of the platform library's data transfers.

/// Error value handed to a transfer's finish functions. A default-constructed
/// CMError means "no error".
/// \ingroup hostapi
class CMError {
public:
    /// No error.
    CMError() = default;
    /// An error described by details (empty details mean no error).
    explicit CMError(const QHash<QString, QVariant>& details);

    /// True when the error carries no details, i.e. it reports success.
    bool isNull() const;
    /// The details given at construction.
    const QHash<QString, QVariant>& details() const;

private:
    QHash<QString, QVariant> m_details;
};
