#include "TarvHash.h"

#include <QJsonDocument>
#include <QJsonObject>

#include "TarvJson.h"
#include "TarvLog.h"

TarvHash::TarvHash(const QVariantHash& hash)
    : m_hash(hash)
{
}

QByteArray TarvHash::toJson(bool indented) const
{
    return QJsonDocument(QJsonObject::fromVariantHash(m_hash))
        .toJson(indented ? QJsonDocument::Indented : QJsonDocument::Compact);
}

QString TarvHash::toJsonString() const
{
    return QString::fromUtf8(toJson(false));
}

TarvHash TarvHash::fromJson(const QByteArray& json)
{
    TarvError error;
    return TarvHash(TarvJson::parse(json, error, nullptr).toHash());
}

std::ostream& operator<<(std::ostream& out, const TarvHash& hash)
{
    return out << hash.toJson(false);
}

QDebug operator<<(QDebug debug, const TarvHash& hash)
{
    QDebugStateSaver saver(debug);
    debug.noquote() << hash.toJsonString();
    return debug;
}
