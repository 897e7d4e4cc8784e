#include <QtTest>

#include <model/cmrequest>
#include <tarv>

class Emitter : public QObject
{
    Q_OBJECT

Q_SIGNALS:
    void member(const TarvSystemMember& member);
};

// Host types travel through queued connections, so they are known to Qt's
// meta-type system by name as soon as the library is loaded.
class tst_TarvMetaTypes : public QObject
{
    Q_OBJECT

private:
    static const QList<QByteArray>& names()
    {
        static const QList<QByteArray> list{
            "TarvHash", "CMPath", "TrString", "CMError", "TarvSystemMember", "TarvSystemMemberTranscoderState",
            "TarvGroupingMember", "TarvGroupingRequest", "TarvGroupingPersistentGroup", "TarvValue", "TarvRoles",
            "TarvEvent", "TarvActionReply", "TarvPlayLogicData", "CMSetDataRequest"};
        return list;
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Before this test touches any of the types itself.
        for (const QByteArray& name : names())
            QVERIFY2(QMetaType::type(name.constData()) != QMetaType::UnknownType, name.constData());
    }

    void everyHostTypeIsRegisteredByName_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<int>("id");
        QTest::newRow("TarvHash") << QByteArray("TarvHash") << qMetaTypeId<TarvHash>();
        QTest::newRow("CMPath") << QByteArray("CMPath") << qMetaTypeId<CMPath>();
        QTest::newRow("TrString") << QByteArray("TrString") << qMetaTypeId<TrString>();
        QTest::newRow("CMError") << QByteArray("CMError") << qMetaTypeId<CMError>();
        QTest::newRow("TarvSystemMember") << QByteArray("TarvSystemMember") << qMetaTypeId<TarvSystemMember>();
        QTest::newRow("TarvSystemMemberTranscoderState")
            << QByteArray("TarvSystemMemberTranscoderState") << qMetaTypeId<TarvSystemMemberTranscoderState>();
        QTest::newRow("TarvGroupingMember") << QByteArray("TarvGroupingMember") << qMetaTypeId<TarvGroupingMember>();
        QTest::newRow("TarvGroupingRequest") << QByteArray("TarvGroupingRequest") << qMetaTypeId<TarvGroupingRequest>();
        QTest::newRow("TarvGroupingPersistentGroup")
            << QByteArray("TarvGroupingPersistentGroup") << qMetaTypeId<TarvGroupingPersistentGroup>();
        QTest::newRow("TarvValue") << QByteArray("TarvValue") << qMetaTypeId<TarvValue>();
        QTest::newRow("TarvRoles") << QByteArray("TarvRoles") << qMetaTypeId<TarvRoles>();
        QTest::newRow("TarvEvent") << QByteArray("TarvEvent") << qMetaTypeId<TarvEvent>();
        QTest::newRow("TarvActionReply") << QByteArray("TarvActionReply") << qMetaTypeId<TarvActionReply>();
        QTest::newRow("TarvPlayLogicData") << QByteArray("TarvPlayLogicData") << qMetaTypeId<TarvPlayLogicData>();
        QTest::newRow("CMSetDataRequest") << QByteArray("CMSetDataRequest") << qMetaTypeId<CMSetDataRequest>();
    }
    void everyHostTypeIsRegisteredByName()
    {
        QFETCH(QByteArray, name);
        QFETCH(int, id);
        QCOMPARE(QMetaType::type(name.constData()), id);
        QCOMPARE(QByteArray(QMetaType::typeName(id)), name);
    }

    void registeringAgainIsHarmless()
    {
        const int before = qMetaTypeId<TarvSystemMember>();
        tarvRegisterMetaTypes();
        QCOMPARE(qMetaTypeId<TarvSystemMember>(), before);
        QCOMPARE(QMetaType::type("TarvSystemMember"), before);
    }

    void recordsSurviveAQueuedSignal()
    {
        // A queued connection copies its arguments through the meta-type system.
        Emitter emitter;
        QObject context;
        QList<TarvSystemMember> received;
        QObject::connect(&emitter, &Emitter::member, &context,
                         [&received](const TarvSystemMember& member) { received.append(member); },
                         Qt::QueuedConnection);
        const TarvSystemMember sent = TarvSystemMember().setId(QStringLiteral("q"));
        Q_EMIT emitter.member(sent);
        QVERIFY(received.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(received.size(), 1, 2000);
        QCOMPARE(received.first(), sent);
        QCOMPARE(QVariant::fromValue(sent).value<TarvSystemMember>(), sent);
    }
};

QTEST_GUILESS_MAIN(tst_TarvMetaTypes)
#include "tst_TarvMetaTypes.moc"
