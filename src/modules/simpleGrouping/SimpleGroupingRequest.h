#pragma once

#include <QHash>
#include <QObject>
#include <QString>
#include <QTimer>

#include <model/cmrequest>
#include <tarv>

#include "SimpleGroupingSocket.h"

// The module's entry for grouping commands and the transcoder's bookkeeping
// of remote receivers.
//
// Commands: serves the action node at TarvGroupingRequestPath(). A
// TarvGroupingRequest with command 1 and a master becomes
// requestJoinTranscoder(master), command -1 becomes requestLeaveTranscoder();
// both are answered `true` once the signal has been emitted, whether or not
// anything acts on it. Anything else is refused on the request's reply with
// a translatable error (and logged at ERROR): "Empty grouping request",
// "Missing grouping master in request", "Missing grouping master id", or for
// an unknown command the literal "Invalid command " with its first
// <command> characters dropped (2 gives "valid command ", 16 the empty text).
// Commands below 0 or above 16 have no such text; they get the whole
// literal instead of a read past its end.
//
// Receivers: every "add" datagram sets its receiver's deadline to now plus
// the receiver time-out (TarvStopStreamingTimeoutPath(), read once at
// construction, whole seconds); a receiver not yet known is announced with
// requestAddReceiver. A "remove" datagram, and the passing of a deadline,
// give requestRemoveReceiver (on expiry with a member carrying only the id).
// An announcement without an id is refused with an ERROR line: its entry
// could never be taken out of the deadlines again, and its first expiry
// would keep this thread in the expiry loop for good.
class SimpleGroupingRequest : public QObject
{
    Q_OBJECT

public:
    // The deadlines of the receivers, keyed by id: whole seconds since the
    // epoch (32 bits). Every operation scans the whole map; a transcoder has
    // a handful of receivers.
    class TimeoutContainer
    {
    public:
        TimeoutContainer() = default;

        bool isEmpty() const;
        // Deadline := now + timeoutMs / 1000 (truncated). True when `id` was
        // not present before.
        bool add(QString id, int timeoutMs);
        // Unknown ids are ignored.
        void remove(QString id);
        // The earliest deadline (the first of equal ones in iteration
        // order). Only meaningful on a non-empty container.
        int peek() const;
        // Takes the id of the first entry holding the earliest deadline and
        // returns it; an empty id is returned but never taken out.
        QString pop();
        // Milliseconds until the earliest deadline, never negative.
        int nextTimeout() const;
        // Traces every entry with its remaining time (may be negative).
        void printAll() const;

    private:
        // The id of the first entry, in iteration order, whose deadline is
        // `deadline`; empty when none.
        QString firstIdWithDeadline(int deadline) const;

        QHash<QString, int> m_timeouts;
    };

    // `membersNode` is accepted and not used; it may be null.
    SimpleGroupingRequest(CMNodes* nodes, CMListRowsNode* membersNode);

Q_SIGNALS:
    void requestAddReceiver(const TarvSystemMember& member);
    void requestRemoveReceiver(const TarvSystemMember& member);
    void requestJoinTranscoder(const TarvSystemMember& master);
    void requestLeaveTranscoder();

public Q_SLOTS:
    void on_groupingRequest_activated(const CMSetDataRequest& request);
    // The listener's "add": record or refresh the receiver's deadline.
    void on_addReceiever(const TarvSystemMember& member);
    // The listener's "remove": forget the receiver; always signalled.
    void on_removeReceiever(const TarvSystemMember& member);
    // The expiry timer: removes every receiver whose deadline has passed.
    void on_timeout();

private:
    // Re-arms the expiry timer for the earliest deadline; an empty container
    // leaves it alone (its next expiry stops it).
    void updateTimer();

    QTimer m_timer;
    TimeoutContainer m_timeoutContainer;
    SimpleGroupingSocket m_socket;
    qint32 m_receiverTimeout = 0;
};
