#pragma once

#include <ostream>

#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariant>

#include "TarvHash.h"
#include "TrArg.h"

// The source of a translatable text: its translation context and the text.
struct TrCharData
{
    QString context;
    QString text;
};

// The translation context of a literal written as "context\004text"
// (gettext's separator); empty when the literal has none.
QString trExtractContext(const char* literal);

// A translatable text: a literal, a plain string, or a format with
// arguments. There is no catalogue on this host, so the display text is the
// source text with its arguments put in.
class TrString
{
public:
    TrString() = default;
    TrString(const char* literal);   // NOLINT: texts are written as literals
    TrString(const QString& text);   // NOLINT
    TrString(const TrCharData& format, const QList<TrArg>& args);

    QString toString() const;
    bool isEmpty() const { return toString().isEmpty(); }
    const QString& context() const { return m_source.context; }
    const QString& sourceText() const { return m_source.text; }

    operator QVariant() const { return toString(); } // NOLINT

    bool operator==(const TrString& other) const;
    bool operator!=(const TrString& other) const { return !(*this == other); }

private:
    TrCharData m_source;
    QList<TrArg> m_args;
};

std::ostream& operator<<(std::ostream& out, const TrString& text);

template <>
struct TarvFieldTraits<TrString>
{
    static TrString fromVariant(const QVariant& value) { return TrString(value.toString()); }
    static QVariant toVariant(const TrString& value) { return value.toString(); }
};

Q_DECLARE_METATYPE(TrString)
