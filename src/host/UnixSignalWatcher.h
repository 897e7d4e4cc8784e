#pragma once

#include <QList>
#include <QObject>
#include <QSocketNotifier>

// Turns SIGINT and SIGTERM into a Qt signal on the event loop (self-pipe):
// the handler only writes the signal number into a socket pair, which the
// loop reads. One watcher per process.
class UnixSignalWatcher : public QObject
{
    Q_OBJECT

public:
    explicit UnixSignalWatcher(const QList<int>& signalNumbers, QObject* parent = nullptr);
    ~UnixSignalWatcher() override;

    bool isValid() const { return m_notifier != nullptr; }

Q_SIGNALS:
    void signalReceived(int signalNumber);

private:
    static void handle(int signalNumber);
    void on_notifier_activated();

    QList<int> m_signals;
    QSocketNotifier* m_notifier = nullptr;
};
