#pragma once

#include <QHash>
#include <QString>
#include <QVariant>

/// Error value handed to a transfer's finish functions. A default-constructed
/// CMError means "no error".
class CMError
{
public:
    CMError() = default;
    explicit CMError(const QHash<QString, QVariant>& details);

    /// True when the error carries no details, i.e. it reports success.
    bool isNull() const;
    const QHash<QString, QVariant>& details() const;

private:
    QHash<QString, QVariant> m_details;
};
