#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include "CtlEvent.h"

// Incremental parser of a text/event-stream: bytes go in as they arrive, in
// chunks of any size, and complete events come out. Lines end with LF or
// CRLF; comment lines (":...") and fields other than "event" and "data" are
// ignored. A line longer than maxLineBytes is dropped, so a misbehaving
// server cannot grow the buffer without bound.
class CtlEventStream
{
public:
    explicit CtlEventStream(int maxLineBytes = 4 * 1024 * 1024);

    QList<CtlEvent> feed(const QByteArray& bytes);

    // Lines dropped for being too long since construction.
    int droppedLines() const { return m_droppedLines; }

private:
    void takeLine(QByteArray line, QList<CtlEvent>& events);

    int m_maxLineBytes;
    QByteArray m_line;
    bool m_skippingLine = false;
    QString m_name;
    QByteArray m_data;
    bool m_hasData = false;
    int m_droppedLines = 0;
};
