#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QMultiHash>
#include <QPair>
#include <QString>

#include <httplib.h>

// A small HTTP server on 127.0.0.1 (a free port) that answers with canned
// replies, for testing the client side of the control API. It records every
// request it gets. Endpoints without a canned reply answer 404 with the
// API's error form.
class CannedServer
{
public:
    struct Received
    {
        QString method;
        QString path; // without the query
        QMap<QString, QString> params;
        QByteArray body;
        QString contentType;
        QString host; // the Host header
    };

    CannedServer();
    ~CannedServer();
    CannedServer(const CannedServer&) = delete;
    CannedServer& operator=(const CannedServer&) = delete;

    int port() const { return m_port; }
    QString api() const;

    // Answers `method` on `endpoint` (e.g. "GET", "/api/v1/host"); an
    // endpoint given with its path parameter ("/api/v1/rows?path=/a")
    // answers for that path only.
    void answer(const QString& method, const QString& endpoint, int status, const QByteArray& body,
                const QString& contentType = QStringLiteral("application/json"));
    // Answers only after release() (or the server's end): a host that never replies.
    void hold(const QString& method, const QString& endpoint);
    // Streams `chunks` as a text/event-stream, `gapMs` apart; then keeps the
    // stream open until release() or the client leaves, or ends it.
    void stream(const QString& endpoint, const QList<QByteArray>& chunks, bool keepOpen, int gapMs = 0);
    void release();
    // Once a request `trigger` (e.g. "POST /api/v1/invoke") has been
    // answered, `method` on `endpoint` answers with `status` and `body`
    // from then on: a device whose state changes because it was asked to.
    void answerAfter(const QString& trigger, const QString& method, const QString& endpoint, int status,
                     const QByteArray& body);

    QList<Received> received() const;

private:
    struct Canned
    {
        enum Kind { Plain, Hold, Stream } kind = Plain;
        int status = 200;
        QByteArray body;
        std::string contentType;
        QList<QByteArray> chunks;
        bool keepOpen = false;
        int gapMs = 0;
    };

    void handle(const httplib::Request& request, httplib::Response& response);
    // Waits up to `ms` for release(); true when released.
    bool waitReleased(int ms);

    httplib::Server m_server;
    std::thread m_thread;
    int m_port = 0;
    mutable std::mutex m_mutex;
    std::condition_variable m_releasedChanged;
    bool m_released = false;
    QHash<QString, Canned> m_canned;
    // Answers put in place when their trigger ("METHOD /path") comes.
    QMultiHash<QString, QPair<QString, Canned>> m_later;
    QList<Received> m_received;
};
