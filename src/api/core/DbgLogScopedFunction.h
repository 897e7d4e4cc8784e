#pragma once

#include <ostream>

#include <QString>

// A function's scoped trace entry: its text names class and function
// ("SimpleGroupingCtrl::on_joinTranscoder") and is what the "Enter " and
// "Leave " trace lines print. The text is built only when asked for, so a
// scope whose trace lines are disabled costs two pointers; both texts must
// outlive the object (string literals and Q_FUNC_INFO do).
class DbgLogScopedFunction
{
public:
    DbgLogScopedFunction(const char* signature, const char* classTag);

    QString text() const;

private:
    const char* m_signature;
    const char* m_classTag;
};

std::ostream& operator<<(std::ostream& out, const DbgLogScopedFunction& scope);

// Opens a scoped entry for the function whose full signature (Q_FUNC_INFO) is
// given, under the class tag the caller chooses.
DbgLogScopedFunction dbglog_scopedFunction(const char* signature, const char* classTag);
