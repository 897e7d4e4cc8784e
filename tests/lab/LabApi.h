#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QString>
#include <QUrl>

// The control API of one lab device, called synchronously with a bound: each
// call runs a local event loop until the reply or the time-out, so streams
// on the same thread keep receiving meanwhile. Plain HTTP/1.1 over a socket
// with Nagle off, each request in one write: latencies measured through it
// are the host's, not a client library's (a request body held back for a
// delayed ACK costs 40 ms).
class LabApi : public QObject
{
public:
    struct Reply {
        int status = 0;          // HTTP status; 0 when no reply came
        QByteArray body;
        QJsonValue json;         // the body parsed, undefined when not JSON
        QString transportError;  // empty when a reply came
        bool ok() const { return status == 200; }
    };

    explicit LabApi(const QString& baseUrl, QObject* parent = nullptr);

    Reply get(const QString& endpoint, const QString& path = QString(), int timeoutMs = 3000);
    Reply put(const QString& endpoint, const QString& path, const QJsonValue& body, int timeoutMs = 3000);
    Reply post(const QString& endpoint, const QString& path, const QByteArray& body, int timeoutMs = 6000);

    // Conveniences over the endpoints; empty results when the call failed.
    QJsonObject host();
    QJsonValue value(const QString& path);
    QJsonArray rows(const QString& path);
    QJsonObject row(const QString& path, const QString& id);   // empty when absent
    Reply invoke(const QString& path, const QJsonValue& body);
    Reply setValue(const QString& path, const QJsonValue& value);

    // The grouping operations the lab exercises.
    int deviceState();                                        // -1 when unreadable
    QString ownMasterId(const QString& ownId);                // master named in the own row
    Reply join(const QString& masterId, const QString& masterName, const QString& masterHost);
    Reply leave();
    // Asks the device to save a group of these member ids under `name`.
    Reply save(const QString& name, const QStringList& members, int timeoutMs = 6000);
    // The saved group's record ({"name", "members", "timestamp"}).
    QJsonObject savedGroup();
    Reply setPlayerState(int state);
    // Waits (bounded) until the device is a lone transcoder: state 2, its
    // own master, no follower.
    bool waitAlone(const QString& ownId, int timeoutMs);
    // "state N, members [...]", for failure messages.
    QString groupingSummary();

    const QString& baseUrl() const { return m_base; }

private:
    Reply send(const QByteArray& verb, const QUrl& url, const QByteArray& body, int timeoutMs);
    QUrl url(const QString& endpoint, const QString& path) const;
    // Splits a complete response into status and body; false while incomplete.
    static bool parseResponse(const QByteArray& data, bool closed, Reply* reply);

    QString m_base;
};
