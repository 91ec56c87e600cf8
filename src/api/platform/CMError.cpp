#include "CMError.h"

CMError::CMError(const QHash<QString, QVariant>& details)
    : m_details(details)
{
}

bool CMError::isNull() const { return m_details.isEmpty(); }

const QHash<QString, QVariant>& CMError::details() const { return m_details; }
