#pragma once

#include <atomic>
#include <thread>

#include <QByteArray>
#include <QString>

// A TCP server on 127.0.0.1 (a free port) that reads each request's head
// and answers with fixed bytes, then closes: for hosts that send something
// that is not HTTP, or nothing at all.
class RawTcpServer
{
public:
    explicit RawTcpServer(const QByteArray& answer);
    ~RawTcpServer();
    RawTcpServer(const RawTcpServer&) = delete;
    RawTcpServer& operator=(const RawTcpServer&) = delete;

    int port() const { return m_port; }
    QString api() const;

private:
    void serve();

    QByteArray m_answer;
    int m_socket = -1;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};
