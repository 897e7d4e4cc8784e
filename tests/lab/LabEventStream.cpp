#include "LabEventStream.h"

#include <chrono>

#include <QDateTime>
#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkProxy>
#include <QNetworkRequest>
#include <QTimer>

#include "TarvConnect.h"

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
    m_buffer.clear();
    m_name.clear();
    m_data.clear();
}

bool LabEventStream::isOpen() const
{
    return m_reply && !m_reply->isFinished();
}

void LabEventStream::onReadyRead()
{
    m_buffer.append(m_reply->readAll());
    int end;
    while ((end = m_buffer.indexOf('\n')) >= 0) {
        QByteArray line = m_buffer.left(end);
        m_buffer.remove(0, end + 1);
        takeLine(line);
    }
}

void LabEventStream::takeLine(QByteArray line)
{
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty()) {
        if (!m_data.isEmpty()) {
            LabEvent event;
            event.name = m_name;
            event.data = QJsonDocument::fromJson(m_data).object();
            event.receivedMs = QDateTime::currentMSecsSinceEpoch();
            event.receivedUs = steadyUs();
            m_events.append(event);
        }
        m_name.clear();
        m_data.clear();
        return;
    }
    if (line.startsWith("event:"))
        m_name = QString::fromUtf8(line.mid(6).trimmed());
    else if (line.startsWith("data:"))
        m_data.append(line.mid(5).trimmed());
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
