// The grouping UI end to end: three real hosts with the module in the lab,
// driven only through the UI's nodes (/ui/grouping...) of their control
// APIs, as a user's client drives them. dev1 is the transcoder A, dev2 and
// dev3 the devices that join it.

#include <algorithm>
#include <memory>
#include <thread>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QScopedPointer>
#include <QTest>

#include "Lab.h"
#include "LabApi.h"
#include "LabDevices.h"
#include "LabLog.h"

namespace {

constexpr int kResendMs = 300;
constexpr int kTimeoutMs = 2000;
constexpr int kDiscoveryMs = 1000;
// Allowance for a change to reach this process over the control API on a
// busy two-core machine.
constexpr int kDeliveryMs = 1000;

const QString kList = QStringLiteral("/ui/grouping");
const QString kLeave = QStringLiteral("/ui/grouping/leave");
const QString kMembers = QStringLiteral("/grouping/members");
const QString kNotice = QStringLiteral("Can't join playback while having followers!");

QString joinPath(const QString& id)
{
    return QStringLiteral("/ui/grouping/joinTranscoder/") + id;
}

// A row of the UI list as the API shows it: id, type, title and path.
QJsonObject uiRow(const QString& id, int type, const QString& title, const QString& path = QString())
{
    QJsonObject row{{QStringLiteral("id"), id}, {QStringLiteral("type"), type}, {QStringLiteral("title"), title}};
    if (!path.isEmpty())
        row.insert(QStringLiteral("path"), path);
    return row;
}

QJsonObject transcoderRow(const QString& id, const QString& title, const QString& path)
{
    return uiRow(id, 102, title, path);
}

QJsonObject followerRow(const QString& id, const QString& title)
{
    return uiRow(id, 6, title);
}

// What a user sees of a list: its title and its rows reduced to the fields
// above, in id order (the module keeps its views in hash order).
QJsonObject view(const QString& title, QList<QJsonObject> rows)
{
    std::sort(rows.begin(), rows.end(), [](const QJsonObject& a, const QJsonObject& b) {
        return a.value(QStringLiteral("id")).toString() < b.value(QStringLiteral("id")).toString();
    });
    QJsonArray array;
    for (const QJsonObject& row : rows)
        array.append(row);
    return QJsonObject{{QStringLiteral("title"), title}, {QStringLiteral("rows"), array}};
}

QJsonObject viewOf(const QJsonObject& list)
{
    QList<QJsonObject> rows;
    for (const QJsonValue& value : list.value(QStringLiteral("rows")).toArray()) {
        const QJsonObject row = value.toObject();
        QJsonObject shown;
        for (const QString& key : {QStringLiteral("id"), QStringLiteral("type"), QStringLiteral("title"),
                                   QStringLiteral("path")}) {
            if (row.contains(key))
                shown.insert(key, row.value(key));
        }
        rows.append(shown);
    }
    return view(list.value(QStringLiteral("title")).toString(), rows);
}

QString text(const QJsonValue& value)
{
    return QString::fromUtf8(value.isObject() ? QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact)
                                              : QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
}

// The answer to an accepted join or leave.
QJsonObject completionReply()
{
    return QJsonObject{
        {QStringLiteral("xclass"), QStringLiteral("TarvActionReply")},
        {QStringLiteral("result"), QJsonObject{{QStringLiteral("path"), kList}}},
        {QStringLiteral("events"),
         QJsonArray{QJsonObject{{QStringLiteral("path"), kList}, {QStringLiteral("rowsType"), 1}}}},
    };
}

} // namespace

class tst_LabGroupingUI : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void joinThroughTheUiIsAnsweredWithTheCompletionReply();
    void transcoderShowsItsFollowersAndTheTranscodersAgainWhenTheyLeave();
    void secondActivationWithin200msIsRefused_data();
    void secondActivationWithin200msIsRefused();
    void transcoderThatJoinsAnotherDisappearsFromTheOthersLists();

private:
    LabApi& api(int device) { return m_devices.api(device); }
    QString id(int device) const { return m_lab->id(device); }
    QString name(int device) const { return QStringLiteral("dev%1").arg(device); }
    // Activates a UI action of `device` and checks the answer is the
    // completion reply, given no sooner than 200 ms after the request.
    void activateAndExpectCompletion(int device, const QString& path);
    // Waits (bounded) until `device`'s list shows `expected`; false with
    // what it last showed in `seen`.
    bool waitForView(int device, const QJsonObject& expected, int timeoutMs, QString* seen);
    // The list of a lone device: every other device as a joinable transcoder.
    QJsonObject aloneView(int device) const;
    bool restoreBaseline(QString* why);

    LabDevices m_devices;
    Lab* m_lab = nullptr; // the devices' lab once it is up
};

void tst_LabGroupingUI::initTestCase()
{
    const QString reason = Lab::unavailableReason();
    if (!reason.isEmpty())
        QSKIP(qPrintable(reason));
    QString why;
    QVERIFY2(m_devices.up(QStringLiteral("u"), 3, kResendMs, kTimeoutMs, kDiscoveryMs, &why), qPrintable(why));
    m_lab = &m_devices.lab();
}

void tst_LabGroupingUI::init()
{
    QString why;
    QVERIFY2(restoreBaseline(&why), qPrintable(why));
}

void tst_LabGroupingUI::cleanup()
{
    if (QTest::currentTestFailed())
        m_devices.printLogTails(20);
}

void tst_LabGroupingUI::cleanupTestCase()
{
    QString why;
    QVERIFY2(m_devices.down(&why), qPrintable(why));
}

QJsonObject tst_LabGroupingUI::aloneView(int device) const
{
    QList<QJsonObject> rows;
    for (int other = 1; other <= 3; ++other) {
        if (other != device)
            rows.append(transcoderRow(id(other), name(other), joinPath(id(other))));
    }
    return view(QStringLiteral("Transcoders"), rows);
}

bool tst_LabGroupingUI::waitForView(int device, const QJsonObject& expected, int timeoutMs, QString* seen)
{
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        const LabApi::Reply reply = api(device).get(QStringLiteral("rows"), kList);
        const QJsonObject shown = viewOf(reply.json.toObject());
        if (shown == expected)
            return true;
        if (clock.elapsed() >= timeoutMs) {
            *seen = reply.ok() ? text(shown) : QStringLiteral("HTTP %1 %2").arg(reply.status).arg(reply.transportError);
            return false;
        }
        QTest::qWait(50);
    }
}

bool tst_LabGroupingUI::restoreBaseline(QString* why)
{
    // Followers first, so that their transcoder is free again.
    for (int device = 3; device >= 1; --device) {
        const LabApi::Reply reply = api(device).invoke(kLeave, QJsonObject());
        if (!reply.ok()) {
            *why = QStringLiteral("dev%1's leave action answered %2 %3").arg(device).arg(reply.status).arg(
                QString::fromUtf8(reply.body));
            return false;
        }
    }
    for (int device = 1; device <= 3; ++device) {
        QString seen;
        if (!waitForView(device, aloneView(device), kTimeoutMs + 2000, &seen)) {
            *why = QStringLiteral("dev%1 does not show the others as transcoders: %2").arg(device).arg(seen);
            return false;
        }
        if (LabDevices::rowIds(api(device).rows(kMembers)) != QStringList{id(device)} || api(device).deviceState() != 2) {
            *why = QStringLiteral("dev%1 is not a lone transcoder").arg(device);
            return false;
        }
    }
    return true;
}

void tst_LabGroupingUI::activateAndExpectCompletion(int device, const QString& path)
{
    QElapsedTimer clock;
    clock.start();
    const LabApi::Reply reply = api(device).invoke(path, QJsonObject());
    const qint64 answeredAfter = clock.elapsed();
    QVERIFY2(reply.ok(), qPrintable(QStringLiteral("%1 on dev%2: HTTP %3 %4 %5")
                                        .arg(path)
                                        .arg(device)
                                        .arg(reply.status)
                                        .arg(QString::fromUtf8(reply.body), reply.transportError)));
    QCOMPARE(reply.json.toObject(), (QJsonObject{{QStringLiteral("result"), completionReply()}}));
    QVERIFY2(answeredAfter >= 200, qPrintable(QStringLiteral("answered after %1 ms").arg(answeredAfter)));
}

void tst_LabGroupingUI::joinThroughTheUiIsAnsweredWithTheCompletionReply()
{
    activateAndExpectCompletion(2, joinPath(id(1)));
    if (QTest::currentTestFailed())
        return;

    // dev2 follows dev1, which lists it.
    QStringList both{id(1), id(2)};
    both.sort();
    QTRY_COMPARE_WITH_TIMEOUT(LabDevices::rowIds(api(1).rows(kMembers)), both, kDeliveryMs);
    QCOMPARE(api(2).deviceState(), 1);
    QCOMPARE(api(2).ownMasterId(id(2)), id(1));

    // dev2 shows dev1 marked, leading to its leave action.
    QString seen;
    QVERIFY2(waitForView(2, view(QStringLiteral("Transcoders"),
                                 {transcoderRow(id(1), QStringLiteral("   >   dev1"), kLeave),
                                  transcoderRow(id(3), name(3), joinPath(id(3)))}),
                         kDeliveryMs, &seen),
             qPrintable(seen));
}

void tst_LabGroupingUI::transcoderShowsItsFollowersAndTheTranscodersAgainWhenTheyLeave()
{
    LabLog logA(m_lab->logPath(1));
    const int logFrom = logA.mark();
    activateAndExpectCompletion(2, joinPath(id(1)));
    if (QTest::currentTestFailed())
        return;

    QString seen;
    QVERIFY2(waitForView(1, view(QStringLiteral("List of followers"),
                                 {followerRow(QStringLiteral("0-followers-list"), kNotice),
                                  followerRow(id(2) + QStringLiteral("-follower"), QStringLiteral("Follower: dev2"))}),
                         kDeliveryMs, &seen),
             qPrintable(seen));
    QVERIFY(logA.waitForCount(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingUI"),
                              QStringLiteral("Device became MASTER & FOLLOWED"), 1, kDeliveryMs, logFrom));

    // The follower leaves through its list: the row that leads to dev1 is
    // the leave action.
    const QJsonObject followed = api(2).row(kList, id(1));
    QCOMPARE(followed.value(QStringLiteral("path")).toString(), kLeave);
    LabLog logB(m_lab->logPath(2));
    const int logBFrom = logB.mark();
    activateAndExpectCompletion(2, followed.value(QStringLiteral("path")).toString());
    if (QTest::currentTestFailed())
        return;
    QVERIFY(logB.waitForCount(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingUI"),
                              QStringLiteral("Leaving the group!"), 1, kDeliveryMs, logBFrom));
    QVERIFY(logB.waitForCount(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingUI"),
                              QStringLiteral("Left the group!"), 1, kDeliveryMs, logBFrom));

    QVERIFY2(waitForView(1, aloneView(1), kDeliveryMs, &seen), qPrintable(seen));
    QVERIFY2(waitForView(2, aloneView(2), kDeliveryMs, &seen), qPrintable(seen));
    QCOMPARE(LabDevices::rowIds(api(1).rows(kMembers)), QStringList{id(1)});
    QCOMPARE(api(2).deviceState(), 2);
}

void tst_LabGroupingUI::secondActivationWithin200msIsRefused_data()
{
    QTest::addColumn<bool>("secondIsJoin");
    QTest::newRow("join and join") << true;
    QTest::newRow("join and leave") << false;
}

void tst_LabGroupingUI::secondActivationWithin200msIsRefused()
{
    QFETCH(bool, secondIsJoin);
    // Both at once, each on a connection of its own: whichever the host
    // takes up first is carried out, the other falls within its 200 ms.
    const QString base = m_lab->api(2);
    const QString first = joinPath(id(1));
    const QString second = secondIsJoin ? joinPath(id(1)) : kLeave;
    LabApi::Reply replies[2];
    qint64 answeredAfter[2] = {0, 0};
    const auto activate = [&](int index, const QString& path) {
        LabApi client(base);
        QElapsedTimer clock;
        clock.start();
        replies[index] = client.invoke(path, QJsonObject());
        answeredAfter[index] = clock.elapsed();
    };
    {
        std::thread one(activate, 0, first);
        std::thread two(activate, 1, second);
        one.join();
        two.join();
    }

    const int accepted = replies[0].ok() ? 0 : 1;
    const int refused = 1 - accepted;
    QVERIFY2(replies[accepted].ok(), qPrintable(QString::fromUtf8(replies[0].body + " / " + replies[1].body)));
    QCOMPARE(replies[accepted].json.toObject(), (QJsonObject{{QStringLiteral("result"), completionReply()}}));
    QCOMPARE(replies[refused].status, 422);
    QCOMPARE(replies[refused].json.toObject(),
             (QJsonObject{{QStringLiteral("error"),
                           QJsonObject{{QStringLiteral("name"), QStringLiteral("Simple Grouping")},
                                       {QStringLiteral("title"), QStringLiteral("Error")},
                                       {QStringLiteral("message"),
                                        QStringLiteral("Previous grouping request not finished, reject request.")}}}}));
    qInfo("accepted answered after %lld ms, refused after %lld ms", static_cast<long long>(answeredAfter[accepted]),
          static_cast<long long>(answeredAfter[refused]));
    QVERIFY(answeredAfter[accepted] >= 200);
    QVERIFY(answeredAfter[refused] < answeredAfter[accepted]);

    // What the accepted one did stands: a join ends with dev2 following
    // dev1, a leave with dev2 alone.
    const bool joined = accepted == 0 || secondIsJoin;
    QTRY_COMPARE_WITH_TIMEOUT(api(2).ownMasterId(id(2)), joined ? id(1) : id(2), kDeliveryMs);
}

void tst_LabGroupingUI::transcoderThatJoinsAnotherDisappearsFromTheOthersLists()
{
    activateAndExpectCompletion(3, joinPath(id(1)));
    if (QTest::currentTestFailed())
        return;

    QString seen;
    // dev3 is no transcoder any more: dev2 offers only dev1.
    QVERIFY2(waitForView(2, view(QStringLiteral("Transcoders"), {transcoderRow(id(1), name(1), joinPath(id(1)))}),
                         kDeliveryMs, &seen),
             qPrintable(seen));
    QVERIFY2(waitForView(1, view(QStringLiteral("List of followers"),
                                 {followerRow(QStringLiteral("0-followers-list"), kNotice),
                                  followerRow(id(3) + QStringLiteral("-follower"), QStringLiteral("Follower: dev3"))}),
                         kDeliveryMs, &seen),
             qPrintable(seen));

    // Back as a transcoder of its own, it is offered again.
    activateAndExpectCompletion(3, kLeave);
    if (QTest::currentTestFailed())
        return;
    QVERIFY2(waitForView(2, aloneView(2), kDeliveryMs, &seen), qPrintable(seen));
    QVERIFY2(waitForView(1, aloneView(1), kDeliveryMs, &seen), qPrintable(seen));
}

QTEST_GUILESS_MAIN(tst_LabGroupingUI)
#include "tst_LabGroupingUI.moc"
