#pragma once

#include <QMetaMethod>
#include <QMetaType>
#include <QObject>
#include <QThread>

// The checked connect. Every signal-slot connection of the module and the
// host goes through tarvConnect(), which ends the process when
//  - the connection may be queued (queued type, or automatic across threads)
//    and a non-pointer argument type of the signal is unknown to the
//    meta-type system: assertion "verifyConnectionSignalParameters(sender, signal, receiver, type)";
//  - Qt refuses the connection: assertion "connection".
// Both are programming errors that must not survive into a running device.

template <typename Signal>
bool verifyConnectionSignalParameters(const QObject* sender, Signal signal, const QObject* receiver,
                                      Qt::ConnectionType type)
{
    // Only queued and automatic cross-thread connections are checked; a
    // blocking-queued one is left to Qt.
    const bool queued = type == Qt::QueuedConnection
        || (type == Qt::AutoConnection && sender && receiver && sender->thread() != receiver->thread());
    if (!queued)
        return true;
    const QMetaMethod method = QMetaMethod::fromSignal(signal);
    if (!method.isValid())
        return true; // Qt reports the invalid signal itself; the "connection" check catches it.
    for (const QByteArray& name : method.parameterTypes()) {
        if (name.endsWith('*'))
            continue;
        if (QMetaType::type(name.constData()) == QMetaType::UnknownType)
            return false;
    }
    return true;
}

template <typename Sender, typename Signal, typename Receiver, typename Slot>
QMetaObject::Connection tarvConnect(const Sender* sender, Signal signal, const Receiver* receiver, Slot slot,
                                    Qt::ConnectionType type = Qt::AutoConnection)
{
    if (!verifyConnectionSignalParameters(sender, signal, receiver, type))
        qt_assert("verifyConnectionSignalParameters(sender, signal, receiver, type)", __FILE__, __LINE__);
    QMetaObject::Connection connection = QObject::connect(sender, signal, receiver, slot, type);
    if (!connection)
        qt_assert("connection", __FILE__, __LINE__);
    return connection;
}
