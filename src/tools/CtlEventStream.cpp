#include "CtlEventStream.h"

CtlEventStream::CtlEventStream(int maxLineBytes)
    : m_maxLineBytes(maxLineBytes)
{
}

QList<CtlEvent> CtlEventStream::feed(const QByteArray& bytes)
{
    QList<CtlEvent> events;
    int start = 0;
    while (start < bytes.size()) {
        const int end = bytes.indexOf('\n', start);
        const int stop = end < 0 ? bytes.size() : end;
        if (!m_skippingLine) {
            m_line.append(bytes.constData() + start, stop - start);
            if (m_line.size() > m_maxLineBytes) {
                m_line.clear();
                m_skippingLine = true;
                ++m_droppedLines;
            }
        }
        if (end < 0)
            break;
        if (m_skippingLine) {
            // The rest of an over-long line ends here; the event it belonged
            // to is incomplete and must not be delivered half.
            m_skippingLine = false;
            m_data.clear();
            m_hasData = false;
        } else {
            takeLine(m_line, events);
        }
        m_line.clear();
        start = end + 1;
    }
    return events;
}

void CtlEventStream::takeLine(QByteArray line, QList<CtlEvent>& events)
{
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty()) {
        if (m_hasData) {
            CtlEvent event;
            event.name = m_name.isEmpty() ? QStringLiteral("message") : m_name;
            event.data = m_data;
            events.append(event);
        }
        m_name.clear();
        m_data.clear();
        m_hasData = false;
        return;
    }
    if (line.startsWith(':'))
        return;
    const int colon = line.indexOf(':');
    const QByteArray field = colon < 0 ? line : line.left(colon);
    QByteArray value = colon < 0 ? QByteArray() : line.mid(colon + 1);
    if (value.startsWith(' '))
        value.remove(0, 1);
    if (field == "event") {
        m_name = QString::fromUtf8(value);
    } else if (field == "data") {
        if (m_hasData)
            m_data.append('\n');
        m_data.append(value);
        m_hasData = true;
    }
}
