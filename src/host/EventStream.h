#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <QObject>
#include <QVariant>

#include "CMPath.h"
#include "TarvRoles.h"

// Fans the root worker's changes out to the API's event streams as
// server-sent events:
//   event: value  data: {"path", "value"}
//   event: rows   data: {"path", "new", "old"}
// Lives on the event-loop thread, where the changes happen; streams read
// their events from any thread. A stream that falls too far behind is ended
// rather than allowed to grow without bound.
class EventStream : public QObject
{
    Q_OBJECT

public:
    static constexpr int MaxSubscribers = 16;
    static constexpr size_t MaxQueued = 10000;
    // Large values (a 64 KiB write) reach the bound long before MaxQueued.
    static constexpr size_t MaxQueuedBytes = 8 * 1024 * 1024;

    struct Subscription
    {
        std::mutex mutex;
        std::condition_variable wake;
        std::deque<std::string> queue;
        size_t queuedBytes = 0;
        bool closed = false;
    };

    explicit EventStream(QObject* parent = nullptr);
    ~EventStream() override;

    // Thread-safe. Null when the stream is closed or has too many readers.
    std::shared_ptr<Subscription> subscribe();
    void unsubscribe(const std::shared_ptr<Subscription>& subscription);
    int subscriberCount() const;
    // Ends every stream; later subscriptions are refused.
    void close();

    // Waits up to `waitMs` for the next event's text (empty after a quiet
    // wait). False once the subscription is over.
    static bool next(Subscription& subscription, int waitMs, std::string* text);

    static std::string format(const char* event, const QJsonObject& data);

private:
    // Ends a stream that fell behind; its lock is held.
    static void end(Subscription& subscription);
    void publish(const std::string& text);
    void on_root_valueChanged(const CMPath& path, const QVariant& value);
    void on_root_rowsChanged(const CMPath& path, const TarvRoles& newRow, const TarvRoles& oldRow);

    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<Subscription>> m_subscriptions;
    bool m_closed = false;
};
