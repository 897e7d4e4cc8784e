#include "LabLog.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QFile>
#include <QRegularExpression>
#include <QThread>

LabLog::LabLog(const QString& path)
    : m_path(path)
{
}

int LabLog::mark()
{
    refresh();
    return m_entries.size();
}

int LabLog::refresh()
{
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    if (file.size() < m_offset) {
        // A new file under the same name: start over.
        m_offset = 0;
        m_partial.clear();
    }
    file.seek(m_offset);
    QByteArray data = m_partial + file.readAll();
    m_offset = file.pos();
    const int lastBreak = data.lastIndexOf('\n');
    m_partial = data.mid(lastBreak + 1);
    data.truncate(lastBreak + 1);

    static const QRegularExpression head(
        QStringLiteral("^(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}) (TRACE|DEBUG|INFO|WARN|ERROR|FATAL) +(\\S+) \\[[^\\]]*\\] (.*)$"));
    const int before = m_entries.size();
    for (const QByteArray& raw : data.split('\n')) {
        const QString line = QString::fromUtf8(raw);
        const QRegularExpressionMatch match = head.match(line);
        if (match.hasMatch()) {
            Entry entry;
            entry.timeMs = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")).toMSecsSinceEpoch();
            entry.level = match.captured(2);
            entry.logger = match.captured(3);
            entry.message = match.captured(4);
            m_entries.append(entry);
        } else if (!m_entries.isEmpty() && !raw.isEmpty()) {
            m_entries.last().message += QLatin1Char('\n') + line;
        }
    }
    return m_entries.size() - before;
}

QList<LabLog::Entry> LabLog::find(const QString& level, const QString& logger, const QString& prefix, int from) const
{
    QList<Entry> found;
    for (int i = qMax(0, from); i < m_entries.size(); ++i) {
        const Entry& entry = m_entries.at(i);
        if ((level.isEmpty() || entry.level == level) && (logger.isEmpty() || entry.logger == logger)
            && entry.message.startsWith(prefix))
            found.append(entry);
    }
    return found;
}

int LabLog::count(const QString& level, const QString& logger, const QString& prefix, int from) const
{
    return find(level, logger, prefix, from).size();
}

bool LabLog::waitForCount(const QString& level, const QString& logger, const QString& prefix, int atLeast,
                          int timeoutMs, int from)
{
    const QDeadlineTimer deadline(timeoutMs);
    int seen = count(level, logger, prefix, from);
    for (;;) {
        if (refresh() > 0)
            seen = count(level, logger, prefix, from);
        if (seen >= atLeast)
            return true;
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::msleep(5);
    }
}

void LabLog::warnTail(const QString& title, int lines)
{
    refresh();
    qWarning("--- %s, last lines ---", qPrintable(title));
    for (int i = qMax(0, m_entries.size() - lines); i < m_entries.size(); ++i)
        qWarning("%s %s %s", qPrintable(m_entries.at(i).level), qPrintable(m_entries.at(i).logger),
                 qPrintable(m_entries.at(i).message.left(300)));
}
