#include "ControlServer.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "TarvLog.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("ControlServer");
}

int millisecondsUntil(std::chrono::steady_clock::time_point when)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<long long>(0, left.count()));
}

bool waitFor(int fd, short events, int timeoutMs)
{
    pollfd polled{fd, events, 0};
    int ready;
    do {
        ready = ::poll(&polled, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

void addressOf(int fd, bool remote, std::string& ip, int& port)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    const int got = remote ? ::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length)
                           : ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    char host[NI_MAXHOST] = {};
    char service[NI_MAXSERV] = {};
    if (got != 0
        || ::getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, service, sizeof service,
                         NI_NUMERICHOST | NI_NUMERICSERV)
            != 0) {
        ip.clear();
        port = 0;
        return;
    }
    ip = host;
    port = std::atoi(service);
}

// httplib hands each accepted socket to its task queue; this one runs the
// hand-off in place, which only admits the socket to the waiting set.
class InPlaceQueue : public httplib::TaskQueue
{
public:
    void enqueue(std::function<void()> fn) override { fn(); }
    void shutdown() override {}
};

// One request's view of a connection: first what the waiting thread already
// read, then the socket, with the body's deadline on every read.
class RequestStream : public httplib::Stream
{
public:
    RequestStream(int fd, std::string pending, std::chrono::steady_clock::time_point readDeadline, int writeTimeoutMs)
        : m_fd(fd), m_pending(std::move(pending)), m_readDeadline(readDeadline), m_writeTimeoutMs(writeTimeoutMs)
    {
    }

    // What the client sent beyond this request (pipelining).
    std::string leftover() const { return m_pending.substr(m_offset); }

    bool is_readable() const override
    {
        return m_offset < m_pending.size() || waitFor(m_fd, POLLIN, millisecondsUntil(m_readDeadline));
    }

    bool is_writable() const override
    {
        if (!waitFor(m_fd, POLLOUT, m_writeTimeoutMs))
            return false;
        // A client that hung up shows as readable with nothing to read.
        if (!waitFor(m_fd, POLLIN, 0))
            return true;
        char byte;
        return ::recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0;
    }

    ssize_t read(char* ptr, size_t size) override
    {
        if (m_offset < m_pending.size()) {
            const size_t count = std::min(size, m_pending.size() - m_offset);
            std::memcpy(ptr, m_pending.data() + m_offset, count);
            m_offset += count;
            return static_cast<ssize_t>(count);
        }
        for (;;) {
            if (!waitFor(m_fd, POLLIN, millisecondsUntil(m_readDeadline)))
                return -1;
            const ssize_t got = ::recv(m_fd, ptr, size, 0);
            if (got >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
                return got;
        }
    }

    ssize_t write(const char* ptr, size_t size) override
    {
        for (;;) {
            if (!waitFor(m_fd, POLLOUT, m_writeTimeoutMs))
                return -1;
            const ssize_t sent = ::send(m_fd, ptr, size, MSG_NOSIGNAL);
            if (sent >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
                return sent;
        }
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override { addressOf(m_fd, true, ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override { addressOf(m_fd, false, ip, port); }
    socket_t socket() const override { return m_fd; }

private:
    int m_fd;
    std::string m_pending;
    size_t m_offset = 0;
    std::chrono::steady_clock::time_point m_readDeadline;
    int m_writeTimeoutMs;
};

} // namespace

ControlServer::ControlServer(size_t workers, ErrorBody errorBody)
    : m_wakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_errorBody(std::move(errorBody)),
      m_workers(new httplib::ThreadPool(workers))
{
    new_task_queue = [] { return new InPlaceQueue; };
    m_waiter = std::thread([this] { waitLoop(); });
}

ControlServer::~ControlServer()
{
    closeConnections();
}

void ControlServer::closeConnections()
{
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        if (m_closing)
            return;
        m_closing = true;
    }
    wake();
    m_waiter.join();
    // Requests being answered finish (the API answers them at once while it
    // stops); their connections are closed instead of waiting again.
    m_workers->shutdown();
    std::lock_guard<std::mutex> locker(m_mutex);
    for (const ConnectionPtr& connection : m_arrivals) {
        ::close(connection->fd);
    }
    m_arrivals.clear();
    ::close(m_wakeFd);
}

bool ControlServer::widenListenBacklog()
{
    // listen() again on a listening socket only changes its backlog.
    return ::listen(svr_sock_, ListenBacklog) == 0;
}

bool ControlServer::process_and_close_socket(socket_t sock)
{
    std::string peer;
    int port = 0;
    addressOf(sock, true, peer, port);
    ::fcntl(sock, F_SETFL, ::fcntl(sock, F_GETFL) | O_NONBLOCK);
    std::string refusal;
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        if (m_closing) {
            ::close(sock);
            return false;
        }
        const int fromPeer = m_perPeer.count(peer) ? m_perPeer[peer] : 0;
        if (fromPeer >= MaxConnectionsPerPeer) {
            refusal = std::to_string(MaxConnectionsPerPeer) + " connections from " + peer + " are open already";
        } else if (m_connections >= MaxConnections) {
            refusal = std::to_string(MaxConnections) + " connections are open already";
        } else {
            ++m_perPeer[peer];
            ++m_connections;
            m_refusing.erase(peer);
            ConnectionPtr connection(new Connection);
            connection->fd = sock;
            connection->peer = peer;
            connection->waitingSince = Clock::now();
            m_arrivals.push_back(std::move(connection));
        }
        // One warning per client and crowd, not one per connection of a flood.
        if (!refusal.empty() && m_refusing.insert(peer).second) {
            LOG4CPLUS_WARN(logger(), "Refusing connections from " << peer.c_str() << ": " << refusal.c_str());
        }
    }
    if (!refusal.empty()) {
        refuse(sock, 503, "Unavailable", "Too many connections", "Too many connections: " + refusal);
        return false;
    }
    wake();
    return true;
}

void ControlServer::wake()
{
    const uint64_t one = 1;
    (void)!::write(m_wakeFd, &one, sizeof one);
}

ControlServer::Arrival ControlServer::arrival(const Connection& connection) const
{
    const std::string& pending = connection.pending;
    const size_t headEnd = pending.find("\r\n\r\n");
    if (headEnd == std::string::npos)
        return pending.size() >= MaxHeadBytes ? Arrival::Whole : Arrival::Head;
    // The body waits here too when its length is known, so that a client
    // sending it slowly holds no worker. A client that waits for "100
    // Continue" before sending it, and a body too large to take, go to a
    // worker at once (httplib answers both).
    std::string head = pending.substr(0, headEnd + 2);
    std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
    if (head.find("\r\nexpect:") != std::string::npos)
        return Arrival::Whole;
    const size_t field = head.find("\r\ncontent-length:");
    if (field == std::string::npos)
        return Arrival::Whole;
    char* end = nullptr;
    const unsigned long long length = std::strtoull(head.c_str() + field + 17, &end, 10);
    if (end == head.c_str() + field + 17 || length > std::min<size_t>(payload_max_length_, MaxWaitingBodyBytes))
        return Arrival::Whole;
    return pending.size() >= headEnd + 4 + length ? Arrival::Whole : Arrival::Body;
}

void ControlServer::waitLoop()
{
    std::vector<ConnectionPtr> waiting;
    std::vector<pollfd> polled;
    char buffer[4096];
    const auto idleLimit = std::chrono::milliseconds(IdleMs);
    const auto headLimit = std::chrono::milliseconds(HeadDeadlineMs);
    for (;;) {
        {
            std::lock_guard<std::mutex> locker(m_mutex);
            if (m_closing)
                break;
            for (ConnectionPtr& arrival : m_arrivals) {
                // A client that sent its next request along with the last
                // one is served at once.
                if (!arrival->pending.empty() && this->arrival(*arrival) == Arrival::Whole) {
                    ConnectionPtr ready = std::move(arrival);
                    m_workers->enqueue([this, raw = ready.release()] { serve(ConnectionPtr(raw)); });
                } else {
                    waiting.push_back(std::move(arrival));
                }
            }
            m_arrivals.clear();
        }

        // Deadlines first: a connection past its time goes before polling.
        const auto now = Clock::now();
        auto nextDeadline = now + std::chrono::seconds(1);
        for (ConnectionPtr& connection : waiting) {
            const bool idle = connection->pending.empty();
            const auto deadline = connection->waitingSince + (idle ? idleLimit : headLimit);
            if (now < deadline) {
                nextDeadline = std::min(nextDeadline, deadline);
                continue;
            }
            if (idle) {
                ::close(connection->fd);
            } else {
                LOG4CPLUS_DEBUG(logger(), "No whole request from " << connection->peer.c_str() << " within "
                                                                     << HeadDeadlineMs << " ms");
                const char* what = arrival(*connection) == Arrival::Head ? "headers" : "body";
                refuse(connection->fd, 408, "RequestTimeout", "Request timeout",
                       std::string("The request's ") + what + " did not arrive within "
                           + std::to_string(HeadDeadlineMs) + " ms");
            }
            forget(*connection);
            connection.reset();
        }
        waiting.erase(std::remove(waiting.begin(), waiting.end(), nullptr), waiting.end());

        polled.clear();
        polled.push_back(pollfd{m_wakeFd, POLLIN, 0});
        for (const ConnectionPtr& connection : waiting)
            polled.push_back(pollfd{connection->fd, POLLIN, 0});
        if (::poll(polled.data(), polled.size(), millisecondsUntil(nextDeadline) + 1) <= 0)
            continue;
        if (polled[0].revents) {
            uint64_t count;
            (void)!::read(m_wakeFd, &count, sizeof count);
        }
        for (size_t i = 1; i < polled.size(); ++i) {
            if (!polled[i].revents)
                continue;
            ConnectionPtr& connection = waiting[i - 1];
            const size_t room = MaxHeadBytes + MaxWaitingBodyBytes - connection->pending.size();
            const ssize_t got = ::recv(connection->fd, buffer, std::min(sizeof buffer, room), 0);
            if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
                continue;
            if (got <= 0) {
                // The client went away before finishing a request.
                ::close(connection->fd);
                forget(*connection);
                connection.reset();
                continue;
            }
            connection->pending.append(buffer, static_cast<size_t>(got));
            if (arrival(*connection) == Arrival::Whole) {
                m_workers->enqueue([this, raw = connection.release()] { serve(ConnectionPtr(raw)); });
            }
        }
        waiting.erase(std::remove(waiting.begin(), waiting.end(), nullptr), waiting.end());
    }
    for (const ConnectionPtr& connection : waiting) {
        ::close(connection->fd);
        forget(*connection);
    }
}

void ControlServer::serve(ConnectionPtr connection)
{
    RequestStream stream(connection->fd, std::move(connection->pending),
                         Clock::now() + std::chrono::milliseconds(BodyDeadlineMs),
                         static_cast<int>(write_timeout_sec_ * 1000 + write_timeout_usec_ / 1000));
    const bool last = ++connection->served >= keep_alive_max_count_;
    bool closed = false;
    const bool answered = process_request(stream, last, closed, nullptr);
    if (!answered || closed || last) {
        ::shutdown(connection->fd, SHUT_RDWR);
        ::close(connection->fd);
        forget(*connection);
        return;
    }
    connection->pending = stream.leftover();
    release(std::move(connection));
}

void ControlServer::release(ConnectionPtr connection)
{
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        if (!m_closing) {
            connection->waitingSince = Clock::now();
            m_arrivals.push_back(std::move(connection));
        }
    }
    if (connection) {
        ::close(connection->fd);
        forget(*connection);
        return;
    }
    wake();
}

void ControlServer::forget(const Connection& connection)
{
    std::lock_guard<std::mutex> locker(m_mutex);
    --m_connections;
    auto fromPeer = m_perPeer.find(connection.peer);
    if (fromPeer != m_perPeer.end() && --fromPeer->second <= 0)
        m_perPeer.erase(fromPeer);
}

void ControlServer::refuse(int fd, int status, const std::string& name, const std::string& title,
                           const std::string& message)
{
    const std::string body = m_errorBody(name, title, message);
    const std::string answer = "HTTP/1.1 " + std::to_string(status) + " " + title
        + "\r\nContent-Type: application/json; charset=utf-8\r\nConnection: close\r\nContent-Length: "
        + std::to_string(body.size()) + "\r\n\r\n" + body;
    // Best effort into an empty socket buffer; the client gets the reason
    // if it still listens, and the connection ends either way.
    (void)::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    ::shutdown(fd, SHUT_WR);
    ::close(fd);
}
