#include "DbgLogScopedFunction.h"

#include "TarvLog.h"

namespace {

// "void A::b(const C&) const" -> "b"; "A::A(int)" -> "A".
QString functionName(const char* signature)
{
    QString text = QString::fromLatin1(signature);
    const int paren = text.indexOf(QLatin1Char('('));
    if (paren >= 0)
        text.truncate(paren);
    const int scope = text.lastIndexOf(QLatin1String("::"));
    if (scope >= 0)
        return text.mid(scope + 2);
    const int space = text.lastIndexOf(QLatin1Char(' '));
    return space >= 0 ? text.mid(space + 1) : text;
}

} // namespace

DbgLogScopedFunction::DbgLogScopedFunction(const char* signature, const char* classTag)
    : m_signature(signature)
    , m_classTag(classTag)
{
}

QString DbgLogScopedFunction::text() const
{
    return QString::fromLatin1(m_classTag) + QLatin1String("::") + functionName(m_signature);
}

std::ostream& operator<<(std::ostream& out, const DbgLogScopedFunction& scope)
{
    return out << scope.text();
}

DbgLogScopedFunction dbglog_scopedFunction(const char* signature, const char* classTag)
{
    return DbgLogScopedFunction(signature, classTag);
}
