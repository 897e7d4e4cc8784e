#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include "CtlEvent.h"

// Readable text for what the control API answers. Every function accepts
// any JSON at all: fields of the wrong type or missing show as empty, never
// as a crash. Multi-line results end without a newline.
class CtlFormatter
{
public:
    // `host`: one "key: value" line per field.
    static QString host(const QJsonObject& answer);
    // The single view of a value: a string as itself, a number as a number,
    // a record as indented JSON; "(no value)" for an empty value.
    static QString value(const QJsonValue& value);
    // One line describing a value, at most `maxChars` long, e.g.
    // "follower dev2 -> master dev1" for a grouping member.
    static QString summary(const QJsonValue& value, int maxChars = 80);
    // A row type as number and name, e.g. "101 member".
    static QString rowType(const QJsonValue& type);
    // `rows`: a heading line (path, title, row count, whether the list is
    // still loading), then a table of id, type, title and value.
    static QString rows(const QJsonObject& answer);
    // `ui`: the grouping list (/ui/grouping) as a user sees it: its title,
    // then one line per row in the list's order. A transcoder shows as its
    // name and id, the one this device follows marked with ">" and
    // "following"; other rows (the followers view) as their text.
    static QString groupingView(const QJsonObject& answer);
    // A transcoder row of the grouping list: the device's name (its title
    // without the list's "   >   " mark), and whether it is the transcoder
    // this device follows (its row leads to the leave action).
    static QString transcoderName(const QJsonObject& row);
    static bool isFollowedTranscoder(const QJsonObject& row);
    // `status --json`: this device and the LAN from the answers of
    // /api/v1/host and the rows of /system/members and /grouping/members:
    // {"id", "name", "role", "master": {"id", "name"}, "followers": [...],
    //  "savedGroup": [...], "devices": [{"id", "name", "host", "ipAddress",
    //  "role", "savedGroup"}]}, every device named as {"id", "name"}. A role
    // is "transcoder", "receiver", or "" when the device is not listed.
    static QJsonObject statusOf(const QJsonObject& host, const QJsonObject& members, const QJsonObject& grouping);
    // `status`: the same, readable on one screen; with "savedGroupName"
    // (the name of this device's saved group) the saved group is named.
    static QString status(const QJsonObject& status);
    // `tree`: every node with kind, title and rows, then the value paths.
    static QString tree(const QJsonObject& answer);
    // One line for an event of the stream; `wellFormed` (when given) tells
    // whether its data was the JSON the API promises.
    static QString event(const CtlEvent& event, bool* wellFormed = nullptr);
    // The path an event is about; empty when its data names none.
    static QString eventPath(const CtlEvent& event);
    // A host's message with the hints it gives to HTTP clients ("read it
    // with GET /api/v1/rows?path=P") told as the tarvctl command that does
    // it ("read it with tarvctl rows P").
    static QString toolHints(const QString& message);
    // `text` safe for a terminal: control characters other than newline and
    // tab (escape sequences among them) shown as \uXXXX. Names and messages
    // come from other devices and must not drive the user's terminal.
    static QString printable(const QString& text);

private:
    static QString table(const QJsonArray& rows, const QString& indent);
    static QString rowLine(const QJsonValue& row);
};
