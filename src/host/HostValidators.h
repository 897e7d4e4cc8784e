#pragma once

#include <QString>
#include <QVariant>

#include "CMRootWorker.h"

// The checks behind the host's values: each validator refuses a value of the
// wrong shape with a message that names the path, says what it takes and
// shows what it got. Also used for command-line and persisted input.
class HostValidators
{
public:
    static constexpr int MinMilliseconds = 1;
    static constexpr int MaxMilliseconds = 3600000;
    static constexpr int MaxNameLength = 64;
    static constexpr int MaxIdLength = 128;
    static constexpr int MaxGroupMembers = 64;

    // Empty when acceptable, else the reason.
    static QString checkDeviceName(const QString& name);
    static QString checkDeviceId(const QString& id);
    static QString checkMilliseconds(qint64 ms);

    // A whole number held as any numeric variant (JSON numbers arrive as
    // doubles); false for anything else, fractions included.
    static bool toInteger(const QVariant& value, qint64* result);
    // Compact JSON of a value for messages, cut to a readable length.
    static QString describe(const QVariant& value);

    // {"i32_": ms} with ms in [MinMilliseconds, MaxMilliseconds].
    static CMRootWorker::Validator milliseconds(const CMPath& path);
    // {"string_": name} with a valid device name.
    static CMRootWorker::Validator deviceName(const CMPath& path);
    // {"groupingPersistentGroup": {name?, members?, timestamp?}}.
    static CMRootWorker::Validator persistentGroup(const CMPath& path);
    // {} or {"systemMemberTranscoderState": {id?, type: 0|1|2}}.
    static CMRootWorker::Validator deviceState(const CMPath& path);
    // {"state": integer, ...}.
    static CMRootWorker::Validator playerData(const CMPath& path);
    // Refuses every write, saying why.
    static CMRootWorker::Validator readOnly(const CMPath& path, const QString& why);
};
