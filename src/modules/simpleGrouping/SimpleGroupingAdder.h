#pragma once

#include <QHostAddress>
#include <QHostInfo>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QUdpSocket>

#include <tarv>

// Receiver side of the receiver link: while started, announces `message`
// with "add" datagrams to the transcoder `host` once per resend period
// (TarvRequestStreamingTimeoutPath(), read once at construction), resolving
// the host name anew each period and sending an immediate "add" when its
// first address changes. stop() says goodbye with one "remove" if an address
// was known.
class SimpleGroupingAdder : public QObject
{
    Q_OBJECT

public:
    SimpleGroupingAdder();

    // A start while already running stops (and says goodbye) first.
    void start(const QString& message, const QString& host);
    void stop();
    // Sends prefix + message to the current address; `prefix` is "add" or
    // "remove".
    void sendMessage(const QString& prefix);

public Q_SLOTS:
    void on_timer_timeout();
    // Ignored while stopped, and ignored for a lookup that stop() aborted:
    // such a result is stale even when a new start() is already running.
    void on_addrLookup(const QHostInfo& info);

private:
    QUdpSocket m_socket;
    QString m_message;
    QString m_hostName;
    QHostAddress m_address;
    int m_lookupId = -1;
    QTimer m_resendTimer;
    // The newest lookup id that stop() aborted; lookup ids only grow.
    int m_lastAbortedLookupId = -1;
};
