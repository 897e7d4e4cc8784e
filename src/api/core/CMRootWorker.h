#pragma once

#include <functional>

#include <QHash>
#include <QList>
#include <QMutex>

#include "CMAbstractWorker.h"
#include "CMValueNotifier.h"
#include "TarvConnect.h"
#include "TarvRoles.h"

class CMNode;
class CMNodes;

// The root worker: every path of this process is reached through it.
//  - Values the host holds (own record, device state, settings, player
//    data) are defined by the host with defineValue() (with a validator
//    where it checks them); anyone reads them with getValue() from any
//    thread, writes them with setValue() (stored at once on the root's
//    thread, queued onto it from other threads), and follows them with
//    connectValueChange(). Writing an equal value is no change and notifies
//    nobody. Writing a path nobody defined defines it; a node's path is not
//    a value and is refused. A refused setValue() is logged at WARN.
//  - Nodes live in registries (CMNodes), all known here; invoke() delivers
//    an activation to an action node through the node's event loop and may
//    be called from any thread.
// The root lives for the whole process.
class CMRootWorker : public CMAbstractWorker
{
    Q_OBJECT

public:
    // Checks a value before it is stored: an empty string accepts it,
    // anything else is the reason for refusing it.
    using Validator = std::function<QString(const QVariant& value)>;

    QVariant getValue(const CMPath& path) override;
    CMVoidReply setValue(const CMPath& path, const TarvValue& value, const CMReply<QVariant>& reply) override;
    CMVoidReply invoke(const CMPath& path, const TarvHash& value, const CMReply<QVariant>& reply) override;

    void defineValue(const CMPath& path, const QVariant& initial, const Validator& validator = Validator());
    void undefineValue(const CMPath& path);
    void clearValues();
    bool hasValue(const CMPath& path) const;
    QList<CMPath> valuePaths() const;
    // Stores a value on the root's thread; returns the refusal, empty when
    // stored (or unchanged).
    QString storeValue(const CMPath& path, const QVariant& value);

    // Reports (path, value) to `slot` on every change of the value at `path`.
    template <typename Receiver, typename Slot>
    QMetaObject::Connection connectValueChange(const CMPath& path, const Receiver* receiver, Slot slot,
                                               Qt::ConnectionType type = Qt::AutoConnection)
    {
        return tarvConnect(notifier(path), &CMValueNotifier::changed, receiver, slot, type);
    }

    CMNode* findNode(const CMPath& path) const;
    QList<CMNode*> allNodes() const;

    // Registries announce themselves here (CMNodes does it).
    void addRegistry(CMNodes* nodes);
    void removeRegistry(CMNodes* nodes);

Q_SIGNALS:
    void nodeAdded(const CMPath& path);
    void nodeRemoved(const CMPath& path);
    void valueChanged(const CMPath& path, const QVariant& value);
    // Any list node's row change, for observers of the whole tree.
    void rowsChanged(const CMPath& path, const TarvRoles& newRow, const TarvRoles& oldRow);

private:
    friend CMRootWorker* CMRoot();
    CMRootWorker() = default;

    CMValueNotifier* notifier(const CMPath& path);
    void applySet(const CMPath& path, const QVariant& value, const CMReply<QVariant>& reply);
    void on_registry_nodeAdded(CMNodes* nodes, const CMPath& path);

    mutable QMutex m_mutex;
    QHash<CMPath, QVariant> m_values;
    QHash<CMPath, Validator> m_validators;
    QHash<CMPath, CMValueNotifier*> m_notifiers;
    QList<CMNodes*> m_registries;
};

// The process's root worker.
CMRootWorker* CMRoot();
