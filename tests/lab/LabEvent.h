#pragma once

#include <QJsonObject>
#include <QString>

// One event of a device's event stream, stamped with the wall-clock time at
// which it arrived here (milliseconds since the epoch, comparable with the
// times in the devices' logs).
struct LabEvent {
    QString name;          // "value" or "rows"
    QJsonObject data;      // {"path","value"} or {"path","new","old"}
    qint64 receivedMs = 0;
    qint64 receivedUs = 0; // steady clock, microseconds, for latencies (LabEventStream::steadyUs)

    QString path() const { return data.value(QStringLiteral("path")).toString(); }
    QJsonObject newRow() const { return data.value(QStringLiteral("new")).toObject(); }
    QJsonObject oldRow() const { return data.value(QStringLiteral("old")).toObject(); }
};
