#include "TrString.h"

#include "TarvLog.h"

namespace {
const QChar contextSeparator(0x04);
}

QString trExtractContext(const char* literal)
{
    const QString text = QString::fromUtf8(literal);
    const int separator = text.indexOf(contextSeparator);
    return separator < 0 ? QString() : text.left(separator);
}

TrString::TrString(const char* literal)
{
    const QString text = QString::fromUtf8(literal);
    const int separator = text.indexOf(contextSeparator);
    m_source.context = separator < 0 ? QString() : text.left(separator);
    m_source.text = separator < 0 ? text : text.mid(separator + 1);
}

TrString::TrString(const QString& text)
{
    m_source.text = text;
}

TrString::TrString(const TrCharData& format, const QList<TrArg>& args)
    : m_source(format), m_args(args)
{
}

QString TrString::toString() const
{
    QString result = m_source.text;
    for (const TrArg& arg : m_args)
        result = result.arg(arg.value(), arg.fieldWidth(), arg.fill());
    return result;
}

bool TrString::operator==(const TrString& other) const
{
    return m_source.context == other.m_source.context && m_source.text == other.m_source.text
        && m_args == other.m_args;
}

std::ostream& operator<<(std::ostream& out, const TrString& text)
{
    return out << text.toString();
}
