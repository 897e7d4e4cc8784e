#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include <QElapsedTimer>

#include <model/cmrequest>

// Waits on a reply from another thread, so a test can see what such a
// waiter sees: whether its wait reported the reply finished, how long it
// took, and whether it has returned at all. The destructor releases a
// waiter that is still blocked (by finishing the reply) and joins it, so a
// failing test never leaves a thread behind.
class ReplyWaiter
{
public:
    // `wait` runs on the waiting thread and returns what waitForFinished said.
    template <typename Wait>
    ReplyWaiter(CMReplyAbstractData* data, Wait wait)
        : m_data(data), m_thread([this, wait] {
              QElapsedTimer timer;
              timer.start();
              m_finished = wait();
              m_waited = timer.elapsed();
              m_returnedAt = std::chrono::steady_clock::now();
              m_returned = true;
          })
    {
    }
    ~ReplyWaiter()
    {
        m_data->finish();
        join();
    }
    ReplyWaiter(const ReplyWaiter&) = delete;
    ReplyWaiter& operator=(const ReplyWaiter&) = delete;

    void join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }
    bool returned() const { return m_returned; }
    // Valid after join(), or once returned() is true.
    bool finished() const { return m_finished; }
    qint64 waited() const { return m_waited; }
    // When the wait returned, to set against moments seen elsewhere.
    std::chrono::steady_clock::time_point returnedAt() const { return m_returnedAt; }

private:
    CMReplyAbstractData* m_data;
    std::atomic<bool> m_returned{false};
    bool m_finished = false;
    qint64 m_waited = 0;
    std::chrono::steady_clock::time_point m_returnedAt;
    std::thread m_thread; // last: starts once the state above exists
};
