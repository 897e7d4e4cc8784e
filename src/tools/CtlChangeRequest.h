#pragma once

#include <functional>

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include "CtlContext.h"
#include "CtlEvent.h"
#include "CtlExitCode.h"
#include "TarvSystemMember.h"

// A request asking the device for a change (join, leave, save, and the
// list's actions), and the wait until the change shows: the host's answer
// only says that the request was taken, the module checks it later.
class CtlChangeRequest
{
public:
    // What a request asking the device for a change should bring: the
    // event that shows it, and the line printed when it came. A device
    // reached through another host sends no events; then `read` is read
    // again and again, and the change has come when the `part` of its
    // answer differs from before the request and `holds`.
    struct Expectation
    {
        std::function<bool(const CtlEvent&)> arrived;
        std::function<CtlReply(CtlClient&)> read;
        std::function<QJsonValue(const QJsonObject&)> part;
        std::function<bool(const QJsonValue&)> holds;
        QString done;
    };
    // How often a device reached through another host is read while waiting.
    static int pollIntervalMs() { return 100; }
    // Given this device's id and the master it follows now (empty when its
    // own row names none), what to wait for.
    using Expect = std::function<Expectation(const QString& ownId, const TarvSystemMember& master)>;

    explicit CtlChangeRequest(CtlContext& context);

    // Runs `act`. With --no-wait its answer is printed at once through
    // `readable`. Otherwise the host's events are followed (with --device:
    // the device is read every pollIntervalMs()), up to --timeout-ms, until
    // the expected change shows: then its `done` line is printed (the
    // answer's JSON with --json); without it the run ends with "no change:
    // the device refused (see its log)" (exit 1).
    CtlExitCode::Enum run(const std::function<CtlReply()>& act, const Expect& expect,
                          const std::function<QString(const QJsonObject&)>& readable);

    // A join: this device's own row of /grouping/members comes to name
    // `masterId` as its master ("joined NAME").
    static Expect joining(const QString& masterId, const QString& name);
    // A leave: the own row comes to name the device itself ("left NAME" of
    // the master it followed).
    static Expect leaving();
    // A save: this device's saved group comes to be `name` with `ids` and
    // the device itself ("saved NAME"), or, when `ids` names nobody else,
    // comes to be cleared ("cleared the saved group").
    static Expect saving(const QString& name, const QStringList& ids);

    // A device's name, or its id when it has none.
    static QString nameOf(const TarvSystemMember& member);

private:
    // The wait by reading, for a device the host forwards to.
    CtlExitCode::Enum pollFor(const std::function<CtlReply()>& act, const Expectation& expected, int waitMs);
    CtlExitCode::Enum noChange(int waitMs);
    // This device's id, and the master its own row of /grouping/members
    // names. False when the host could not tell; the failure is printed and
    // its exit code put in `exitCode`.
    bool readOwnGrouping(QString* ownId, TarvSystemMember* master, CtlExitCode::Enum* exitCode);

    CtlContext& m_context;
};
