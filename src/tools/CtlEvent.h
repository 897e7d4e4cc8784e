#pragma once

#include <QByteArray>
#include <QString>

// One server-sent event as it came off the stream: its name ("message"
// when the stream named none) and its data lines joined with "\n".
struct CtlEvent
{
    QString name;
    QByteArray data;

    bool operator==(const CtlEvent& other) const { return name == other.name && data == other.data; }
};
