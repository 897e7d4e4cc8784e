#include "HostValidators.h"

#include <cmath>
#include <limits>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include "TarvGroupingPersistentGroup.h"
#include "TarvSystemMemberTranscoderState.h"
#include "TarvValue.h"

namespace {

const int describeLimit = 200;

QString got(const QVariant& value)
{
    return QStringLiteral("; got ") + HostValidators::describe(value);
}

// The single view of a union value, or an invalid variant when the value is
// not a hash holding exactly `key`.
QVariant onlyView(const QVariant& value, const QString& key)
{
    if (value.userType() != QMetaType::QVariantHash && value.userType() != QMetaType::QVariantMap)
        return QVariant();
    const QVariantHash hash = value.toHash();
    if (hash.size() != 1 || !hash.contains(key))
        return QVariant();
    return hash.value(key);
}

bool isHash(const QVariant& value)
{
    return value.userType() == QMetaType::QVariantHash || value.userType() == QMetaType::QVariantMap;
}

bool isString(const QVariant& value)
{
    return value.userType() == QMetaType::QString;
}

} // namespace

QString HostValidators::checkDeviceName(const QString& name)
{
    if (name.trimmed().isEmpty())
        return QStringLiteral("a device name must not be empty");
    if (name.size() > MaxNameLength)
        return QStringLiteral("a device name has at most %1 characters, this one has %2")
            .arg(MaxNameLength)
            .arg(name.size());
    for (const QChar c : name) {
        if (c.category() == QChar::Other_Control)
            return QStringLiteral("a device name must not contain control characters");
    }
    return QString();
}

QString HostValidators::checkDeviceId(const QString& id)
{
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z0-9][A-Za-z0-9._:-]*$"));
    if (id.isEmpty())
        return QStringLiteral("a device id must not be empty");
    if (id.size() > MaxIdLength)
        return QStringLiteral("a device id has at most %1 characters").arg(MaxIdLength);
    if (!pattern.match(id).hasMatch())
        return QStringLiteral("a device id consists of letters, digits and . _ : - and starts with a letter or digit");
    return QString();
}

QString HostValidators::checkMilliseconds(qint64 ms)
{
    if (ms < MinMilliseconds || ms > MaxMilliseconds)
        return QStringLiteral("milliseconds must be a whole number from %1 to %2")
            .arg(MinMilliseconds)
            .arg(MaxMilliseconds);
    return QString();
}

bool HostValidators::toInteger(const QVariant& value, qint64* result)
{
    switch (value.userType()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
        *result = value.toLongLong();
        return true;
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        if (value.toULongLong() > static_cast<qulonglong>(std::numeric_limits<qint64>::max()))
            return false;
        *result = value.toLongLong();
        return true;
    case QMetaType::Double:
    case QMetaType::Float: {
        const double d = value.toDouble();
        // Beyond 2^53 a double no longer holds every whole number exactly.
        if (!std::isfinite(d) || std::floor(d) != d || std::fabs(d) > 9007199254740992.0)
            return false;
        *result = static_cast<qint64>(d);
        return true;
    }
    default:
        return false;
    }
}

QString HostValidators::describe(const QVariant& value)
{
    QString text;
    if (!value.isValid())
        text = QStringLiteral("nothing");
    else if (isHash(value))
        text = QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantHash(value.toHash())).toJson(QJsonDocument::Compact));
    else if (value.userType() == QMetaType::QVariantList)
        text = QString::fromUtf8(QJsonDocument(QJsonArray::fromVariantList(value.toList())).toJson(QJsonDocument::Compact));
    else
        text = QString::fromUtf8(QJsonDocument(QJsonArray{QJsonValue::fromVariant(value)}).toJson(QJsonDocument::Compact)).mid(1).chopped(1);
    if (text.size() > describeLimit)
        text = text.left(describeLimit) + QStringLiteral("...");
    return text;
}

CMRootWorker::Validator HostValidators::milliseconds(const CMPath& path)
{
    return [path](const QVariant& value) -> QString {
        const QString expected = path.toString() + QStringLiteral(" takes {\"i32_\": <milliseconds from %1 to %2>}")
                                                       .arg(MinMilliseconds)
                                                       .arg(MaxMilliseconds);
        qint64 ms = 0;
        if (!toInteger(onlyView(value, TarvValue::I32_()), &ms) || !checkMilliseconds(ms).isEmpty())
            return expected + got(value);
        return QString();
    };
}

CMRootWorker::Validator HostValidators::deviceName(const CMPath& path)
{
    return [path](const QVariant& value) -> QString {
        const QVariant view = onlyView(value, TarvValue::String_());
        if (!isString(view))
            return path.toString() + QStringLiteral(" takes {\"string_\": <device name>}") + got(value);
        const QString reason = checkDeviceName(view.toString());
        if (!reason.isEmpty())
            return path.toString() + QStringLiteral(": ") + reason + got(value);
        return QString();
    };
}

CMRootWorker::Validator HostValidators::persistentGroup(const CMPath& path)
{
    return [path](const QVariant& value) -> QString {
        const QString expected = path.toString()
            + QStringLiteral(" takes {\"groupingPersistentGroup\": {\"name\": <text>, \"members\": [<device id>...], "
                             "\"timestamp\": <milliseconds since the epoch>}}");
        const QVariant view = onlyView(value, TarvValue::GroupingPersistentGroup());
        if (!isHash(view))
            return expected + got(value);
        const QVariantHash group = view.toHash();
        for (auto it = group.begin(); it != group.end(); ++it) {
            const QString& key = it.key();
            if (key == TarvGroupingPersistentGroup::Name()) {
                if (!isString(it.value()))
                    return expected + QStringLiteral("; \"name\" must be text") + got(value);
            } else if (key == TarvGroupingPersistentGroup::Members()) {
                if (it.value().userType() != QMetaType::QVariantList)
                    return expected + QStringLiteral("; \"members\" must be a list of device ids") + got(value);
                const QVariantList members = it.value().toList();
                if (members.size() > MaxGroupMembers)
                    return expected + QStringLiteral("; a group has at most %1 members").arg(MaxGroupMembers);
                for (const QVariant& member : members) {
                    if (!isString(member) || member.toString().isEmpty() || member.toString().size() > MaxIdLength)
                        return expected + QStringLiteral("; \"members\" must be a list of device ids") + got(value);
                }
            } else if (key == TarvGroupingPersistentGroup::Timestamp()) {
                qint64 timestamp = 0;
                if (!toInteger(it.value(), &timestamp))
                    return expected + QStringLiteral("; \"timestamp\" must be a whole number") + got(value);
            } else {
                return expected + QStringLiteral("; unknown field \"%1\"").arg(key) + got(value);
            }
        }
        return QString();
    };
}

CMRootWorker::Validator HostValidators::deviceState(const CMPath& path)
{
    return [path](const QVariant& value) -> QString {
        const QString expected = path.toString()
            + QStringLiteral(" takes {\"systemMemberTranscoderState\": {\"id\": <device id>, \"type\": 0, 1 or 2}}");
        if (isHash(value) && value.toHash().isEmpty())
            return QString();
        const QVariant view = onlyView(value, TarvValue::SystemMemberTranscoderState());
        if (!isHash(view))
            return expected + got(value);
        const QVariantHash state = view.toHash();
        for (auto it = state.begin(); it != state.end(); ++it) {
            if (it.key() == TarvSystemMemberTranscoderState::Id()) {
                if (!isString(it.value()))
                    return expected + QStringLiteral("; \"id\" must be text") + got(value);
            } else if (it.key() == TarvSystemMemberTranscoderState::Type()) {
                qint64 type = -1;
                if (!toInteger(it.value(), &type) || type < 0 || type > 2)
                    return expected + QStringLiteral("; \"type\" must be 0, 1 or 2") + got(value);
            } else {
                return expected + QStringLiteral("; unknown field \"%1\"").arg(it.key()) + got(value);
            }
        }
        if (!state.contains(TarvSystemMemberTranscoderState::Type()))
            return expected + QStringLiteral("; \"type\" is missing") + got(value);
        return QString();
    };
}

CMRootWorker::Validator HostValidators::playerData(const CMPath& path)
{
    return [path](const QVariant& value) -> QString {
        const QString expected = path.toString() + QStringLiteral(" takes {\"state\": <whole number>}");
        if (!isHash(value))
            return expected + got(value);
        qint64 state = 0;
        if (!toInteger(value.toHash().value(QStringLiteral("state")), &state))
            return expected + got(value);
        return QString();
    };
}

CMRootWorker::Validator HostValidators::readOnly(const CMPath& path, const QString& why)
{
    return [path, why](const QVariant&) -> QString { return path.toString() + QStringLiteral(" is read-only: ") + why; };
}
