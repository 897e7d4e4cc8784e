#include "EventStream.h"

#include <algorithm>
#include <chrono>

#include <QJsonObject>

#include "CMRootWorker.h"
#include "TarvConnect.h"
#include "TarvJson.h"
#include "TarvLog.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("EventStream");
}

} // namespace

EventStream::EventStream(QObject* parent)
    : QObject(parent)
{
    tarvConnect(CMRoot(), &CMRootWorker::valueChanged, this, &EventStream::on_root_valueChanged);
    tarvConnect(CMRoot(), &CMRootWorker::rowsChanged, this, &EventStream::on_root_rowsChanged);
}

EventStream::~EventStream()
{
    close();
}

std::shared_ptr<EventStream::Subscription> EventStream::subscribe()
{
    std::lock_guard<std::mutex> locker(m_mutex);
    if (m_closed || m_subscriptions.size() >= static_cast<size_t>(MaxSubscribers))
        return nullptr;
    auto subscription = std::make_shared<Subscription>();
    m_subscriptions.push_back(subscription);
    return subscription;
}

void EventStream::unsubscribe(const std::shared_ptr<Subscription>& subscription)
{
    std::lock_guard<std::mutex> locker(m_mutex);
    m_subscriptions.erase(std::remove(m_subscriptions.begin(), m_subscriptions.end(), subscription),
                          m_subscriptions.end());
}

int EventStream::subscriberCount() const
{
    std::lock_guard<std::mutex> locker(m_mutex);
    return static_cast<int>(m_subscriptions.size());
}

void EventStream::close()
{
    std::vector<std::shared_ptr<Subscription>> subscriptions;
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        m_closed = true;
        subscriptions.swap(m_subscriptions);
    }
    for (const auto& subscription : subscriptions) {
        std::lock_guard<std::mutex> locker(subscription->mutex);
        subscription->closed = true;
        subscription->wake.notify_all();
    }
}

bool EventStream::next(Subscription& subscription, int waitMs, std::string* text)
{
    std::unique_lock<std::mutex> locker(subscription.mutex);
    subscription.wake.wait_for(locker, std::chrono::milliseconds(waitMs),
                               [&] { return subscription.closed || !subscription.queue.empty(); });
    if (!subscription.queue.empty()) {
        *text = std::move(subscription.queue.front());
        subscription.queue.pop_front();
        subscription.queuedBytes -= text->size();
        return true;
    }
    text->clear();
    return !subscription.closed;
}

std::string EventStream::format(const char* event, const QJsonObject& data)
{
    return std::string("event: ") + event + "\ndata: " + TarvJson::toBytes(data).toStdString() + "\n\n";
}

void EventStream::end(Subscription& subscription)
{
    subscription.closed = true;
    subscription.queue.clear();
    subscription.queuedBytes = 0;
}

void EventStream::publish(const std::string& text)
{
    std::lock_guard<std::mutex> locker(m_mutex);
    for (const auto& subscription : m_subscriptions) {
        std::lock_guard<std::mutex> queueLocker(subscription->mutex);
        if (subscription->closed)
            continue;
        if (subscription->queue.size() >= MaxQueued) {
            LOG4CPLUS_WARN(logger(), "An event stream fell " << MaxQueued << " events behind; ending it");
            end(*subscription);
        } else if (subscription->queuedBytes + text.size() > MaxQueuedBytes) {
            LOG4CPLUS_WARN(logger(), "An event stream fell more than " << MaxQueuedBytes << " bytes behind; ending it");
            end(*subscription);
        } else {
            subscription->queue.push_back(text);
            subscription->queuedBytes += text.size();
        }
        subscription->wake.notify_all();
    }
}

void EventStream::on_root_valueChanged(const CMPath& path, const QVariant& value)
{
    if (subscriberCount() == 0)
        return;
    QJsonObject data;
    data.insert(QStringLiteral("path"), path.toString());
    data.insert(QStringLiteral("value"), TarvJson::fromVariant(value));
    publish(format("value", data));
}

void EventStream::on_root_rowsChanged(const CMPath& path, const TarvRoles& newRow, const TarvRoles& oldRow)
{
    if (subscriberCount() == 0)
        return;
    QJsonObject data;
    data.insert(QStringLiteral("path"), path.toString());
    data.insert(QStringLiteral("new"), TarvJson::fromVariant(newRow.toVariant()));
    data.insert(QStringLiteral("old"), TarvJson::fromVariant(oldRow.toVariant()));
    publish(format("rows", data));
}
