#pragma once

#include <QObject>
#include <QVariant>

#include "CMPath.h"

// Announces the changes of one value path of the root worker.
class CMValueNotifier : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

Q_SIGNALS:
    void changed(const CMPath& path, const QVariant& value);
};
