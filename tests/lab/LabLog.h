#pragma once

#include <QList>
#include <QString>

// A lab device's log, read incrementally as the host appends to it. Lines
// follow the lab's layout "yyyy-MM-dd HH:mm:ss.zzz LEVEL logger [where] text";
// lines that do not (a message's own line breaks, other output) are appended
// to the previous entry's text.
class LabLog
{
public:
    struct Entry {
        qint64 timeMs = 0; // wall clock, milliseconds since the epoch
        QString level;     // TRACE, DEBUG, INFO, WARN, ERROR, FATAL
        QString logger;
        QString message;
    };

    explicit LabLog(const QString& path);

    // Reads what was appended since the last call; returns the count of new entries.
    int refresh();
    const QList<Entry>& entries() const { return m_entries; }
    // Reads what the log holds now and returns the index at which entries
    // written from here on will start (the `from` of find() and count()).
    int mark();

    // Entries from index `from` on with this level and logger whose message
    // starts with `prefix` (any level or logger when empty).
    QList<Entry> find(const QString& level, const QString& logger, const QString& prefix, int from = 0) const;
    int count(const QString& level, const QString& logger, const QString& prefix, int from = 0) const;

    // Reads what was appended and prints the last `lines` entries as
    // warnings under a heading naming `title`, for a failed test's output.
    void warnTail(const QString& title, int lines);

    // Waits (bounded) until at least `atLeast` such entries exist.
    bool waitForCount(const QString& level, const QString& logger, const QString& prefix, int atLeast,
                      int timeoutMs, int from = 0);

private:
    QString m_path;
    qint64 m_offset = 0;
    QByteArray m_partial;
    QList<Entry> m_entries;
};
