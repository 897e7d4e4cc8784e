#include "LabEventStream.h"

#include <chrono>

#include <QDateTime>
#include <QEventLoop>
#include <QNetworkProxy>
#include <QNetworkRequest>
#include <QTimer>

#include "TarvConnect.h"
#include "TarvJson.h"

LabEventStream::LabEventStream(const QString& baseUrl, QObject* parent)
    : QObject(parent)
    , m_base(baseUrl)
{
    m_network.setProxy(QNetworkProxy::NoProxy);
}

LabEventStream::~LabEventStream()
{
    close();
}

bool LabEventStream::open(int timeoutMs)
{
    close();
    QNetworkRequest request(QUrl(m_base + QStringLiteral("/api/v1/events")));
    request.setRawHeader("Accept", "text/event-stream");
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    m_reply = m_network.get(request);
    tarvConnect(m_reply.data(), &QNetworkReply::readyRead, this, &LabEventStream::onReadyRead);

    QEventLoop loop;
    QTimer bound;
    bound.setSingleShot(true);
    tarvConnect(m_reply.data(), &QNetworkReply::metaDataChanged, &loop, &QEventLoop::quit);
    tarvConnect(m_reply.data(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    tarvConnect(&bound, &QTimer::timeout, &loop, &QEventLoop::quit);
    bound.start(timeoutMs);
    if (m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 0)
        loop.exec();
    return isOpen() && m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 200;
}

void LabEventStream::close()
{
    if (m_reply) {
        m_reply->abort();
        m_reply->deleteLater();
        m_reply.clear();
    }
    m_parser = CtlEventStream();
}

bool LabEventStream::isOpen() const
{
    return m_reply && !m_reply->isFinished();
}

void LabEventStream::onReadyRead()
{
    const qint64 receivedMs = QDateTime::currentMSecsSinceEpoch();
    const qint64 receivedUs = steadyUs();
    for (const CtlEvent& parsed : m_parser.feed(m_reply->readAll())) {
        LabEvent event;
        event.name = parsed.name;
        QJsonValue data;
        TarvJson::parseValue(parsed.data, &data, nullptr);
        event.data = data.toObject();
        event.receivedMs = receivedMs;
        event.receivedUs = receivedUs;
        m_events.append(event);
    }
}

int LabEventStream::waitFor(const std::function<bool(const LabEvent&)>& match, int from, int timeoutMs)
{
    QTimer bound;
    bound.setSingleShot(true);
    bound.start(timeoutMs);
    int next = from;
    for (;;) {
        for (; next < m_events.size(); ++next) {
            if (match(m_events.at(next)))
                return next;
        }
        if (!bound.isActive())
            return -1;
        // Wake on new bytes or on the deadline, whichever comes first.
        QEventLoop loop;
        if (m_reply)
            tarvConnect(m_reply.data(), &QNetworkReply::readyRead, &loop, &QEventLoop::quit, Qt::QueuedConnection);
        tarvConnect(&bound, &QTimer::timeout, &loop, &QEventLoop::quit);
        QTimer tick;
        tarvConnect(&tick, &QTimer::timeout, &loop, &QEventLoop::quit);
        tick.start(50);
        loop.exec();
    }
}

qint64 LabEventStream::steadyUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::function<bool(const LabEvent&)> LabEventStream::rowAdded(const QString& path, const QString& id)
{
    return [path, id](const LabEvent& event) {
        return event.name == QLatin1String("rows") && event.path() == path
            && event.newRow().value(QStringLiteral("id")).toString() == id
            && event.oldRow().value(QStringLiteral("id")).toString().isEmpty();
    };
}

std::function<bool(const LabEvent&)> LabEventStream::rowRemoved(const QString& path, const QString& id)
{
    return [path, id](const LabEvent& event) {
        return event.name == QLatin1String("rows") && event.path() == path
            && event.oldRow().value(QStringLiteral("id")).toString() == id
            && event.newRow().value(QStringLiteral("id")).toString().isEmpty();
    };
}
