#include "CMWorker.h"

#include "CMRootWorker.h"

CMWorker::CMWorker(const QVariantHash& settings, const QString& name)
    : m_settings(settings), m_name(name), m_prefix(prefixForName(name))
{
    setObjectName(name);
}

CMPath CMWorker::prefixForName(const QString& name)
{
    QString base = name;
    if (base.endsWith(QLatin1String("Worker")) && base.size() > 6)
        base.chop(6);
    if (!base.isEmpty())
        base[0] = base.at(0).toLower();
    return CMPath(QStringLiteral("/modules")) + base;
}

CMPath CMWorker::addPrefix(const QString& suffix) const
{
    return suffix.isEmpty() ? m_prefix : m_prefix + suffix;
}

QVariant CMWorker::getValue(const CMPath& path)
{
    return CMRoot()->getValue(path);
}

CMVoidReply CMWorker::setValue(const CMPath& path, const TarvValue& value, const CMReply<QVariant>& reply)
{
    return CMRoot()->setValue(path, value, reply);
}

CMVoidReply CMWorker::invoke(const CMPath& path, const TarvHash& value, const CMReply<QVariant>& reply)
{
    return CMRoot()->invoke(path, value, reply);
}
