#pragma once

#include <QObject>

#include "CMPath.h"
#include "TarvValue.h"

// Mirrors the value at a path of the root worker. Starts empty; on the next
// pass of the event loop it loads and reports changed(current, empty), then
// reports every change as changed(new, old) after value() holds it.
class CMValueItem : public QObject
{
    Q_OBJECT

public:
    CMValueItem(QObject* parent, const CMPath& path);

    const CMPath& path() const { return m_path; }
    const TarvValue& value() const { return m_value; }
    bool isLoaded() const { return m_loaded; }

Q_SIGNALS:
    void changed(const TarvValue& newValue, const TarvValue& oldValue);

private:
    void load();
    void on_root_valueChanged(const CMPath& path, const QVariant& value);

    CMPath m_path;
    TarvValue m_value;
    bool m_loaded = false;
};
