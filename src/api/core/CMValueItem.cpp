#include "CMValueItem.h"

#include <QTimer>

#include "CMRootWorker.h"

CMValueItem::CMValueItem(QObject* parent, const CMPath& path)
    : QObject(parent), m_path(path)
{
    QTimer::singleShot(0, this, &CMValueItem::load);
}

void CMValueItem::load()
{
    CMRoot()->connectValueChange(m_path, this, &CMValueItem::on_root_valueChanged);
    m_value = TarvValue(CMRoot()->getValue(m_path).toHash());
    m_loaded = true;
    Q_EMIT changed(m_value, TarvValue());
}

void CMValueItem::on_root_valueChanged(const CMPath& path, const QVariant& value)
{
    Q_UNUSED(path);
    const TarvValue newValue(value.toHash());
    if (newValue == m_value)
        return;
    const TarvValue oldValue = m_value;
    m_value = newValue;
    Q_EMIT changed(m_value, oldValue);
}
