#pragma once

#include <QChar>
#include <QString>

// One argument of a translatable format: the text put in for the next %n,
// right-aligned in `fieldWidth` (left-aligned when negative) with `fill`.
class TrArg
{
public:
    TrArg(const QString& value, int fieldWidth = 0, QChar fill = QLatin1Char(' '))
        : m_value(value), m_fieldWidth(fieldWidth), m_fill(fill)
    {
    }

    const QString& value() const { return m_value; }
    int fieldWidth() const { return m_fieldWidth; }
    QChar fill() const { return m_fill; }

    bool operator==(const TrArg& other) const
    {
        return m_value == other.m_value && m_fieldWidth == other.m_fieldWidth && m_fill == other.m_fill;
    }

private:
    QString m_value;
    int m_fieldWidth;
    QChar m_fill;
};
