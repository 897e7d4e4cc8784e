#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include <httplib.h>

// The control API's HTTP server: httplib's request handling, but a
// connection holds a worker thread only while a whole request head is in and
// being answered. Connections waiting for a request (new ones, idle
// keep-alive ones, and ones whose head is still arriving) wait together in
// one poll thread, so slow or idle clients cannot starve the workers.
//   - a connection must deliver its next request's first byte within IdleMs
//     (else it is closed, as a keep-alive time-out) and the whole head, and
//     a body of a given Content-Length, within HeadDeadlineMs of starting to
//     wait (else it is answered 408);
//   - at most MaxConnectionsPerPeer connections per client address and
//     MaxConnections in all; more are answered 503 and closed;
//   - what a worker still has to read (a body sent after "100 Continue",
//     or a chunked one) must arrive within BodyDeadlineMs.
class ControlServer : public httplib::Server
{
public:
    static constexpr int IdleMs = 2000;
    static constexpr int HeadDeadlineMs = 5000;
    static constexpr int BodyDeadlineMs = 5000;
    static constexpr size_t MaxHeadBytes = 16 * 1024;
    // Larger bodies are read by a worker.
    static constexpr size_t MaxWaitingBodyBytes = 64 * 1024;
    static constexpr int MaxConnectionsPerPeer = 64;
    static constexpr int MaxConnections = 512;
    static constexpr int ListenBacklog = 128;

    // The body of a refusal the server answers itself: (name, title, message).
    using ErrorBody = std::function<std::string(const std::string&, const std::string&, const std::string&)>;

    ControlServer(size_t workers, ErrorBody errorBody);
    ~ControlServer() override;

    // httplib listens with a backlog of 5: a burst of connections makes the
    // kernel drop SYNs, and each dropped one costs its client a whole second
    // (the retransmission). Call it after binding.
    bool widenListenBacklog();

    // Closes every connection and joins the threads; call it after stop()
    // once the listening thread has returned. Safe to call more than once.
    void closeConnections();

private:
    using Clock = std::chrono::steady_clock;

    struct Connection
    {
        int fd = -1;
        std::string peer;
        // Bytes read but not yet handled: the head being collected, or
        // what a client sent after the request just answered.
        std::string pending;
        Clock::time_point waitingSince;
        size_t served = 0;
    };
    using ConnectionPtr = std::unique_ptr<Connection>;

    // Called by httplib for every accepted socket, on its listening thread
    // (the task queue runs it in place): only admits it to the waiting set.
    bool process_and_close_socket(socket_t sock) override;

    void waitLoop();
    void wake();
    enum class Arrival {
        Head,  // the head is still coming
        Body,  // the head is in, its body (of known length) still coming
        Whole, // ready for a worker (or as much as may wait here)
    };
    Arrival arrival(const Connection& connection) const;
    void serve(ConnectionPtr connection);
    void release(ConnectionPtr connection);
    void refuse(int fd, int status, const std::string& name, const std::string& title, const std::string& message);
    void forget(const Connection& connection);

    std::mutex m_mutex;
    std::map<std::string, int> m_perPeer;
    // Addresses refused since they last got a connection in (warned once).
    std::set<std::string> m_refusing;
    int m_connections = 0;
    std::deque<ConnectionPtr> m_arrivals;
    bool m_closing = false;
    int m_wakeFd = -1;
    ErrorBody m_errorBody;
    std::thread m_waiter;
    std::unique_ptr<httplib::ThreadPool> m_workers;
};
