#include "CtlFormatter.h"

#include <QHash>
#include <QJsonArray>
#include <QRegularExpression>
#include <QStringList>

#include "TarvEnums.h"
#include "TarvJson.h"
#include "TarvPaths.h"
#include "TarvValue.h"


namespace {

QString elide(const QString& text, int maxChars)
{
    if (maxChars <= 3 || text.size() <= maxChars)
        return text;
    return text.left(maxChars - 3) + QStringLiteral("...");
}

// A field shown as text whatever its JSON type.
QString text(const QJsonValue& value)
{
    if (value.isString())
        return value.toString();
    if (value.isUndefined() || value.isNull())
        return QString();
    if (value.isDouble()) {
        const double number = value.toDouble();
        if (number == qint64(number))
            return QString::number(qint64(number));
        return QString::number(number);
    }
    return TarvJson::toText(value);
}

TarvValue toValue(const QJsonValue& value)
{
    return TarvValue(TarvJson::toVariant(value).toHash());
}

QString memberName(const TarvSystemMember& member)
{
    if (!member.name().isEmpty())
        return member.name();
    if (!member.id().isEmpty())
        return member.id();
    return QStringLiteral("?");
}

QString memberSummary(const TarvSystemMember& member)
{
    QString line = memberName(member);
    if (!member.host().isEmpty())
        line += QStringLiteral(" on ") + member.host();
    if (!member.ipAddress().isEmpty())
        line += QStringLiteral(" (%1)").arg(member.ipAddress());
    line += member.transcoder() ? QStringLiteral(", transcoder") : QStringLiteral(", receiver");
    return line;
}

QJsonObject idAndName(const QString& id, const QString& name)
{
    QJsonObject object;
    object.insert(QStringLiteral("id"), id);
    object.insert(QStringLiteral("name"), name);
    return object;
}

// "NAME [ID]", or the id alone when no name is known.
QString named(const QJsonValue& device)
{
    const QString id = text(device.toObject().value(QStringLiteral("id")));
    const QString name = text(device.toObject().value(QStringLiteral("name")));
    return name.isEmpty() || name == id ? id : QStringLiteral("%1 [%2]").arg(name, id);
}

QString namedList(const QJsonValue& devices)
{
    QStringList names;
    for (const QJsonValue& device : devices.toArray())
        names.append(named(device));
    return names.isEmpty() ? QStringLiteral("none") : names.join(QStringLiteral(", "));
}

QString pad(const QString& cell, int width)
{
    return cell.leftJustified(width, QLatin1Char(' '));
}

// Lines of four cells each, the first three padded to line up, trailing
// blanks dropped.
QStringList aligned(const QList<QStringList>& cells, const QString& indent)
{
    int widths[3] = {0, 0, 0};
    for (const QStringList& line : cells) {
        for (int column = 0; column < 3; ++column)
            widths[column] = qMax(widths[column], line.at(column).size());
    }
    QStringList lines;
    for (const QStringList& line : cells) {
        QString out = indent;
        for (int column = 0; column < 3; ++column)
            out += pad(line.at(column), widths[column]) + QStringLiteral("  ");
        out += line.at(3);
        while (out.endsWith(QLatin1Char(' ')))
            out.chop(1);
        lines.append(out);
    }
    return lines;
}

} // namespace

QString CtlFormatter::host(const QJsonObject& answer)
{
    static const QList<QPair<QString, QString>> fields{
        {QStringLiteral("id"), QStringLiteral("id")},
        {QStringLiteral("name"), QStringLiteral("name")},
        {QStringLiteral("host"), QStringLiteral("host")},
        {QStringLiteral("address"), QStringLiteral("address")},
        {QStringLiteral("requestPort"), QStringLiteral("request port")},
        {QStringLiteral("version"), QStringLiteral("version")},
    };
    QStringList lines;
    for (const auto& field : fields)
        lines.append(pad(field.second + QLatin1Char(':'), 14) + text(answer.value(field.first)));
    // Fields a newer host adds still show.
    QStringList extra = answer.keys();
    for (const auto& field : fields)
        extra.removeAll(field.first);
    for (const QString& key : extra)
        lines.append(pad(key + QLatin1Char(':'), 14) + text(answer.value(key)));
    return lines.join(QLatin1Char('\n'));
}

QString CtlFormatter::value(const QJsonValue& value)
{
    if (value.isString())
        return value.toString();
    if (!value.isObject())
        return TarvJson::toText(value, true);
    const QJsonObject object = value.toObject();
    if (object.isEmpty())
        return QStringLiteral("(no value)");
    if (object.size() == 1) {
        const QJsonValue view = object.begin().value();
        if (object.contains(TarvValue::String_()) && view.isString())
            return view.toString();
        if (object.contains(TarvValue::I32_()) && view.isDouble())
            return text(view);
        if (view.isObject())
            return TarvJson::toText(view, true);
    }
    return TarvJson::toText(value, true);
}

QString CtlFormatter::summary(const QJsonValue& json, int maxChars)
{
    if (!json.isObject())
        return elide(text(json), maxChars);
    const QJsonObject object = json.toObject();
    if (object.isEmpty())
        return QString();
    QString line;
    if (object.size() == 1) {
        const TarvValue value = toValue(json);
        const QJsonValue view = object.begin().value();
        if (object.contains(TarvValue::String_()) && view.isString()) {
            line = view.toString();
        } else if (object.contains(TarvValue::I32_()) && view.isDouble()) {
            line = text(view);
        } else if (!view.isObject()) {
            line = TarvJson::toText(json);
        } else if (object.contains(TarvValue::GroupingMember())) {
            const TarvGroupingMember member = value.groupingMember();
            line = QStringLiteral("follower %1 -> master %2")
                       .arg(memberName(member.follower()), memberName(member.master()));
        } else if (object.contains(TarvValue::SystemMember())) {
            line = memberSummary(value.systemMember());
        } else if (object.contains(TarvValue::GroupingRequest())) {
            const TarvGroupingRequest request = value.groupingRequest();
            // A number, not the enum: a host may show any command it was sent.
            const int command = request.hash().value(TarvGroupingRequest::Command()).toInt();
            if (command == TarvGroupingRequestCommand::Join)
                line = QStringLiteral("join ") + memberName(request.master());
            else if (command == TarvGroupingRequestCommand::Leave)
                line = QStringLiteral("leave");
            else
                line = QStringLiteral("command %1").arg(command);
        } else if (object.contains(TarvValue::GroupingPersistentGroup())) {
            const TarvGroupingPersistentGroup group = value.groupingPersistentGroup();
            line = QStringLiteral("group '%1', %2 member(s)").arg(group.name()).arg(group.members().size());
        } else if (object.contains(TarvValue::SystemMemberTranscoderState())) {
            const TarvSystemMemberTranscoderState state = value.systemMemberTranscoderState();
            if (state.type() == TarvTranscoderState::Transcoder)
                line = QStringLiteral("transcoder");
            else if (state.type() == TarvTranscoderState::Receiver)
                line = QStringLiteral("receiver");
            else
                line = QStringLiteral("state %1").arg(int(state.type()));
            if (!state.id().isEmpty())
                line += QStringLiteral(" (%1)").arg(state.id());
        } else {
            line = TarvJson::toText(json);
        }
    } else {
        line = TarvJson::toText(json);
    }
    return elide(line, maxChars);
}

QString CtlFormatter::rowType(const QJsonValue& type)
{
    if (!type.isDouble())
        return text(type);
    const int number = type.toInt();
    QString name;
    switch (number) {
    case TarvRolesType::Path:
        name = QStringLiteral("path");
        break;
    case TarvRolesType::Follower:
        name = QStringLiteral("follower");
        break;
    case TarvRolesType::GroupingMember:
        name = QStringLiteral("member");
        break;
    case TarvRolesType::GroupingTranscoder:
        name = QStringLiteral("transcoder");
        break;
    default:
        break;
    }
    return name.isEmpty() ? QString::number(number) : QStringLiteral("%1 %2").arg(number).arg(name);
}

QString CtlFormatter::rowLine(const QJsonValue& row)
{
    if (!row.isObject())
        return QStringLiteral("(not a row: %1)").arg(elide(TarvJson::toText(row), 60));
    const QJsonObject object = row.toObject();
    QString line = summary(object.value(QStringLiteral("value")));
    const QString path = text(object.value(QStringLiteral("path")));
    if (line.isEmpty() && !path.isEmpty())
        line = QStringLiteral("-> ") + path;
    return line;
}

QString CtlFormatter::table(const QJsonArray& rows, const QString& indent)
{
    const int maxCell = 40;
    QList<QStringList> cells;
    cells.append({QStringLiteral("ID"), QStringLiteral("TYPE"), QStringLiteral("TITLE"), QStringLiteral("VALUE")});
    for (const QJsonValue& row : rows) {
        const QJsonObject object = row.toObject();
        // Escaped before the widths are taken, so that the columns line up.
        cells.append({printable(elide(text(object.value(QStringLiteral("id"))), maxCell)),
                      printable(rowType(object.value(QStringLiteral("type")))),
                      printable(elide(text(object.value(QStringLiteral("title"))), maxCell)), rowLine(row)});
    }
    return aligned(cells, indent).join(QLatin1Char('\n'));
}

QString CtlFormatter::rows(const QJsonObject& answer)
{
    const QJsonArray rows = answer.value(QStringLiteral("rows")).toArray();
    const QString title = text(answer.value(QStringLiteral("title")));
    QString heading = text(answer.value(QStringLiteral("path")));
    if (!title.isEmpty())
        heading += QStringLiteral(" \"%1\"").arg(title);
    heading += rows.size() == 1 ? QStringLiteral(": 1 row") : QStringLiteral(": %1 rows").arg(rows.size());
    if (answer.value(QStringLiteral("loading")).toBool())
        heading += QStringLiteral(" (still loading)");
    if (rows.isEmpty())
        return heading;
    return heading + QLatin1Char('\n') + table(rows, QString());
}

QJsonObject CtlFormatter::statusOf(const QJsonObject& host, const QJsonObject& members, const QJsonObject& grouping)
{
    const QString ownId = text(host.value(QStringLiteral("id")));
    QList<TarvSystemMember> devices;
    QHash<QString, QString> names;
    for (const QJsonValue& row : members.value(QStringLiteral("rows")).toArray()) {
        TarvSystemMember device = toValue(row.toObject().value(QStringLiteral("value"))).systemMember();
        if (device.id().isEmpty())
            device.setId(text(row.toObject().value(QStringLiteral("id"))));
        devices.append(device);
        names.insert(device.id(), device.name());
    }
    const auto role = [](const TarvSystemMember& device) {
        return device.transcoder() ? QStringLiteral("transcoder") : QStringLiteral("receiver");
    };
    const auto savedGroup = [&names](const TarvSystemMember& device) {
        QJsonArray group;
        for (const QString& id : device.persistentGroupMembers())
            group.append(idAndName(id, names.value(id)));
        return group;
    };

    QJsonObject status;
    status.insert(QStringLiteral("id"), ownId);
    status.insert(QStringLiteral("name"), text(host.value(QStringLiteral("name"))));
    status.insert(QStringLiteral("role"), QString());
    status.insert(QStringLiteral("savedGroup"), QJsonArray());
    QJsonArray listed;
    for (const TarvSystemMember& device : devices) {
        QJsonObject entry = idAndName(device.id(), device.name());
        entry.insert(QStringLiteral("host"), device.host());
        entry.insert(QStringLiteral("ipAddress"), device.ipAddress());
        entry.insert(QStringLiteral("role"), role(device));
        entry.insert(QStringLiteral("savedGroup"), savedGroup(device));
        listed.append(entry);
        if (device.id() == ownId) {
            status.insert(QStringLiteral("role"), role(device));
            status.insert(QStringLiteral("savedGroup"), savedGroup(device));
        }
    }
    QJsonValue master = QJsonValue::Null;
    QJsonArray followers;
    for (const QJsonValue& row : grouping.value(QStringLiteral("rows")).toArray()) {
        const TarvGroupingMember member = toValue(row.toObject().value(QStringLiteral("value"))).groupingMember();
        const QString id = text(row.toObject().value(QStringLiteral("id")));
        if (id == ownId)
            master = idAndName(member.master().id(), member.master().name());
        else
            followers.append(idAndName(id, member.follower().name()));
    }
    status.insert(QStringLiteral("master"), master);
    status.insert(QStringLiteral("followers"), followers);
    status.insert(QStringLiteral("devices"), listed);
    return status;
}

QString CtlFormatter::status(const QJsonObject& status)
{
    const QString ownId = text(status.value(QStringLiteral("id")));
    const QString role = text(status.value(QStringLiteral("role")));
    const QJsonValue master = status.value(QStringLiteral("master"));
    QString masterLine = QStringLiteral("none");
    if (master.isObject())
        masterLine = text(master.toObject().value(QStringLiteral("id"))) == ownId ? QStringLiteral("itself")
                                                                                   : named(master);
    const QJsonArray savedGroup = status.value(QStringLiteral("savedGroup")).toArray();
    const QString savedGroupName = text(status.value(QStringLiteral("savedGroupName")));
    QString savedGroupLine = namedList(savedGroup);
    if (!savedGroup.isEmpty() && !savedGroupName.isEmpty())
        savedGroupLine = QStringLiteral("\"%1\": %2").arg(savedGroupName, savedGroupLine);
    QStringList lines{
        QStringLiteral("This device: ") + named(status),
        QStringLiteral("  role:         ") + (role.isEmpty() ? QStringLiteral("not listed yet") : role),
        QStringLiteral("  master:       ") + masterLine,
        QStringLiteral("  followers:    ") + namedList(status.value(QStringLiteral("followers"))),
        QStringLiteral("  saved group:  ") + savedGroupLine,
    };
    const QJsonArray devices = status.value(QStringLiteral("devices")).toArray();
    lines.append(QStringLiteral("Devices on the LAN: %1").arg(devices.size()));
    QList<QStringList> cells;
    for (const QJsonValue& device : devices) {
        const QJsonObject object = device.toObject();
        const QString id = text(object.value(QStringLiteral("id")));
        const QJsonArray group = object.value(QStringLiteral("savedGroup")).toArray();
        QString notes = id == ownId ? QStringLiteral("this device") : QString();
        if (!group.isEmpty())
            notes += (notes.isEmpty() ? QString() : QStringLiteral(", ")) + QStringLiteral("saved group: ")
                + namedList(group);
        cells.append({text(object.value(QStringLiteral("name"))), QLatin1Char('[') + id + QLatin1Char(']'),
                      text(object.value(QStringLiteral("role"))), notes});
    }
    lines.append(aligned(cells, QStringLiteral("  ")));
    return lines.join(QLatin1Char('\n'));
}

QString CtlFormatter::toolHints(const QString& message)
{
    static const QRegularExpression rowsHint(QStringLiteral("read it with GET /api/v1/rows\\?path=(\\S+)"));
    static const QRegularExpression valueHint(QStringLiteral("read it with GET /api/v1/value\\?path=(\\S+)"));
    QString text = message;
    text.replace(rowsHint, QStringLiteral("read it with tarvctl rows \\1"));
    text.replace(valueHint, QStringLiteral("read it with tarvctl get \\1"));
    return text;
}

QString CtlFormatter::transcoderName(const QJsonObject& row)
{
    // The list marks the followed transcoder by a prefix of its title.
    static const QString followedMark = QStringLiteral("   >   ");
    const QString title = text(row.value(QStringLiteral("title")));
    return isFollowedTranscoder(row) && title.startsWith(followedMark) ? title.mid(followedMark.size()) : title;
}

bool CtlFormatter::isFollowedTranscoder(const QJsonObject& row)
{
    return text(row.value(QStringLiteral("path"))) == TarvGroupingUILeavePath().toString();
}

QString CtlFormatter::groupingView(const QJsonObject& answer)
{
    const QJsonArray rows = answer.value(QStringLiteral("rows")).toArray();
    QString title = text(answer.value(QStringLiteral("title")));
    if (title.isEmpty())
        title = QStringLiteral("(untitled list)");
    // Escaped before the widths are taken, so that the ids line up.
    int nameWidth = 0;
    for (const QJsonValue& row : rows) {
        const QJsonObject object = row.toObject();
        if (object.value(QStringLiteral("type")).toInt() == TarvRolesType::GroupingTranscoder)
            nameWidth = qMax(nameWidth, printable(transcoderName(object)).size());
    }
    QStringList lines{title};
    for (const QJsonValue& row : rows) {
        const QJsonObject object = row.toObject();
        if (object.value(QStringLiteral("type")).toInt() != TarvRolesType::GroupingTranscoder) {
            lines.append(QStringLiteral("    ") + text(object.value(QStringLiteral("title"))));
            continue;
        }
        const bool followed = isFollowedTranscoder(object);
        QString line = (followed ? QStringLiteral("  > ") : QStringLiteral("    "))
            + pad(printable(transcoderName(object)), nameWidth) + QStringLiteral("  [")
            + text(object.value(QStringLiteral("id"))) + QLatin1Char(']');
        if (followed)
            line += QStringLiteral("  following");
        lines.append(line);
    }
    if (rows.isEmpty())
        lines.append(QStringLiteral("    (no transcoder to join)"));
    return lines.join(QLatin1Char('\n'));
}

QString CtlFormatter::tree(const QJsonObject& answer)
{
    const QJsonValue nodesValue = answer.value(QStringLiteral("nodes"));
    const QJsonValue valuesValue = answer.value(QStringLiteral("values"));
    if (!nodesValue.isArray() && !valuesValue.isArray())
        return TarvJson::toText(answer, true);

    QStringList lines;
    const QJsonArray nodes = nodesValue.toArray();
    lines.append(QStringLiteral("nodes (%1):").arg(nodes.size()));
    for (const QJsonValue& nodeValue : nodes) {
        const QJsonObject node = nodeValue.toObject();
        QString line = QStringLiteral("  ") + text(node.value(QStringLiteral("path")));
        const QString kind = text(node.value(QStringLiteral("kind")));
        if (!kind.isEmpty())
            line += QStringLiteral("  [%1]").arg(kind);
        const QString title = text(node.value(QStringLiteral("title")));
        if (!title.isEmpty())
            line += QStringLiteral("  \"%1\"").arg(title);
        const QJsonValue rowsValue = node.value(QStringLiteral("rows"));
        const QJsonArray rows = rowsValue.toArray();
        if (rowsValue.isArray())
            line += rows.size() == 1 ? QStringLiteral("  1 row") : QStringLiteral("  %1 rows").arg(rows.size());
        if (node.value(QStringLiteral("loading")).toBool())
            line += QStringLiteral(" (still loading)");
        lines.append(line);
        if (!rows.isEmpty())
            lines.append(table(rows, QStringLiteral("      ")));
    }
    const QJsonArray values = valuesValue.toArray();
    lines.append(QStringLiteral("values (%1):").arg(values.size()));
    for (const QJsonValue& entry : values) {
        if (entry.isObject()) {
            const QJsonObject object = entry.toObject();
            QString line = QStringLiteral("  ") + text(object.value(QStringLiteral("path")));
            if (object.contains(QStringLiteral("value")))
                line += QStringLiteral(" = ") + summary(object.value(QStringLiteral("value")));
            lines.append(line);
        } else {
            lines.append(QStringLiteral("  ") + text(entry));
        }
    }
    return lines.join(QLatin1Char('\n'));
}

QString CtlFormatter::eventPath(const CtlEvent& event)
{
    QJsonValue data;
    if (!TarvJson::parseValue(event.data, &data, nullptr))
        return QString();
    const QJsonValue path = data.toObject().value(QStringLiteral("path"));
    return path.isString() ? path.toString() : QString();
}

QString CtlFormatter::event(const CtlEvent& event, bool* wellFormed)
{
    QJsonValue data;
    const bool parsed = TarvJson::parseValue(event.data, &data, nullptr) && data.isObject();
    if (wellFormed)
        *wellFormed = parsed;
    if (!parsed) {
        QString shown = QString::fromUtf8(event.data.left(200)).simplified();
        return QStringLiteral("%1 (malformed data: %2)").arg(event.name, elide(shown, 80));
    }
    const QJsonObject object = data.toObject();
    const QString path = text(object.value(QStringLiteral("path")));
    if (event.name == QLatin1String("value"))
        return QStringLiteral("value %1 = %2").arg(path, summary(object.value(QStringLiteral("value")), 200));
    if (event.name == QLatin1String("rows")) {
        const QJsonValue newRows = object.value(QStringLiteral("new"));
        const QJsonValue oldRows = object.value(QStringLiteral("old"));
        if (newRows.isArray() || oldRows.isArray()) {
            return QStringLiteral("rows %1: %2 rows (were %3)")
                .arg(path)
                .arg(newRows.toArray().size())
                .arg(oldRows.toArray().size());
        }
        const QJsonObject newRow = newRows.toObject();
        const QJsonObject oldRow = oldRows.toObject();
        if (newRow.isEmpty() && oldRow.isEmpty())
            return QStringLiteral("rows %1 changed").arg(path);
        if (newRow.isEmpty())
            return QStringLiteral("rows %1 removed %2").arg(path, text(oldRow.value(QStringLiteral("id"))));
        QString line = QStringLiteral("rows %1 %2 %3")
                           .arg(path, oldRow.isEmpty() ? QStringLiteral("added") : QStringLiteral("changed"),
                                text(newRow.value(QStringLiteral("id"))));
        const QString shown = rowLine(newRow);
        if (!shown.isEmpty())
            line += QStringLiteral(": ") + shown;
        return line;
    }
    return QStringLiteral("%1 %2").arg(event.name, TarvJson::toText(data));
}

QString CtlFormatter::printable(const QString& text)
{
    QString shown;
    shown.reserve(text.size());
    for (const QChar c : text) {
        if (c.category() == QChar::Other_Control && c != QLatin1Char('\n') && c != QLatin1Char('\t'))
            shown += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        else
            shown += c;
    }
    return shown;
}
