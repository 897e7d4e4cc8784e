// JSON that anyone on the LAN can send a device must not cost it memory for
// good. Duplicated keys whose earlier value is an object or an array made
// Qt's JSON parser lose that value on every parse, so a flood of such
// datagrams to the receiver-link port or the discovery group grew a host by
// tens of megabytes that never came back. Here a real host takes 100,000 of
// each and its resident memory may grow by less than 2 MB.

#include <QtTest>

#include <QFile>
#include <QNetworkInterface>
#include <QUdpSocket>

#include "Lab.h"
#include "LabApi.h"
#include "LabLog.h"

namespace {

constexpr quint16 kRequestPort = 41230;
// The group every lab's hosts announce on (scripts/lab).
const QHostAddress kDiscoveryGroup(QStringLiteral("239.255.77.1"));
constexpr quint16 kDiscoveryPort = 41231;
constexpr int kFlood = 100000;
constexpr int kWarmUp = 5000;
// Small enough that a batch always fits the host's receive buffer, so every
// datagram is handled and the count below is exact.
constexpr int kBatch = 100;

// Resident set of a process in KiB, -1 when unreadable.
qint64 residentKiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

// Duplicated keys with container values, small and large; the large ones
// stay under discovery's 8 KiB limit so that they are parsed, not refused
// for their size. None is a valid announcement or "add".
QByteArray hostileJson(int k)
{
    if (k % 100 == 0) {
        QByteArray large = "{\"a\":1";
        while (large.size() < 7000)
            large += ",\"k\":{\"a\":[1,2,3],\"b\":{\"c\":\"dddddddddddddddddddd\"}}";
        return large; // not closed: refused after the duplicates were read
    }
    if (k % 2 == 0)
        return R"({"":"","":"","":{"":"","":false,"":"","":"","":{"":"","":false},"":false})";
    return R"({"a":{"b":1},"a":[1],"a":[])";
}

} // namespace

class tst_LabHostileJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void receiverLinkFloodOfDuplicatedKeysCostsNoMemory();
    void discoveryFloodOfDuplicatedKeysCostsNoMemory();

private:
    // Sends `count` hostile datagrams, a batch at a time, each batch only
    // once the host has handled the previous one (`handled` says how many).
    void flood(QUdpSocket& socket, const QHostAddress& to, quint16 port, const QByteArray& prefix, int count,
               const std::function<qint64()>& handled);
    qint64 discoveryMalformed();

    QScopedPointer<Lab> m_lab;
    QScopedPointer<LabApi> m_api;
};

void tst_LabHostileJson::initTestCase()
{
    const QString reason = Lab::unavailableReason();
    if (!reason.isEmpty())
        QSKIP(qPrintable(reason));
    m_lab.reset(new Lab(QStringLiteral("j%1").arg(QCoreApplication::applicationPid() % 10000000)));
    QVERIFY2(m_lab->up(1, {}), qPrintable(m_lab->lastOutput()));
    m_api.reset(new LabApi(m_lab->api(1)));
}

void tst_LabHostileJson::cleanupTestCase()
{
    m_api.reset();
    if (m_lab)
        QVERIFY2(m_lab->down(), qPrintable(m_lab->lastOutput()));
}

void tst_LabHostileJson::flood(QUdpSocket& socket, const QHostAddress& to, quint16 port, const QByteArray& prefix,
                               int count, const std::function<qint64()>& handled)
{
    const qint64 start = handled();
    for (int k = 0; k < count; ++k) {
        const QByteArray datagram = prefix + hostileJson(k);
        QCOMPARE(socket.writeDatagram(datagram, to, port), qint64(datagram.size()));
        if ((k + 1) % kBatch == 0 || k + 1 == count) {
            QElapsedTimer waited;
            waited.start();
            while (handled() - start < k + 1 && waited.elapsed() < 5000)
                QTest::qWait(2);
            QVERIFY2(handled() - start >= k + 1, qPrintable(QStringLiteral("the host handled only %1 of %2 datagrams")
                                                                 .arg(handled() - start)
                                                                 .arg(k + 1)));
        }
    }
}

qint64 tst_LabHostileJson::discoveryMalformed()
{
    const QJsonValue stats = m_api->value(QStringLiteral("/system/discovery/stats"));
    // The counters travel as a record under the value's single view.
    const QJsonObject object = stats.toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.value().toObject().contains(QStringLiteral("malformed")))
            return qint64(it.value().toObject().value(QStringLiteral("malformed")).toDouble());
    }
    return qint64(object.value(QStringLiteral("malformed")).toDouble(-1));
}

void tst_LabHostileJson::receiverLinkFloodOfDuplicatedKeysCostsNoMemory()
{
    LabLog log(m_lab->logPath(1));
    const int from = log.mark();
    const QString incorrect = QStringLiteral("Incorrect JSON data, dropping garbage packet");
    // Counted as the log grows, so that each look reads only the new lines.
    int next = from;
    qint64 seen = 0;
    const auto handled = [&log, &next, &seen, &incorrect]() -> qint64 {
        log.refresh();
        const QList<LabLog::Entry>& entries = log.entries();
        for (; next < entries.size(); ++next) {
            const LabLog::Entry& entry = entries.at(next);
            if (entry.level == QLatin1String("ERROR") && entry.logger == QLatin1String("SimpleGroupingSocket")
                && entry.message.startsWith(incorrect))
                ++seen;
        }
        return seen;
    };
    QUdpSocket socket;
    const QHostAddress host(m_lab->address(1));

    // The first datagrams grow the host's buffers once; what counts is what
    // the flood after them adds.
    flood(socket, host, kRequestPort, "add", kWarmUp, handled);
    if (QTest::currentTestFailed())
        return;
    const qint64 before = residentKiB(m_lab->pid(1));
    QVERIFY(before > 0);
    flood(socket, host, kRequestPort, "add", kFlood, handled);
    if (QTest::currentTestFailed())
        return;
    const qint64 after = residentKiB(m_lab->pid(1));
    qInfo("receiver link: RSS %lld KiB before, %lld KiB after %d hostile datagrams", before, after, kFlood);
    QCOMPARE(handled(), qint64(kWarmUp + kFlood));
    QVERIFY2(after - before < 2048, qPrintable(QStringLiteral("RSS grew by %1 KiB").arg(after - before)));
    QCOMPARE(m_api->host().value(QStringLiteral("id")).toString(), m_lab->id(1));
}

void tst_LabHostileJson::discoveryFloodOfDuplicatedKeysCostsNoMemory()
{
    // This machine reaches the lab's LAN through its own link; the group is
    // sent there, as any device on the LAN would send it.
    const QString address = m_lab->address(1);
    const QString subnet = address.section(QLatin1Char('.'), 2, 2);
    const QNetworkInterface link = QNetworkInterface::interfaceFromName(QStringLiteral("tarvlab") + subnet);
    QVERIFY2(link.isValid(), qPrintable(QStringLiteral("no link tarvlab%1 to the lab").arg(subnet)));
    QUdpSocket socket;
    QVERIFY(socket.bind(QHostAddress(QHostAddress::AnyIPv4), 0));
    socket.setMulticastInterface(link);
    socket.setSocketOption(QAbstractSocket::MulticastTtlOption, 1);
    QVERIFY(discoveryMalformed() >= 0);
    const auto handled = [this]() { return discoveryMalformed(); };

    flood(socket, kDiscoveryGroup, kDiscoveryPort, QByteArray(), kWarmUp, handled);
    if (QTest::currentTestFailed())
        return;
    const qint64 before = residentKiB(m_lab->pid(1));
    QVERIFY(before > 0);
    flood(socket, kDiscoveryGroup, kDiscoveryPort, QByteArray(), kFlood, handled);
    if (QTest::currentTestFailed())
        return;
    const qint64 after = residentKiB(m_lab->pid(1));
    qInfo("discovery: RSS %lld KiB before, %lld KiB after %d hostile announcements", before, after, kFlood);
    QVERIFY2(after - before < 2048, qPrintable(QStringLiteral("RSS grew by %1 KiB").arg(after - before)));
    QCOMPARE(m_api->host().value(QStringLiteral("id")).toString(), m_lab->id(1));
}

QTEST_GUILESS_MAIN(tst_LabHostileJson)
#include "tst_LabHostileJson.moc"
