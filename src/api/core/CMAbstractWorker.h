#pragma once

#include <QObject>
#include <QVariant>

#include "CMPath.h"
#include "CMReply.h"
#include "CMVoidReply.h"
#include "TarvHash.h"
#include "TarvValue.h"

// The host's worker interface: read, write and invoke any path.
class CMAbstractWorker : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    // The current value at a path, synchronously (invalid when none).
    virtual QVariant getValue(const CMPath& path) = 0;
    // Writes a value; the returned reply finishes when it is stored (at once
    // when called on the root's thread) or fails with the reason.
    virtual CMVoidReply setValue(const CMPath& path, const TarvValue& value, const CMReply<QVariant>& reply) = 0;
    // Activates the action node at a path with a value; the reply finishes
    // when the node's handler answers.
    virtual CMVoidReply invoke(const CMPath& path, const TarvHash& value, const CMReply<QVariant>& reply) = 0;
};
