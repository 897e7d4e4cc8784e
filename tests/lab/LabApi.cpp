#include "LabApi.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QTest>
#include <QTcpSocket>
#include <QTimer>
#include <QUrlQuery>

#include "TarvConnect.h"

LabApi::LabApi(const QString& baseUrl, QObject* parent)
    : QObject(parent)
    , m_base(baseUrl)
{
}

QUrl LabApi::url(const QString& endpoint, const QString& path) const
{
    QUrl url(m_base + QStringLiteral("/api/v1/") + endpoint);
    if (!path.isEmpty()) {
        QUrlQuery query;
        query.addQueryItem(QStringLiteral("path"), path);
        url.setQuery(query);
    }
    return url;
}

bool LabApi::parseResponse(const QByteArray& data, bool closed, Reply* reply)
{
    const int headEnd = data.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return false;
    const QList<QByteArray> head = data.left(headEnd).split('\n');
    const QList<QByteArray> statusLine = head.value(0).trimmed().split(' ');
    qint64 length = -1;
    bool chunked = false;
    for (int i = 1; i < head.size(); ++i) {
        const QByteArray line = head.at(i).trimmed();
        const int colon = line.indexOf(':');
        const QByteArray name = line.left(colon).trimmed().toLower();
        const QByteArray value = line.mid(colon + 1).trimmed();
        if (name == "content-length")
            length = value.toLongLong();
        else if (name == "transfer-encoding" && value.toLower().contains("chunked"))
            chunked = true;
    }
    QByteArray body = data.mid(headEnd + 4);
    if (chunked) {
        QByteArray decoded;
        int at = 0;
        for (;;) {
            const int lineEnd = body.indexOf("\r\n", at);
            if (lineEnd < 0)
                return false;
            bool ok = false;
            const int size = body.mid(at, lineEnd - at).split(';').value(0).trimmed().toInt(&ok, 16);
            if (!ok)
                return false;
            if (size == 0)
                break;
            if (body.size() < lineEnd + 2 + size + 2)
                return false;
            decoded.append(body.mid(lineEnd + 2, size));
            at = lineEnd + 2 + size + 2;
        }
        body = decoded;
    } else if (length >= 0) {
        if (body.size() < length)
            return false;
        body.truncate(int(length));
    } else if (!closed) {
        return false;
    }
    reply->status = statusLine.value(1).toInt();
    reply->body = body;
    return true;
}

LabApi::Reply LabApi::send(const QByteArray& verb, const QUrl& url, const QByteArray& body, int timeoutMs)
{
    QByteArray request = verb + ' ' + url.path(QUrl::FullyEncoded).toLatin1();
    if (url.hasQuery())
        request += '?' + url.query(QUrl::FullyEncoded).toLatin1();
    request += " HTTP/1.1\r\nHost: " + url.host().toLatin1() + ':' + QByteArray::number(url.port(80))
        + "\r\nContent-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size())
        + "\r\nConnection: close\r\n\r\n" + body;

    QTcpSocket socket;
    QByteArray received;
    Reply result;
    bool complete = false;
    QEventLoop loop;
    QTimer bound;
    bound.setSingleShot(true);
    tarvConnect(&socket, &QTcpSocket::connected, &loop, [&socket, &request]() {
        socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        socket.write(request);
    });
    tarvConnect(&socket, &QTcpSocket::readyRead, &loop, [&]() {
        received += socket.readAll();
        if (parseResponse(received, false, &result)) {
            complete = true;
            loop.quit();
        }
    });
    tarvConnect(&socket, &QTcpSocket::disconnected, &loop, [&]() {
        // Whatever arrived with the close was delivered through readyRead.
        complete = parseResponse(received, true, &result);
        loop.quit();
    });
    tarvConnect(&socket, &QTcpSocket::errorOccurred, &loop, [&](QAbstractSocket::SocketError) { loop.quit(); });
    tarvConnect(&bound, &QTimer::timeout, &loop, &QEventLoop::quit);
    bound.start(timeoutMs);
    socket.connectToHost(url.host(), quint16(url.port(80)));
    loop.exec();
    const bool timedOut = !bound.isActive();
    const QString socketError = socket.errorString();
    socket.abort();

    if (!complete) {
        result = Reply();
        result.transportError = timedOut ? QStringLiteral("no reply within %1 ms").arg(timeoutMs) : socketError;
        return result;
    }
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(result.body, &error);
    if (error.error == QJsonParseError::NoError)
        result.json = doc.isObject() ? QJsonValue(doc.object()) : QJsonValue(doc.array());
    return result;
}

LabApi::Reply LabApi::get(const QString& endpoint, const QString& path, int timeoutMs)
{
    return send("GET", url(endpoint, path), QByteArray(), timeoutMs);
}

LabApi::Reply LabApi::put(const QString& endpoint, const QString& path, const QJsonValue& body, int timeoutMs)
{
    const QByteArray text = body.isObject() ? QJsonDocument(body.toObject()).toJson(QJsonDocument::Compact)
                                            : QJsonDocument(body.toArray()).toJson(QJsonDocument::Compact);
    return send("PUT", url(endpoint, path), text, timeoutMs);
}

LabApi::Reply LabApi::post(const QString& endpoint, const QString& path, const QByteArray& body, int timeoutMs)
{
    return send("POST", url(endpoint, path), body, timeoutMs);
}

QJsonObject LabApi::host()
{
    return get(QStringLiteral("host")).json.toObject();
}

QJsonValue LabApi::value(const QString& path)
{
    return get(QStringLiteral("value"), path).json.toObject().value(QStringLiteral("value"));
}

QJsonArray LabApi::rows(const QString& path)
{
    return get(QStringLiteral("rows"), path).json.toObject().value(QStringLiteral("rows")).toArray();
}

QJsonObject LabApi::row(const QString& path, const QString& id)
{
    for (const QJsonValue& row : rows(path)) {
        if (row.toObject().value(QStringLiteral("id")).toString() == id)
            return row.toObject();
    }
    return QJsonObject();
}

LabApi::Reply LabApi::invoke(const QString& path, const QJsonValue& body)
{
    const QByteArray text = QJsonDocument(body.toObject()).toJson(QJsonDocument::Compact);
    return post(QStringLiteral("invoke"), path, text);
}

LabApi::Reply LabApi::setValue(const QString& path, const QJsonValue& value)
{
    return put(QStringLiteral("value"), path, value);
}

int LabApi::deviceState()
{
    const QJsonValue state = value(QStringLiteral("/system/deviceState"));
    const QJsonValue type = state.toObject().value(QStringLiteral("systemMemberTranscoderState")).toObject().value(QStringLiteral("type"));
    return type.isDouble() ? type.toInt() : -1;
}

QString LabApi::ownMasterId(const QString& ownId)
{
    return row(QStringLiteral("/grouping/members"), ownId)
        .value(QStringLiteral("value")).toObject()
        .value(QStringLiteral("groupingMember")).toObject()
        .value(QStringLiteral("master")).toObject()
        .value(QStringLiteral("id")).toString();
}

LabApi::Reply LabApi::join(const QString& masterId, const QString& masterName, const QString& masterHost)
{
    const QJsonObject master{{QStringLiteral("id"), masterId},
                             {QStringLiteral("name"), masterName},
                             {QStringLiteral("host"), masterHost}};
    return invoke(QStringLiteral("/grouping/request"),
                  QJsonObject{{QStringLiteral("groupingRequest"),
                               QJsonObject{{QStringLiteral("command"), 1}, {QStringLiteral("master"), master}}}});
}

LabApi::Reply LabApi::leave()
{
    return invoke(QStringLiteral("/grouping/request"),
                  QJsonObject{{QStringLiteral("groupingRequest"), QJsonObject{{QStringLiteral("command"), -1}}}});
}

LabApi::Reply LabApi::save(const QString& name, const QStringList& members, int timeoutMs)
{
    const QJsonObject group{{QStringLiteral("name"), name},
                            {QStringLiteral("members"), QJsonArray::fromStringList(members)}};
    const QJsonObject body{{QStringLiteral("groupingPersistentGroup"), group}};
    return post(QStringLiteral("invoke"), QStringLiteral("/grouping/persistentGroup/save"),
                QJsonDocument(body).toJson(QJsonDocument::Compact), timeoutMs);
}

QJsonObject LabApi::savedGroup()
{
    return value(QStringLiteral("/settings/grouping/persistentGroup"))
        .toObject()
        .value(QStringLiteral("groupingPersistentGroup"))
        .toObject();
}

LabApi::Reply LabApi::setPlayerState(int state)
{
    return setValue(QStringLiteral("/player/data"), QJsonObject{{QStringLiteral("state"), state}});
}

bool LabApi::waitAlone(const QString& ownId, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    do {
        const QJsonArray members = rows(QStringLiteral("/grouping/members"));
        if (deviceState() == 2 && members.size() == 1
            && members.at(0).toObject().value(QStringLiteral("id")).toString() == ownId
            && ownMasterId(ownId) == ownId)
            return true;
        QTest::qWait(50);
    } while (clock.elapsed() < timeoutMs);
    return false;
}

QString LabApi::groupingSummary()
{
    return QStringLiteral("state %1, members %2")
        .arg(deviceState())
        .arg(QString::fromUtf8(QJsonDocument(rows(QStringLiteral("/grouping/members"))).toJson(QJsonDocument::Compact)));
}
