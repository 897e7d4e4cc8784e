#include "LabApi.h"

#include <QBuffer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrlQuery>

#include "TarvConnect.h"

LabApi::LabApi(const QString& baseUrl, QObject* parent)
    : QObject(parent)
    , m_base(baseUrl)
{
    // Lab addresses are on a local bridge; no proxy may be asked about them.
    m_network.setProxy(QNetworkProxy::NoProxy);
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

LabApi::Reply LabApi::send(const QByteArray& verb, const QUrl& url, const QByteArray& body, int timeoutMs)
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QBuffer* data = new QBuffer;
    data->setData(body);
    QNetworkReply* reply = m_network.sendCustomRequest(request, verb, data);
    data->setParent(reply);

    QEventLoop loop;
    QTimer bound;
    bound.setSingleShot(true);
    tarvConnect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    tarvConnect(&bound, &QTimer::timeout, &loop, &QEventLoop::quit);
    bound.start(timeoutMs);
    if (!reply->isFinished())
        loop.exec();

    Reply result;
    if (!reply->isFinished()) {
        reply->abort();
        result.transportError = QStringLiteral("no reply within %1 ms").arg(timeoutMs);
    } else {
        result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        result.body = reply->readAll();
        if (result.status == 0)
            result.transportError = reply->errorString();
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(result.body, &error);
        if (error.error == QJsonParseError::NoError)
            result.json = doc.isObject() ? QJsonValue(doc.object()) : QJsonValue(doc.array());
    }
    reply->deleteLater();
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
                  QJsonObject{{QStringLiteral("command"), 1}, {QStringLiteral("master"), master}});
}

LabApi::Reply LabApi::leave()
{
    return invoke(QStringLiteral("/grouping/request"), QJsonObject{{QStringLiteral("command"), -1}});
}
