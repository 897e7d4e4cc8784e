#include <memory>

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkInterface>
#include <QSignalSpy>
#include <QTimer>
#include <QUdpSocket>
#include <QtTest>

#include "CMListRowsNode.h"
#include "CMNodes.h"
#include "Discovery.h"
#include "HouseList.h"
#include "LogCapture.h"
#include "TarvConnect.h"
#include "TarvRoles.h"
#include "TarvValue.h"

namespace {

// One host's discovery with a members list and a house list of its own,
// wired as the host wires them.
struct Peer
{
    Peer(const QString& id, const Discovery::Options& options)
        : nodes(new CMNodes),
          members(CMListRowsNode::create(nodes.get(), CMPath("/system/members"))),
          house(CMListRowsNode::create(nodes.get(), CMPath("/system/house"))),
          discovery(new Discovery(members, options))
    {
        members->setLoading(true);
        houseList = std::make_unique<HouseList>(house, members, id);
        tarvConnect(discovery.get(), &Discovery::memberHeard, houseList.get(), &HouseList::setMemberHouse);
        record.setId(id)
            .setName(QStringLiteral("Name of ") + id)
            .setHost(QStringLiteral("host-") + id)
            .setIpAddress(QStringLiteral("127.0.0.1"))
            .setTranscoder(true)
            .setPersistentGroupMembers({})
            .setPersistentGroupTimestamp(0);
        discovery->setOwnRecord(record);
        houseList->setOwn(record, Discovery::House(), QString());
    }

    bool start()
    {
        QString error;
        const bool started = discovery->start(&error);
        if (!started)
            qWarning("discovery did not start: %s", qPrintable(error));
        return started;
    }

    TarvSystemMember memberOf(const QString& id) const
    {
        return members->rowsGetById(id).value().systemMember();
    }

    QVariantHash houseOf(const QString& id) const
    {
        return house->rowsGetById(id).value().value(HouseList::HouseMember()).toHash();
    }

    void setOwnHouse(const Discovery::House& own)
    {
        discovery->setOwnHouse(own);
        houseList->setOwn(record, own, QString());
    }

    std::unique_ptr<CMNodes> nodes;
    CMListRowsNode* members;
    CMListRowsNode* house;
    std::unique_ptr<Discovery> discovery;
    std::unique_ptr<HouseList> houseList;
    TarvSystemMember record;
};

QVariant json(const QByteArray& text)
{
    return QJsonDocument::fromJson(text).toVariant();
}

quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress(QHostAddress::LocalHost), 0);
    return probe.localPort();
}

} // namespace

class tst_Discovery : public QObject
{
    Q_OBJECT

private:
    Discovery::Options m_options;
    std::unique_ptr<QUdpSocket> m_sender;

    Discovery::Options options(int periodMs)
    {
        Discovery::Options result = m_options;
        result.periodMs = periodMs;
        return result;
    }

    // Sends raw bytes to the group, as a foreign program on the LAN would.
    void sendRaw(const QByteArray& data)
    {
        QCOMPARE(m_sender->writeDatagram(data, m_options.group, m_options.port), qint64(data.size()));
    }

    // Hears the group as the peers do.
    void listenOnTheGroup(QUdpSocket& listener)
    {
        QVERIFY(listener.bind(m_options.group, m_options.port,
                              QAbstractSocket::ShareAddress | QAbstractSocket::ReuseAddressHint));
        for (const QNetworkInterface& iface : QNetworkInterface::allInterfaces()) {
            if (iface.flags() & QNetworkInterface::IsLoopBack)
                QVERIFY(listener.joinMulticastGroup(m_options.group, iface));
        }
    }

    static QList<QVariantHash> readAll(QUdpSocket& listener)
    {
        QList<QVariantHash> result;
        while (listener.hasPendingDatagrams()) {
            QByteArray datagram(static_cast<int>(listener.pendingDatagramSize()), '\0');
            listener.readDatagram(datagram.data(), datagram.size());
            result << QJsonDocument::fromJson(datagram).object().toVariantHash();
        }
        return result;
    }

    static qint64 stat(const Peer& peer, const char* key)
    {
        return peer.discovery->stats().value(QLatin1String(key)).toLongLong();
    }

private Q_SLOTS:
    void init()
    {
        m_options.group = QHostAddress(QStringLiteral("239.255.77.78"));
        m_options.port = freeUdpPort();
        m_options.interfaceAddress = QHostAddress::LocalHost;
        m_sender = std::make_unique<QUdpSocket>();
        QVERIFY(m_sender->bind(QHostAddress(QHostAddress::LocalHost), 0));
        for (const QNetworkInterface& iface : QNetworkInterface::allInterfaces()) {
            if (iface.flags() & QNetworkInterface::IsLoopBack)
                m_sender->setMulticastInterface(iface);
        }
        m_sender->setSocketOption(QAbstractSocket::MulticastLoopbackOption, 1);
    }

    void theOwnRowIsThereBeforeAnythingIsHeard()
    {
        Peer a(QStringLiteral("a"), options(100));
        QCOMPARE(a.members->rowsSize(), 1);
        const TarvRoles row = a.members->getRowRoles(0);
        QCOMPARE(row.id(), QStringLiteral("a"));
        QCOMPARE(row.title().toString(), QStringLiteral("Name of a"));
        QCOMPARE(row.type(), TarvRolesType::Unknown);
        QCOMPARE(row.value(), TarvValue().setSystemMember(a.record));
    }

    void hostsOnOneLoopbackSeeEachOtherOnce()
    {
        Peer a(QStringLiteral("a"), options(100));
        Peer b(QStringLiteral("b"), options(100));
        QSignalSpy aRows(a.members, &CMListRowsNode::rowChanged);
        QSignalSpy aHouseRows(a.house, &CMListRowsNode::rowChanged);
        b.setOwnHouse(Discovery::House{QStringLiteral("b"), QStringLiteral("Party"), 8080});
        QVERIFY(a.start());
        QVERIFY(b.start());
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 2, 2000);
        QTRY_COMPARE_WITH_TIMEOUT(b.members->rowsSize(), 2, 2000);
        QCOMPARE(a.house->rowsSize(), 2);
        QCOMPARE(b.house->rowsSize(), 2);
        QCOMPARE(a.houseOf(QStringLiteral("b")).value(QStringLiteral("master")).toString(), QStringLiteral("b"));
        QCOMPARE(a.memberOf(QStringLiteral("b")), b.record);
        QCOMPARE(b.memberOf(QStringLiteral("a")), a.record);
        QCOMPARE(a.members->rowsGetById(QStringLiteral("b")).title().toString(), QStringLiteral("Name of b"));
        // Hearing b again and again, and a's own announcements, change nothing.
        const qint64 heard = a.discovery->receivedCount();
        QTRY_VERIFY_WITH_TIMEOUT(a.discovery->receivedCount() >= heard + 6, 3000);
        QCOMPARE(a.members->rowsSize(), 2);
        QCOMPARE(aRows.count(), 1);
        QCOMPARE(aHouseRows.count(), 1);
    }

    // Held back, a device is heard by nobody (and still lists itself and
    // hears the others); released, it is announced at once.
    void aDeviceHeldBackIsAnnouncedTheMomentItIsReleased()
    {
        Peer a(QStringLiteral("a"), options(3000));
        Peer b(QStringLiteral("b"), options(3000));
        a.discovery->setAnnouncing(false);
        QVERIFY(!a.discovery->isAnnouncing());
        QVERIFY(a.start());
        QVERIFY(b.start());
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 2, 1000);
        // a heard b's announcement; a's own start announced nothing. Both
        // were sent before b's next one, so b hearing itself again shows
        // that anything a had sent would have arrived.
        const qint64 heard = b.discovery->receivedCount();
        b.discovery->setOwnRecord(TarvSystemMember(b.record).setName(QStringLiteral("b again")));
        QTRY_VERIFY_WITH_TIMEOUT(b.discovery->receivedCount() > heard, 1000);
        QCOMPARE(b.members->rowsSize(), 1);
        // A change of the own record is not announced either.
        a.discovery->setOwnRecord(TarvSystemMember(a.record).setName(QStringLiteral("a again")));
        const qint64 heardAgain = b.discovery->receivedCount();
        b.discovery->setOwnRecord(TarvSystemMember(b.record).setName(QStringLiteral("b third")));
        QTRY_VERIFY_WITH_TIMEOUT(b.discovery->receivedCount() > heardAgain, 1000);
        QCOMPARE(b.members->rowsSize(), 1);
        QCOMPARE(a.members->rowsSize(), 2);

        a.discovery->setAnnouncing(true);
        QTRY_COMPARE_WITH_TIMEOUT(b.members->rowsSize(), 2, 1000);
        QCOMPARE(b.memberOf(QStringLiteral("a")).name(), QStringLiteral("a again"));
    }

    void aChangedRecordIsAnnouncedAtOnce()
    {
        // A period far longer than the wait below: only the immediate
        // announcement can bring the change in time.
        Peer a(QStringLiteral("a"), options(3000));
        Peer b(QStringLiteral("b"), options(3000));
        QVERIFY(b.start());
        QVERIFY(a.start());
        QTRY_COMPARE_WITH_TIMEOUT(b.members->rowsSize(), 2, 1000);
        QSignalSpy bRows(b.members, &CMListRowsNode::rowChanged);

        TarvSystemMember changed = a.record;
        changed.setName(QStringLiteral("Renamed")).setTranscoder(false);
        QElapsedTimer clock;
        clock.start();
        a.discovery->setOwnRecord(changed);
        QCOMPARE(a.memberOf(QStringLiteral("a")), changed);
        QTRY_COMPARE_WITH_TIMEOUT(b.memberOf(QStringLiteral("a")), changed, 1000);
        QVERIFY(clock.elapsed() < 3000);
        QCOMPARE(bRows.count(), 1);
        const TarvRoles newRow = bRows.first().at(0).value<TarvRoles>();
        const TarvRoles oldRow = bRows.first().at(1).value<TarvRoles>();
        QCOMPARE(newRow.title().toString(), QStringLiteral("Renamed"));
        QCOMPARE(oldRow.title().toString(), QStringLiteral("Name of a"));
    }

    void aSilentMemberIsSuspectedThenRemovedWithinTheBound()
    {
        const int period = 100;
        LogCapture log;
        Peer a(QStringLiteral("a"), options(period));
        auto b = std::make_unique<Peer>(QStringLiteral("b"), options(period));
        QCOMPARE(a.discovery->suspectAfterMs(), 250);
        QCOMPARE(a.discovery->goneAfterMs(), 850);
        QVERIFY(a.start());
        QVERIFY(b->start());
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 2, 2000);
        // Alive for many periods: never suspected, never removed.
        QSignalSpy aRows(a.members, &CMListRowsNode::rowChanged);
        const qint64 heard = a.discovery->receivedCount();
        QTRY_VERIFY_WITH_TIMEOUT(a.discovery->receivedCount() >= heard + 16, 3000);
        QCOMPARE(aRows.count(), 0);
        QCOMPARE(log.countContaining(log4cplus::INFO_LOG_LEVEL, QStringLiteral("suspected"), QStringLiteral("Discovery")), 0);

        QElapsedTimer clock;
        b->discovery->stop();
        clock.start();
        QTRY_COMPARE_WITH_TIMEOUT(log.countStartingWith(log4cplus::INFO_LOG_LEVEL,
                                                        QStringLiteral("Member b missed 2 announcements; suspected, "
                                                                       "removed if silent for 850 ms"),
                                                        QStringLiteral("Discovery")),
                                  1, 2000);
        QCOMPARE(a.members->rowsSize(), 2);
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 1, 3000);
        const qint64 silence = clock.elapsed();
        // b's last announcement came at most one period before it stopped.
        QVERIFY2(silence >= a.discovery->goneAfterMs() - period, qPrintable(QString::number(silence)));
        QVERIFY2(silence <= a.discovery->goneAfterMs() + 300, qPrintable(QString::number(silence)));
        QCOMPARE(log.countStartingWith(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Member b missed 8 announcements ("),
                                       QStringLiteral("Discovery")),
                 1);
        QCOMPARE(aRows.count(), 1);
        QVERIFY(aRows.first().at(0).value<TarvRoles>().isEmpty());
        QCOMPARE(aRows.first().at(1).value<TarvRoles>().id(), QStringLiteral("b"));
        QCOMPARE(a.members->getRowRoles(0).id(), QStringLiteral("a"));

        // Back again: added again.
        QVERIFY(b->start());
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 2, 2000);
    }

    void aMemberThatMissesFewerAnnouncementsThanTheLimitIsKept_data()
    {
        QTest::addColumn<int>("missed");
        QTest::addColumn<int>("suspicions");
        QTest::newRow("one lost") << 1 << 0;
        QTest::newRow("two lost in a row") << 2 << 1;
        QTest::newRow("six lost in a row") << 6 << 1;
    }

    // A peer announcing by hand every period, with `missed` announcements in
    // a row left out, as a lossy network would.
    void aMemberThatMissesFewerAnnouncementsThanTheLimitIsKept()
    {
        QFETCH(int, missed);
        QFETCH(int, suspicions);
        const int period = 300;
        LogCapture log;
        Peer a(QStringLiteral("a"), options(period));
        QVERIFY(a.start());
        TarvSystemMember b;
        b.setId(QStringLiteral("b")).setName(QStringLiteral("B")).setHost(QStringLiteral("b.local")).setTranscoder(true);
        const QByteArray announcement = QJsonDocument(QJsonObject::fromVariantHash(
                                                          TarvValue().setSystemMember(b).toVariant().toHash()))
                                            .toJson(QJsonDocument::Compact);
        const int before = 3;
        const int after = 3;
        int sent = 0;
        int tick = 0;
        QTimer announcer;
        announcer.setTimerType(Qt::PreciseTimer);
        announcer.setInterval(period);
        tarvConnect(&announcer, &QTimer::timeout, this, [&] {
            if (tick < before || tick >= before + missed) {
                sendRaw(announcement);
                ++sent;
            }
            ++tick;
        });
        sendRaw(announcement);
        ++sent;
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 2, 2000);
        QSignalSpy aRows(a.members, &CMListRowsNode::rowChanged);
        announcer.start();
        QTRY_COMPARE_WITH_TIMEOUT(tick, before + missed + after, (before + missed + after + 2) * period);
        announcer.stop();

        QCOMPARE(sent, 1 + before + after);
        QCOMPARE(aRows.count(), 0);
        QCOMPARE(a.members->rowsSize(), 2);
        QCOMPARE(log.countStartingWith(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Member b missed 2 announcements; suspected"),
                                       QStringLiteral("Discovery")),
                 suspicions);
        QCOMPARE(log.countStartingWith(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Member b heard again after "),
                                       QStringLiteral("Discovery")),
                 suspicions);
        QCOMPARE(log.countStartingWith(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Member b missed 8 announcements"),
                                       QStringLiteral("Discovery")),
                 0);
    }

    void loadingEndsAfterTheFirstFullPeriod()
    {
        const int period = 300;
        Peer a(QStringLiteral("a"), options(period));
        QSignalSpy loading(a.members, &CMListRowsNode::loadingChanged);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(a.start());
        QVERIFY(a.members->isLoading());
        QVERIFY(a.house->isLoading());
        QTRY_COMPARE_WITH_TIMEOUT(loading.count(), 1, 2000);
        QVERIFY2(clock.elapsed() >= period - 1, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(loading.first().first().toBool(), false);
        QVERIFY(!a.members->isLoading());
        QVERIFY(!a.house->isLoading());
    }

    void anAnnouncementWithoutAddressGetsTheSendersAddress()
    {
        Peer a(QStringLiteral("a"), options(100));
        QVERIFY(a.start());
        sendRaw(R"({"systemMember": {"id": "c", "name": "C", "host": "c.local", "transcoder": true}})");
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 2, 2000);
        const TarvSystemMember c = a.memberOf(QStringLiteral("c"));
        QCOMPARE(c.ipAddress(), QStringLiteral("127.0.0.1"));
        QCOMPARE(c.name(), QStringLiteral("C"));
        QCOMPARE(c.transcoder(), true);
        QCOMPARE(c.persistentGroupTimestamp(), qint64(0));
    }

    void badAnnouncementsAreDroppedAndCounted_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<QString>("counter");
        QTest::addColumn<QString>("reason");
        QTest::newRow("oversized")
            << (QByteArray(R"({"systemMember": {"id": "big", "name": ")") + QByteArray(9000, 'x') + "\"}}")
            << "oversized" << "%1 bytes, more than 8192";
        QTest::newRow("not json") << QByteArray("hello") << "malformed" << "not JSON (illegal value)";
        QTest::newRow("array") << QByteArray("[1, 2]") << "malformed" << R"(not a {"systemMember": {...}} object)";
        QTest::newRow("other view") << QByteArray(R"({"string_": "x"})") << "malformed"
                                    << R"(not a {"systemMember": {...}} object)";
        QTest::newRow("member not object") << QByteArray(R"({"systemMember": 5})") << "malformed"
                                           << R"(not a {"systemMember": {...}} object)";
        QTest::newRow("id a number") << QByteArray(R"({"systemMember": {"id": 7}})") << "malformed"
                                     << R"("id" is not text)";
        QTest::newRow("transcoder text") << QByteArray(R"({"systemMember": {"id": "x", "transcoder": "yes"}})")
                                         << "malformed" << R"("transcoder" is not true or false)";
        QTest::newRow("members not ids")
            << QByteArray(R"({"systemMember": {"id": "x", "persistentGroupMembers": [1]}})") << "malformed"
            << R"("persistentGroupMembers" holds something other than ids)";
        QTest::newRow("id with spaces")
            << QByteArray(R"({"systemMember": {"id": "a b"}})") << "malformed"
            << R"("id" is not a device id (a device id consists of letters, digits and . _ : - and starts with a letter or digit))";
        QTest::newRow("id too long")
            << (QByteArray(R"({"systemMember": {"id": ")") + QByteArray(129, 'i') + "\"}}") << "malformed"
            << R"("id" is not a device id (a device id has at most 128 characters))";
        QTest::newRow("name with terminal escapes")
            << QByteArray("{\"systemMember\": {\"id\": \"x\", \"name\": \"x\\u001b[2J\"}}") << "malformed"
            << R"("name" is not a device name (a device name must not contain control characters))";
        QTest::newRow("name too long")
            << (QByteArray(R"({"systemMember": {"id": "x", "name": ")") + QByteArray(65, 'n') + "\"}}") << "malformed"
            << R"("name" is not a device name (a device name has at most 64 characters, this one has 65))";
        QTest::newRow("group larger than a saved group can be")
            << QByteArray("{\"systemMember\": {\"id\": \"x\", \"persistentGroupMembers\": [\"m\""
                          + QByteArray(",\"m\"").repeated(64) + "]}}")
            << "malformed" << R"("persistentGroupMembers" has more than 64 ids)";
        const auto withHouse = [](const QByteArray& house) {
            return QByteArray(R"({"systemMember": {"id": "x"}, "house": )") + house + '}';
        };
        QTest::newRow("house not an object") << withHouse("[]") << "malformed" << R"("house" is not an object)";
        QTest::newRow("house null") << withHouse("null") << "malformed" << R"("house" is not an object)";
        QTest::newRow("house without master") << withHouse(R"({"savedGroupName": "", "apiPort": 0})") << "malformed"
                                              << R"("house" has no "master")";
        QTest::newRow("house without name") << withHouse(R"({"master": "", "apiPort": 0})") << "malformed"
                                            << R"("house" has no "savedGroupName")";
        QTest::newRow("house without port") << withHouse(R"({"master": "", "savedGroupName": ""})") << "malformed"
                                            << R"("house" has no "apiPort")";
        QTest::newRow("master a number") << withHouse(R"({"master": 3, "savedGroupName": "", "apiPort": 0})")
                                         << "malformed" << R"("house.master" is not text)";
        QTest::newRow("master not an id")
            << withHouse(R"({"master": "../etc", "savedGroupName": "", "apiPort": 0})") << "malformed"
            << R"("house.master" is not a device id (a device id consists of letters, digits and . _ : - and starts with a letter or digit))";
        QTest::newRow("group name a list") << withHouse(R"({"master": "", "savedGroupName": [], "apiPort": 0})")
                                           << "malformed" << R"("house.savedGroupName" is not text)";
        QTest::newRow("group name too long")
            << withHouse(R"({"master": "", "savedGroupName": ")" + QByteArray(65, 'g') + R"(", "apiPort": 0})")
            << "malformed"
            << R"("house.savedGroupName" is not a name (a device name has at most 64 characters, this one has 65))";
        QTest::newRow("group name with terminal escapes")
            << withHouse("{\"master\": \"\", \"savedGroupName\": \"a\\u001b[2J\", \"apiPort\": 0}") << "malformed"
            << R"("house.savedGroupName" is not a name (a device name must not contain control characters))";
        QTest::newRow("group name blank") << withHouse(R"({"master": "", "savedGroupName": "  ", "apiPort": 0})")
                                          << "malformed"
                                          << R"("house.savedGroupName" is not a name (a device name must not be empty))";
        for (const char* port : {"-1", "65536", "80.5", "\"80\"", "true", "null"}) {
            QTest::newRow(qPrintable(QStringLiteral("port %1").arg(QLatin1String(port))))
                << withHouse(R"({"master": "", "savedGroupName": "", "apiPort": )" + QByteArray(port) + '}')
                << "malformed" << R"("house.apiPort" is not a port number (0-65535))";
        }
        QTest::newRow("no id") << QByteArray(R"({"systemMember": {"name": "anonymous"}})") << "noId"
                               << "no device id";
        QTest::newRow("empty id") << QByteArray(R"({"systemMember": {"id": ""}})") << "noId" << "no device id";
    }

    void badAnnouncementsAreDroppedAndCounted()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(QString, counter);
        QFETCH(QString, reason);
        if (reason.contains(QLatin1String("%1")))
            reason = reason.arg(datagram.size());
        Peer a(QStringLiteral("a"), options(5000));
        QVERIFY(a.start());
        LogCapture log;
        QSignalSpy stats(a.discovery.get(), &Discovery::statsChanged);
        QSignalSpy rows(a.members, &CMListRowsNode::rowChanged);
        sendRaw(datagram);
        QTRY_COMPARE_WITH_TIMEOUT(stats.count(), 1, 2000);
        const QVariantHash counted = stats.first().first().toHash();
        QCOMPARE(counted.value(counter).toInt(), 1);
        QCOMPARE(counted.value(QStringLiteral("dropped")).toInt(), 1);
        QCOMPARE(a.discovery->stats(), counted);
        QCOMPARE(log.count(log4cplus::WARN_LOG_LEVEL,
                           QStringLiteral("Dropped discovery announcement from 127.0.0.1: ") + reason,
                           QStringLiteral("Discovery")),
                 1);
        // A good announcement after the bad one still gets through.
        sendRaw(R"({"systemMember": {"id": "good"}})");
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 2, 2000);
        QCOMPARE(rows.count(), 1);
        QCOMPARE(a.members->getRowRoles(1).id(), QStringLiteral("good"));
    }

    // The record unchanged, the house information beside it, nothing else.
    void anAnnouncementIsTheRecordAndTheHouse()
    {
        QUdpSocket listener;
        listenOnTheGroup(listener);
        Peer a(QStringLiteral("a"), options(5000));
        a.record.setPersistentGroupMembers({QStringLiteral("a"), QStringLiteral("b")}).setPersistentGroupTimestamp(
            1700000000123);
        a.discovery->setOwnRecord(a.record);
        a.setOwnHouse(Discovery::House{QStringLiteral("a"), QStringLiteral("Party"), 8080});
        QVERIFY(a.start());
        QList<QVariantHash> heard;
        QTRY_VERIFY_WITH_TIMEOUT(!(heard += readAll(listener)).isEmpty(), 2000);
        QVariantHash expected{{QStringLiteral("systemMember"), a.record.toVariant()},
                              {QStringLiteral("house"), json(R"({"master": "a", "savedGroupName": "Party", "apiPort": 8080})")}};
        QCOMPARE(QVariant(heard.first()), QVariant(expected));
    }

    // A setting that changes both goes out once, with both.
    void aRecordAndHouseChangedTogetherGoOutInOneAnnouncement()
    {
        QUdpSocket listener;
        listenOnTheGroup(listener);
        Peer a(QStringLiteral("a"), options(5000));
        QVERIFY(a.start());
        QList<QVariantHash> heard;
        QTRY_VERIFY_WITH_TIMEOUT(!(heard += readAll(listener)).isEmpty(), 2000);
        QCOMPARE(heard.size(), 1);

        heard.clear();
        a.discovery->setOwnRecord(TarvSystemMember(a.record).setPersistentGroupMembers({QStringLiteral("a")}));
        a.discovery->setOwnHouse(Discovery::House{QStringLiteral("a"), QStringLiteral("Party"), 0});
        QTRY_VERIFY_WITH_TIMEOUT(!(heard += readAll(listener)).isEmpty(), 2000);
        // Anything more from that change was sent before this marker.
        a.discovery->setOwnRecord(TarvSystemMember(a.record).setName(QStringLiteral("marker")));
        const auto markerHeard = [&] {
            heard += readAll(listener);
            return !heard.isEmpty()
                && heard.last().value(QStringLiteral("systemMember")).toHash().value(QStringLiteral("name"))
                == QStringLiteral("marker");
        };
        QTRY_VERIFY_WITH_TIMEOUT(markerHeard(), 2000);
        QCOMPARE(heard.size(), 2);
        const QVariantHash both = heard.first();
        QCOMPARE(both.value(QStringLiteral("systemMember")).toHash().value(QStringLiteral("persistentGroupMembers")),
                 QVariant(QVariantList{QStringLiteral("a")}));
        QCOMPARE(both.value(QStringLiteral("house")).toHash().value(QStringLiteral("savedGroupName")),
                 QVariant(QStringLiteral("Party")));
    }

    void aChangedHouseIsAnnouncedAtOnce()
    {
        Peer a(QStringLiteral("a"), options(3000));
        Peer b(QStringLiteral("b"), options(3000));
        QVERIFY(b.start());
        QVERIFY(a.start());
        QTRY_COMPARE_WITH_TIMEOUT(b.house->rowsSize(), 2, 1000);
        QSignalSpy bHouse(b.house, &CMListRowsNode::rowChanged);
        QSignalSpy bMembers(b.members, &CMListRowsNode::rowChanged);
        a.setOwnHouse(Discovery::House{QStringLiteral("b"), QString(), 0});
        QTRY_COMPARE_WITH_TIMEOUT(b.houseOf(QStringLiteral("a")).value(QStringLiteral("master")).toString(),
                                  QStringLiteral("b"), 1000);
        QCOMPARE(bHouse.count(), 1);
        QCOMPARE(bMembers.count(), 0);
        // The same again announces nothing new.
        const qint64 heard = b.discovery->receivedCount();
        a.setOwnHouse(Discovery::House{QStringLiteral("b"), QString(), 0});
        b.discovery->setOwnRecord(TarvSystemMember(b.record).setName(QStringLiteral("b again")));
        QTRY_VERIFY_WITH_TIMEOUT(b.discovery->receivedCount() > heard, 1000);
        QCOMPARE(b.discovery->receivedCount(), heard + 1);
    }

    void envelopesThatAreTaken_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<QString>("source");
        QTest::addColumn<QVariant>("row");
        const QByteArray member = R"("systemMember": {"id": "c", "name": "C", "host": "c.local", "ipAddress": "10.1.1.1",
                                      "transcoder": false, "persistentGroupMembers": ["t", "c"],
                                      "persistentGroupTimestamp": 1700000000123})";
        const auto row = [](const QByteArray& rest) {
            return json(R"({"houseMember": {"id": "c", "name": "C", "host": "c.local", "ipAddress": "10.1.1.1",
                                            "transcoder": false, )" + rest + "}}");
        };
        QTest::newRow("an older host's, without house")
            << ('{' + member + '}') << QStringLiteral("10.77.0.9")
            << row(R"("master": "", "savedGroup": {"name": "", "members": ["t", "c"], "timestamp": 1700000000123},
                      "api": null)");
        QTest::newRow("with house")
            << ('{' + member + R"(, "house": {"master": "t", "savedGroupName": "Party", "apiPort": 8080}})")
            << QStringLiteral("10.77.0.9")
            << row(R"("master": "t", "savedGroup": {"name": "Party", "members": ["t", "c"], "timestamp": 1700000000123},
                      "api": {"address": "10.77.0.9", "port": 8080})");
        QTest::newRow("an address in the payload is not taken")
            << ('{' + member
                + R"(, "house": {"master": "t", "savedGroupName": "", "apiPort": 8080, "address": "6.6.6.6"},
                       "api": {"address": "6.6.6.6", "port": 1}})")
            << QStringLiteral("::ffff:10.77.0.14")
            << row(R"("master": "t", "savedGroup": {"name": "", "members": ["t", "c"], "timestamp": 1700000000123},
                      "api": {"address": "10.77.0.14", "port": 8080})");
        QTest::newRow("port 0 is no api")
            << ('{' + member + R"(, "house": {"master": "", "savedGroupName": "", "apiPort": 0}})")
            << QStringLiteral("10.77.0.9")
            << row(R"("master": "", "savedGroup": {"name": "", "members": ["t", "c"], "timestamp": 1700000000123},
                      "api": null)");
        QTest::newRow("unknown top-level keys of later hosts")
            << ('{' + member + R"(, "house": {"master": "c", "savedGroupName": "", "apiPort": 65535}, "zones": [1, 2]})")
            << QStringLiteral("10.77.0.9")
            << row(R"("master": "c", "savedGroup": {"name": "", "members": ["t", "c"], "timestamp": 1700000000123},
                      "api": {"address": "10.77.0.9", "port": 65535})");
    }

    // What the socket's reader does with each datagram, from addresses a
    // test cannot send from.
    void envelopesThatAreTaken()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(QString, source);
        QFETCH(QVariant, row);
        Peer a(QStringLiteral("a"), options(5000));
        QSignalSpy stats(a.discovery.get(), &Discovery::statsChanged);
        a.discovery->handleDatagram(datagram, QHostAddress(source));
        QCOMPARE(stats.count(), 0);
        QCOMPARE(a.members->rowsSize(), 2);
        QCOMPARE(a.house->rowsSize(), 2);
        QCOMPARE(a.house->rowsGetById(QStringLiteral("c")).value().toVariant(), row);
        QCOMPARE(a.house->rowsGetById(QStringLiteral("c")).title().toString(), QStringLiteral("C"));
        // The members row is the record alone, as before.
        QCOMPARE(a.members->rowsGetById(QStringLiteral("c")).value().keys(), QStringList{QStringLiteral("systemMember")});
        QCOMPARE(a.memberOf(QStringLiteral("c")).ipAddress(), QStringLiteral("10.1.1.1"));
    }

    void aHouseRowLeavesTogetherWithItsMember()
    {
        const int period = 100;
        Peer a(QStringLiteral("a"), options(period));
        auto b = std::make_unique<Peer>(QStringLiteral("b"), options(period));
        QVERIFY(a.start());
        QVERIFY(b->start());
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 2, 2000);
        QCOMPARE(a.house->rowsSize(), 2);
        int houseRowsWhenMemberLeft = -1;
        tarvConnect(a.members, &CMListRowsNode::rowChanged, this, [&](const TarvRoles& newRow, const TarvRoles&) {
            if (newRow.isEmpty())
                houseRowsWhenMemberLeft = a.house->rowsSize();
        });
        b->discovery->stop();
        QTRY_COMPARE_WITH_TIMEOUT(a.members->rowsSize(), 1, 3000);
        QCOMPARE(houseRowsWhenMemberLeft, 1);
        QVERIFY(a.house->rowsGetById(QStringLiteral("b")).isEmpty());
        QCOMPARE(a.house->getRowRoles(0).id(), QStringLiteral("a"));
    }

    void aFloodOfJunkWarnsOncePerPeriod()
    {
        Peer a(QStringLiteral("a"), options(5000));
        QVERIFY(a.start());
        LogCapture log;
        for (int i = 0; i < 5; ++i)
            sendRaw("junk");
        QTRY_COMPARE_WITH_TIMEOUT(stat(a, "malformed"), qint64(5), 2000);
        QCOMPARE(log.countStartingWith(log4cplus::WARN_LOG_LEVEL, QStringLiteral("Dropped discovery announcement"),
                                       QStringLiteral("Discovery")),
                 1);
        QCOMPARE(log.countStartingWith(log4cplus::DEBUG_LOG_LEVEL, QStringLiteral("Dropped discovery announcement"),
                                       QStringLiteral("Discovery")),
                 4);
        QCOMPARE(stat(a, "dropped"), qint64(5));
    }

    void anAddressOnNoInterfaceIsAClearErrorAndLoadingStillEnds()
    {
        Discovery::Options bad = options(100);
        bad.interfaceAddress = QHostAddress(QStringLiteral("192.0.2.254"));
        Peer a(QStringLiteral("a"), bad);
        LogCapture log;
        QString error;
        QVERIFY(!a.discovery->start(&error));
        QCOMPARE(error, QStringLiteral("no network interface has the address 192.0.2.254"));
        QCOMPARE(log.count(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Discovery is off: ") + error,
                           QStringLiteral("Discovery")),
                 1);
        QTRY_VERIFY_WITH_TIMEOUT(!a.members->isLoading(), 2000);
        QCOMPARE(a.members->rowsSize(), 1);
    }
};

QTEST_GUILESS_MAIN(tst_Discovery)
#include "tst_Discovery.moc"
