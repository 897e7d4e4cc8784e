#include "ApiRequestGuard.h"

#include <QUrl>

namespace {

// A name as the guard compares it. A fully qualified name's trailing dot
// names the same host, and an address has many spellings ("::0:1", "::1").
QString comparable(QString name)
{
    name = name.toLower();
    if (name.endsWith(QLatin1Char('.')))
        name.chop(1);
    QHostAddress literal;
    if (literal.setAddress(name)) {
        literal.setScopeId(QString());
        name = literal.toString().toLower();
    }
    return name;
}

} // namespace

ApiRequestGuard::ApiRequestGuard()
    : ApiRequestGuard(QStringList(), QList<QHostAddress>())
{
}

ApiRequestGuard::ApiRequestGuard(const QStringList& names, const QList<QHostAddress>& addresses)
{
    // The configured names go through the same comparison as the header, so
    // that "--host-name kitchen.local." answers to its own name.
    for (const QString& name : names)
        m_names << comparable(name.trimmed());
    m_names << QStringLiteral("localhost") << QStringLiteral("localhost.localdomain");
    for (const QHostAddress& address : addresses)
        m_names << comparable(address.toString());
    m_names.removeAll(QString());
    m_names.removeDuplicates();
}

bool ApiRequestGuard::hostAllowed(const std::string& hostHeader) const
{
    QString host = QString::fromStdString(hostHeader).trimmed().toLower();
    QString port;
    bool hasPort = false;
    if (host.startsWith(QLatin1Char('['))) {
        const int close = host.indexOf(QLatin1Char(']'));
        if (close < 0)
            return false;
        const QString rest = host.mid(close + 1);
        if (!rest.isEmpty() && !rest.startsWith(QLatin1Char(':')))
            return false;
        hasPort = !rest.isEmpty();
        port = rest.mid(1);
        host = host.mid(1, close - 1);
    } else if (host.count(QLatin1Char(':')) == 1) {
        hasPort = true;
        port = host.mid(host.indexOf(QLatin1Char(':')) + 1);
        host = host.left(host.indexOf(QLatin1Char(':')));
    }
    if (hasPort) {
        bool number = false;
        const int value = port.toInt(&number);
        if (!number || value < 1 || value > 65535 || port.size() > 5 || !port.at(0).isDigit())
            return false;
    }
    host = comparable(host);
    return !host.isEmpty() && m_names.contains(host);
}

bool ApiRequestGuard::originAllowed(const std::string& originHeader, const std::string& hostHeader)
{
    const QUrl origin(QString::fromStdString(originHeader).trimmed(), QUrl::StrictMode);
    // "null" (a sandboxed or local file page) names no host: never ours.
    if (!origin.isValid() || origin.host().isEmpty())
        return false;
    // The API serves plain HTTP, so its own page is always an http one. An
    // https page of the same name is another server's: with no port in
    // either header it would be the one on 443 while this one answers on 80.
    if (origin.scheme() != QLatin1String("http"))
        return false;
    const QUrl target(QStringLiteral("http://") + QString::fromStdString(hostHeader).trimmed(), QUrl::StrictMode);
    // A Host header is a host and a port, nothing more ("127.0.0.1:80@evil"
    // would be a URL of the host "evil").
    if (!target.isValid() || target.host().isEmpty() || !target.userInfo().isEmpty() || !target.path().isEmpty()
        || target.hasQuery() || target.hasFragment())
        return false;
    return origin.host() == target.host() && origin.port(80) == target.port(80);
}
