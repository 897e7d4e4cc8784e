#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <QStringList>

// Connections that tie up an HTTP server without ever finishing a request,
// kept open from a thread of their own until stop(): `slow` ones send a
// request's headers one line per second (slowloris), `idle` ones send one
// whole keep-alive request, read its answer and then say nothing. One the
// server closes is opened again at once, as an attacker would. Connections
// are spread over `sourceAddresses` (loopback addresses such as 127.0.0.2;
// the whole of 127/8 reaches this machine).
class SlowClients
{
public:
    SlowClients(quint16 port, int slow, int idle, const QStringList& sourceAddresses);
    ~SlowClients();
    SlowClients(const SlowClients&) = delete;
    SlowClients& operator=(const SlowClients&) = delete;

    void start();
    void stop();

    // Connections open right now, and how often the server ended one.
    int open() const { return m_open; }
    int closedByServer() const { return m_closedByServer; }

private:
    struct Connection
    {
        int fd = -1;
        bool slow = false;
        std::string source;
        long long nextLineMs = 0;
        int lines = 0;
    };

    void run();
    bool connectOne(Connection& connection, long long nowMs);
    void closeOne(Connection& connection);

    quint16 m_port;
    std::vector<Connection> m_connections;
    std::thread m_thread;
    std::atomic<bool> m_running{false};
    std::atomic<int> m_open{0};
    std::atomic<int> m_closedByServer{0};
};
