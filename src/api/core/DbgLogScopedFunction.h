#pragma once

#include <ostream>

#include <QString>

// A function's scoped trace entry: its text names class and function
// ("SimpleGroupingCtrl::on_joinTranscoder") and is what the "Enter " and
// "Leave " trace lines print.
class DbgLogScopedFunction
{
public:
    DbgLogScopedFunction(const char* signature, const char* classTag);

    const QString& text() const { return m_text; }

private:
    QString m_text;
};

std::ostream& operator<<(std::ostream& out, const DbgLogScopedFunction& scope);

// Opens a scoped entry for the function whose full signature (Q_FUNC_INFO) is
// given, under the class tag the caller chooses.
DbgLogScopedFunction dbglog_scopedFunction(const char* signature, const char* classTag);
