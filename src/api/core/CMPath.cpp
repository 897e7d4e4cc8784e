#include "CMPath.h"

#include <QHash>

#include "TarvLog.h"

namespace {

QString normalised(const QString& path)
{
    const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (parts.isEmpty())
        return QString();
    return QLatin1Char('/') + parts.join(QLatin1Char('/'));
}

} // namespace

CMPath::CMPath(const QString& path)
    : m_path(normalised(path))
{
}

CMPath::CMPath(const char* path)
    : CMPath(QString::fromUtf8(path))
{
}

QStringList CMPath::segments() const
{
    return m_path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
}

CMPath CMPath::operator+(const QString& segment) const
{
    return CMPath(m_path + QLatin1Char('/') + segment);
}

QPair<CMPath, QString> CMPath::splitBase() const
{
    const int slash = m_path.lastIndexOf(QLatin1Char('/'));
    if (slash < 0)
        return qMakePair(CMPath(), QString());
    return qMakePair(CMPath(m_path.left(slash)), m_path.mid(slash + 1));
}

bool CMPath::startsWith(const CMPath& base) const
{
    if (base.isEmpty())
        return true;
    return m_path == base.m_path || m_path.startsWith(base.m_path + QLatin1Char('/'));
}

uint qHash(const CMPath& path, uint seed)
{
    return qHash(path.toString(), seed);
}

std::ostream& operator<<(std::ostream& out, const CMPath& path)
{
    return out << path.toString();
}

QDebug operator<<(QDebug debug, const CMPath& path)
{
    QDebugStateSaver saver(debug);
    debug.noquote() << path.toString();
    return debug;
}
