#pragma once

#include <functional>

#include <QByteArray>
#include <QList>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QString>

#include "CtlEventStream.h"
#include "LabEvent.h"

// A device's GET /api/v1/events, kept open and recorded: every event with the
// time it arrived, read by tarvctl's own parser of the stream. Waiting runs
// the event loop with a deadline.
class LabEventStream : public QObject
{
public:
    explicit LabEventStream(const QString& baseUrl, QObject* parent = nullptr);
    ~LabEventStream() override;

    // Opens the stream and waits until the response headers have arrived,
    // i.e. the host has subscribed this client.
    bool open(int timeoutMs = 3000);
    void close();
    bool isOpen() const;

    const QList<LabEvent>& events() const { return m_events; }
    int size() const { return m_events.size(); }

    // Index of the first event at or after `from` that matches, waiting up to
    // timeoutMs for it to arrive; -1 when none came in time.
    int waitFor(const std::function<bool(const LabEvent&)>& match, int from, int timeoutMs);

    // The steady clock the events' receivedUs is read from.
    static qint64 steadyUs();

    // Matchers for the grouping-members list.
    static std::function<bool(const LabEvent&)> rowAdded(const QString& path, const QString& id);
    static std::function<bool(const LabEvent&)> rowRemoved(const QString& path, const QString& id);

private:
    void onReadyRead();

    QString m_base;
    QNetworkAccessManager m_network;
    QPointer<QNetworkReply> m_reply;
    CtlEventStream m_parser;
    QList<LabEvent> m_events;
};
