#pragma once

#include <QVariantHash>

#include "CMAbstractWorker.h"

// A named worker with its settings and a path prefix of its own,
// "/modules/<name without the Worker suffix, first letter lowered>"
// ("SimpleGroupingWorker" -> "/modules/simpleGrouping"). Reads, writes and
// invocations go to the root worker, so a worker reaches every path.
class CMWorker : public CMAbstractWorker
{
    Q_OBJECT

public:
    CMWorker(const QVariantHash& settings, const QString& name);

    const QString& name() const { return m_name; }
    const QVariantHash& settings() const { return m_settings; }
    const CMPath& prefix() const { return m_prefix; }
    // The prefix followed by `suffix` ("" gives the prefix itself).
    CMPath addPrefix(const QString& suffix) const;

    QVariant getValue(const CMPath& path) override;
    CMVoidReply setValue(const CMPath& path, const TarvValue& value, const CMReply<QVariant>& reply) override;
    CMVoidReply invoke(const CMPath& path, const TarvHash& value, const CMReply<QVariant>& reply) override;

    static CMPath prefixForName(const QString& name);

private:
    QVariantHash m_settings;
    QString m_name;
    CMPath m_prefix;
};
