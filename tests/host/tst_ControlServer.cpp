#include <memory>
#include <thread>
#include <vector>

#include <QElapsedTimer>
#include <QTcpSocket>
#include <QtTest>

#include "ControlServer.h"
#include "LogCapture.h"

// The control API's server on its own, with one endpoint, talked to over raw
// TCP so that requests can be cut, delayed and piled up at will.
class tst_ControlServer : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<ControlServer> m_server;
    std::thread m_thread;
    int m_port = 0;

    // A connection from `source` (any address of 127/8).
    static std::unique_ptr<QTcpSocket> connectFrom(const QString& source, int port)
    {
        auto socket = std::make_unique<QTcpSocket>();
        if (!socket->bind(QHostAddress(source), 0))
            return nullptr;
        socket->connectToHost(QHostAddress::LocalHost, static_cast<quint16>(port));
        if (!socket->waitForConnected(3000))
            return nullptr;
        return socket;
    }

    // Everything the server sends until it closes the connection or
    // `timeoutMs` pass.
    static QByteArray readUntilClosed(QTcpSocket& socket, int timeoutMs)
    {
        QByteArray data;
        QElapsedTimer clock;
        clock.start();
        while (socket.state() == QAbstractSocket::ConnectedState && clock.elapsed() < timeoutMs) {
            socket.waitForReadyRead(static_cast<int>(qMax<qint64>(1, timeoutMs - clock.elapsed())));
            data += socket.readAll();
        }
        return data + socket.readAll();
    }

    // Reads until `count` whole answers (each ends with its "ok" body) came.
    static QByteArray readAnswers(QTcpSocket& socket, int count, int timeoutMs)
    {
        QByteArray data;
        QElapsedTimer clock;
        clock.start();
        while (data.count("\r\n\r\nok") < count && clock.elapsed() < timeoutMs) {
            socket.waitForReadyRead(100);
            data += socket.readAll();
        }
        return data;
    }

    static QByteArray request(const QByteArray& extraHeaders = QByteArray())
    {
        return "GET /x HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extraHeaders + "\r\n";
    }

private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<ControlServer>(
            4, [](const std::string& name, const std::string& title, const std::string& message) {
                return "{\"error\": {\"name\": \"" + name + "\", \"title\": \"" + title + "\", \"message\": \"" + message
                    + "\"}}";
            });
        m_server->Get("/x", [](const httplib::Request&, httplib::Response& response) {
            response.set_content("ok", "text/plain");
        });
        m_server->Put("/y", [](const httplib::Request& request, httplib::Response& response) {
            response.set_content("got " + request.body, "text/plain");
        });
        m_port = m_server->bind_to_any_port("127.0.0.1");
        QVERIFY(m_port > 0);
        QVERIFY(m_server->widenListenBacklog());
        m_thread = std::thread([this] { m_server->listen_after_bind(); });
        QTRY_VERIFY_WITH_TIMEOUT(m_server->is_running(), 5000);
    }

    void cleanup()
    {
        m_server->stop();
        m_thread.join();
        m_server->closeConnections();
        m_server.reset();
    }

    void aRequestInOnePieceIsAnswered()
    {
        auto socket = connectFrom(QStringLiteral("127.0.0.1"), m_port);
        QVERIFY(socket);
        socket->write(request());
        const QByteArray answer = readAnswers(*socket, 1, 3000);
        QVERIFY2(answer.startsWith("HTTP/1.1 200 OK\r\n"), answer.constData());
    }

    void aHeadArrivingInPiecesWithinTheDeadlineIsAnswered()
    {
        auto socket = connectFrom(QStringLiteral("127.0.0.1"), m_port);
        QVERIFY(socket);
        const QByteArray whole = request("X-One: 1\r\nX-Two: 2\r\n");
        for (int i = 0; i < whole.size(); i += 7) {
            socket->write(whole.mid(i, 7));
            QVERIFY(socket->waitForBytesWritten(1000));
            // Paced so that the pieces arrive apart; the server must put
            // them together.
            QTest::qSleep(5);
        }
        const QByteArray answer = readAnswers(*socket, 1, 3000);
        QVERIFY2(answer.startsWith("HTTP/1.1 200 OK\r\n"), answer.constData());
    }

    void pipelinedRequestsAreAllAnsweredInOrder()
    {
        auto socket = connectFrom(QStringLiteral("127.0.0.1"), m_port);
        QVERIFY(socket);
        socket->write(request() + request() + request());
        const QByteArray answers = readAnswers(*socket, 3, 3000);
        QCOMPARE(answers.count("HTTP/1.1 200 OK\r\n"), 3);
    }

    void anIncompleteRequestIsAnswered408AfterTheDeadline_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QByteArray>("part");
        QTest::newRow("head cut short") << QByteArray("GET /x HTTP/1.1\r\nHost: 127.0.0.1\r\n") << QByteArray("headers");
        QTest::newRow("body cut short") << QByteArray("PUT /y HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 10\r\n\r\n012")
                                        << QByteArray("body");
    }

    void anIncompleteRequestIsAnswered408AfterTheDeadline()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, part);
        auto socket = connectFrom(QStringLiteral("127.0.0.1"), m_port);
        QVERIFY(socket);
        QElapsedTimer clock;
        clock.start();
        socket->write(sent);
        QVERIFY(socket->waitForBytesWritten(1000));
        const QByteArray answer = readUntilClosed(*socket, ControlServer::HeadDeadlineMs + 3000);
        const qint64 elapsed = clock.elapsed();
        QVERIFY2(answer.startsWith("HTTP/1.1 408 Request timeout\r\n"), answer.constData());
        QVERIFY2(answer.endsWith("{\"error\": {\"name\": \"RequestTimeout\", \"title\": \"Request timeout\", \"message\": "
                                 "\"The request's " + part + " did not arrive within 5000 ms\"}}"),
                 answer.constData());
        QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
        QVERIFY2(elapsed >= ControlServer::HeadDeadlineMs - 50, qPrintable(QString::number(elapsed)));
        QVERIFY2(elapsed <= ControlServer::HeadDeadlineMs + 1000, qPrintable(QString::number(elapsed)));
    }

    // More clients sending their bodies slowly than there are workers: a
    // request from another client is still answered at once, and each slow
    // one is answered, with its whole body, once it is in.
    void slowBodiesHoldNoWorker()
    {
        std::vector<std::unique_ptr<QTcpSocket>> slow;
        for (int i = 0; i < 6; ++i) {
            slow.push_back(connectFrom(QStringLiteral("127.0.0.2"), m_port));
            QVERIFY(slow.back());
            slow.back()->write("PUT /y HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 10\r\n\r\n01234");
            QVERIFY(slow.back()->waitForBytesWritten(1000));
        }
        auto other = connectFrom(QStringLiteral("127.0.0.3"), m_port);
        QVERIFY(other);
        QElapsedTimer clock;
        clock.start();
        other->write(request());
        const QByteArray answer = readAnswers(*other, 1, 3000);
        QVERIFY2(answer.startsWith("HTTP/1.1 200 OK\r\n"), answer.constData());
        QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
        for (auto& socket : slow) {
            socket->write("56789");
            QVERIFY(socket->waitForBytesWritten(1000));
        }
        for (auto& socket : slow) {
            QByteArray echoed;
            QElapsedTimer waited;
            waited.start();
            while (!echoed.endsWith("got 0123456789") && waited.elapsed() < 3000) {
                socket->waitForReadyRead(100);
                echoed += socket->readAll();
            }
            QVERIFY2(echoed.startsWith("HTTP/1.1 200 OK\r\n") && echoed.endsWith("got 0123456789"), echoed.constData());
        }
    }

    void aConnectionThatSaysNothingIsClosedAfterTheIdleTime()
    {
        auto socket = connectFrom(QStringLiteral("127.0.0.1"), m_port);
        QVERIFY(socket);
        QElapsedTimer clock;
        clock.start();
        const QByteArray answer = readUntilClosed(*socket, ControlServer::IdleMs + 3000);
        const qint64 elapsed = clock.elapsed();
        QCOMPARE(answer, QByteArray());
        QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
        QVERIFY2(elapsed >= ControlServer::IdleMs - 50, qPrintable(QString::number(elapsed)));
        QVERIFY2(elapsed <= ControlServer::IdleMs + 1000, qPrintable(QString::number(elapsed)));
    }

    void connectionsBeyondTheBoundOfOneAddressAreRefusedWhileOthersAreServed()
    {
        LogCapture log;
        std::vector<std::unique_ptr<QTcpSocket>> held;
        for (int i = 0; i < ControlServer::MaxConnectionsPerPeer; ++i) {
            held.push_back(connectFrom(QStringLiteral("127.0.0.2"), m_port));
            QVERIFY(held.back());
        }
        // The server takes connections in the order they came, so these
        // come after all of the held ones.
        const QByteArray refusal =
            "{\"error\": {\"name\": \"Unavailable\", \"title\": \"Too many connections\", \"message\": \"Too many "
            "connections: 64 connections from 127.0.0.2 are open already\"}}";
        for (int extra = 0; extra < 2; ++extra) {
            auto refused = connectFrom(QStringLiteral("127.0.0.2"), m_port);
            QVERIFY(refused);
            const QByteArray answer = readUntilClosed(*refused, 1000);
            QVERIFY2(answer.startsWith("HTTP/1.1 503 Too many connections\r\n"), answer.constData());
            QVERIFY2(answer.endsWith(refusal), answer.constData());
        }
        // One warning for the crowd, not one per connection.
        QCOMPARE(log.count(log4cplus::WARN_LOG_LEVEL,
                           QStringLiteral("Refusing connections from 127.0.0.2: 64 connections from 127.0.0.2 are open "
                                          "already"),
                           QStringLiteral("ControlServer")),
                 1);
        auto other = connectFrom(QStringLiteral("127.0.0.3"), m_port);
        QVERIFY(other);
        other->write(request());
        const QByteArray answer = readAnswers(*other, 1, 3000);
        QVERIFY2(answer.startsWith("HTTP/1.1 200 OK\r\n"), answer.constData());

        // Once they are gone the address is served again.
        held.clear();
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                auto again = connectFrom(QStringLiteral("127.0.0.2"), m_port);
                if (!again)
                    return false;
                again->write(request());
                return readAnswers(*again, 1, 1000).startsWith("HTTP/1.1 200 OK\r\n");
            }(),
            3000);
    }
};

QTEST_GUILESS_MAIN(tst_ControlServer)
#include "tst_ControlServer.moc"
