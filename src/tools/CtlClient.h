#pragma once

#include <functional>

#include <QJsonValue>
#include <QList>
#include <QPair>
#include <QString>

#include "CtlEvent.h"
#include "CtlReply.h"

// The HTTP side of tarvctl: one call per endpoint of a host's control API,
// each answered with a CtlReply that says what happened in words a person
// understands. Transport failures, host errors and answers of the wrong
// shape all become replies; nothing the host sends can make a call throw or
// crash.
class CtlClient
{
public:
    static QString defaultApi() { return QStringLiteral("http://127.0.0.1:8080"); }
    // The bound for an invoke when the caller gives none; the host uses the same.
    static int defaultInvokeTimeoutMs() { return 5000; }
    // Answers larger than this are refused rather than held in memory.
    static qint64 defaultMaxAnswerBytes() { return 64 * 1024 * 1024; }

    CtlClient();

    // Accepts "http://HOST[:PORT][/]", "HOST:PORT" or "HOST" (port 80 when
    // none is given). Anything else leaves the client unchanged and says why.
    bool setApi(const QString& url, QString* error);
    // The API's base URL as used in messages, e.g. "http://127.0.0.1:8080".
    QString api() const;

    // How long a call waits for the connection and for the answer, unless a
    // call says otherwise.
    void setTimeoutMs(int timeoutMs) { m_timeoutMs = timeoutMs; }
    int timeoutMs() const { return m_timeoutMs; }
    void setMaxAnswerBytes(qint64 bytes) { m_maxAnswerBytes = bytes; }
    qint64 maxAnswerBytes() const { return m_maxAnswerBytes; }

    // Aims the calls at another device of the LAN through this host's
    // forwarding (/api/v1/devices/ID/...); an empty id talks to the host
    // itself. tree() and watch() are not forwarded and refuse then.
    void setDevice(const QString& id) { m_device = id; }
    const QString& device() const { return m_device; }

    CtlReply host();
    CtlReply value(const QString& path);
    CtlReply setValue(const QString& path, const QJsonValue& value);
    // `timeoutMs` < 0 leaves the bound to the host; the client then waits
    // a little longer than the bound, so the host's own 504 is what it sees.
    CtlReply invoke(const QString& path, const QJsonValue& value, int timeoutMs = -1);
    CtlReply rows(const QString& path);
    CtlReply tree();

    // Follows the host's event stream and hands every event to `onEvent`
    // until it returns false (Ok), `durationMs` passes (Timeout; < 0 means
    // no limit), or the stream fails or ends (CannotConnect, or the host's
    // error when it refused the stream).
    // `onOpen`, when given, runs once the host has subscribed this client
    // and before any event, so that what it reads is followed by every
    // later change; returning false ends the watch there (Ok).
    CtlReply watch(const std::function<bool(const CtlEvent&)>& onEvent, int durationMs = -1,
                   const std::function<bool()>& onOpen = std::function<bool()>());

    // Runs `act` (a request that should change something) once the host has
    // subscribed this client to its events, so that no change it causes can
    // be missed, then follows the events until `arrived` accepts one (Ok) or
    // `timeoutMs` passes (Timeout). The act's own reply goes to `actReply`;
    // when it failed nothing is awaited and it is also the answer.
    CtlReply actAndAwait(const std::function<CtlReply()>& act, const std::function<bool(const CtlEvent&)>& arrived,
                         int timeoutMs, CtlReply* actReply);

private:
    using Query = QList<QPair<QString, QString>>;

    // Sends one request and turns whatever came back into a reply; a 2xx
    // answer must be a JSON object holding every key of `requiredKeys`.
    CtlReply call(const char* method, const QString& endpoint, const Query& query, const QByteArray& body,
                  int waitMs, const QStringList& requiredKeys);
    QString target(const QString& endpoint, const Query& query) const;
    // "/api/v1/NAME", or its forwarded form when a device is set.
    QString endpoint(const char* name) const;
    // The refusal of an endpoint the host does not forward.
    CtlReply notForwarded(const QString& what) const;
    CtlReply errorFromAnswer(int status, const QByteArray& body) const;

    QString m_host = QStringLiteral("127.0.0.1");
    int m_port = 8080;
    int m_timeoutMs = 10000;
    qint64 m_maxAnswerBytes = defaultMaxAnswerBytes();
    QString m_device;
};
