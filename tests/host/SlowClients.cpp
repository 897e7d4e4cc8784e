#include "SlowClients.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

long long nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void sendAll(int fd, const std::string& text)
{
    // Small writes into an empty socket buffer; a refusal shows as a close.
    (void)::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

} // namespace

SlowClients::SlowClients(quint16 port, int slow, int idle, const QStringList& sourceAddresses) : m_port(port)
{
    const int total = slow + idle;
    for (int i = 0; i < total; ++i) {
        Connection connection;
        connection.slow = i < slow;
        connection.source = sourceAddresses.at(i % sourceAddresses.size()).toStdString();
        m_connections.push_back(connection);
    }
}

SlowClients::~SlowClients()
{
    stop();
}

void SlowClients::start()
{
    m_running = true;
    m_thread = std::thread([this] { run(); });
}

void SlowClients::stop()
{
    m_running = false;
    if (m_thread.joinable())
        m_thread.join();
    for (Connection& connection : m_connections)
        closeOne(connection);
}

bool SlowClients::connectOne(Connection& connection, long long now)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_in source{};
    source.sin_family = AF_INET;
    ::inet_pton(AF_INET, connection.source.c_str(), &source.sin_addr);
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(m_port);
    ::inet_pton(AF_INET, "127.0.0.1", &target.sin_addr);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0
        || ::connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
        ::close(fd);
        return false;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    connection.fd = fd;
    connection.lines = 0;
    connection.nextLineMs = now + 1000;
    const std::string host = "Host: 127.0.0.1:" + std::to_string(m_port) + "\r\n";
    sendAll(fd, connection.slow ? "GET /api/v1/host HTTP/1.1\r\n" + host
                                : "GET /api/v1/host HTTP/1.1\r\n" + host + "Connection: keep-alive\r\n\r\n");
    ++m_open;
    return true;
}

void SlowClients::closeOne(Connection& connection)
{
    if (connection.fd < 0)
        return;
    ::close(connection.fd);
    connection.fd = -1;
    --m_open;
}

void SlowClients::run()
{
    std::vector<pollfd> polled;
    std::vector<Connection*> owners;
    char sink[4096];
    while (m_running) {
        const long long now = nowMs();
        polled.clear();
        owners.clear();
        for (Connection& connection : m_connections) {
            if (connection.fd < 0 && !connectOne(connection, now))
                continue;
            if (connection.slow && now >= connection.nextLineMs) {
                sendAll(connection.fd, "X-Slow-" + std::to_string(connection.lines++) + ": 1\r\n");
                connection.nextLineMs = now + 1000;
            }
            polled.push_back(pollfd{connection.fd, POLLIN, 0});
            owners.push_back(&connection);
        }
        if (::poll(polled.data(), polled.size(), 50) <= 0)
            continue;
        for (size_t i = 0; i < polled.size(); ++i) {
            if (!polled[i].revents)
                continue;
            // Answers are read and thrown away; an end of stream is the
            // server giving up on the connection.
            const ssize_t got = ::recv(polled[i].fd, sink, sizeof sink, 0);
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
                closeOne(*owners[i]);
                ++m_closedByServer;
            }
        }
    }
}
