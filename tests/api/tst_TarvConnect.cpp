#include <QThread>
#include <QtTest>

#include <tarv>

#include "ChildProcess.h"

// A type Qt's meta-type system has never heard of.
struct Unregistered
{
    int value = 0;
};

class Emitter : public QObject
{
    Q_OBJECT

Q_SIGNALS:
    void unregistered(const Unregistered& value);
    void unregisteredPointer(Unregistered* value);
    void registered(const TarvSystemMember& member);
    void plain(int value);
};

class Receiver : public QObject
{
    Q_OBJECT

public:
    QList<int> values;
    QList<Qt::HANDLE> threads;

public Q_SLOTS:
    void on_emitter_unregistered(const Unregistered& value) { values << value.value; }
    void on_emitter_unregisteredPointer(Unregistered* value) { values << value->value; }
    void on_emitter_registered(const TarvSystemMember& member)
    {
        values << member.id().toInt();
        threads << QThread::currentThreadId();
    }
    void on_emitter_plain(int value) { values << value; }
};

class tst_TarvConnect : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // The library registers the host types when it is loaded. This test
        // uses nothing else of it but inline code, which a linker dropping
        // unused libraries would not load it for.
        tarvRegisterMetaTypes();
    }

    void directConnectionWorksAndIsReturned()
    {
        Emitter emitter;
        Receiver receiver;
        const QMetaObject::Connection connection
            = tarvConnect(&emitter, &Emitter::plain, &receiver, &Receiver::on_emitter_plain, Qt::DirectConnection);
        QVERIFY(bool(connection));
        Q_EMIT emitter.plain(3);
        QCOMPARE(receiver.values, QList<int>({3}));
        QVERIFY(QObject::disconnect(connection));
        Q_EMIT emitter.plain(4);
        QCOMPARE(receiver.values, QList<int>({3}));
    }

    void unregisteredTypesAreFineWhenNothingIsQueued()
    {
        Emitter emitter;
        Receiver receiver;
        tarvConnect(&emitter, &Emitter::unregistered, &receiver, &Receiver::on_emitter_unregistered);
        tarvConnect(&emitter, &Emitter::unregistered, &receiver, &Receiver::on_emitter_unregistered,
                    Qt::DirectConnection);
        Q_EMIT emitter.unregistered(Unregistered{7});
        QCOMPARE(receiver.values, QList<int>({7, 7}));
    }

    void queuedConnectionWithRegisteredTypesDelivers()
    {
        Emitter emitter;
        Receiver receiver;
        tarvConnect(&emitter, &Emitter::registered, &receiver, &Receiver::on_emitter_registered, Qt::QueuedConnection);
        Q_EMIT emitter.registered(TarvSystemMember().setId(QStringLiteral("5")));
        QVERIFY(receiver.values.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(receiver.values, QList<int>({5}), 2000);
    }

    void autoConnectionAcrossThreadsWithRegisteredTypesDelivers()
    {
        Emitter emitter;
        QThread thread;
        thread.start();
        const auto stopThread = qScopeGuard([&] {
            thread.quit();
            thread.wait();
        });
        Receiver receiver;
        receiver.moveToThread(&thread);
        tarvConnect(&emitter, &Emitter::registered, &receiver, &Receiver::on_emitter_registered);
        Q_EMIT emitter.registered(TarvSystemMember().setId(QStringLiteral("8")));
        QTRY_VERIFY_WITH_TIMEOUT(receiver.values.size() == 1, 2000);
        QCOMPARE(receiver.values.first(), 8);
        QVERIFY(receiver.threads.first() != QThread::currentThreadId());
        thread.quit();
        thread.wait();
        receiver.moveToThread(QThread::currentThread());
    }

    void lambdaWithContextObjectConnects()
    {
        Emitter emitter;
        QObject context;
        int seen = 0;
        QVERIFY(bool(tarvConnect(&emitter, &Emitter::plain, &context, [&seen](int value) { seen = value; })));
        Q_EMIT emitter.plain(11);
        QCOMPARE(seen, 11);
    }

    void parameterCheck_data()
    {
        QTest::addColumn<int>("signal"); // 0 unregistered, 1 unregistered pointer, 2 registered, 3 int
        QTest::addColumn<int>("type");
        QTest::addColumn<bool>("acrossThreads");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("unregistered, queued") << 0 << int(Qt::QueuedConnection) << false << false;
        QTest::newRow("unregistered, blocking queued (left to Qt)") << 0 << int(Qt::BlockingQueuedConnection) << true << true;
        QTest::newRow("unregistered, auto, same thread") << 0 << int(Qt::AutoConnection) << false << true;
        QTest::newRow("unregistered, auto, across threads") << 0 << int(Qt::AutoConnection) << true << false;
        QTest::newRow("unregistered, direct, across threads") << 0 << int(Qt::DirectConnection) << true << true;
        QTest::newRow("unregistered pointer, queued") << 1 << int(Qt::QueuedConnection) << false << true;
        QTest::newRow("registered record, queued") << 2 << int(Qt::QueuedConnection) << false << true;
        QTest::newRow("registered record, auto, across threads") << 2 << int(Qt::AutoConnection) << true << true;
        QTest::newRow("int, queued") << 3 << int(Qt::QueuedConnection) << false << true;
    }
    void parameterCheck()
    {
        QFETCH(int, signal);
        QFETCH(int, type);
        QFETCH(bool, acrossThreads);
        QFETCH(bool, accepted);
        Emitter emitter;
        QObject receiver;
        QThread thread;
        if (acrossThreads)
            receiver.moveToThread(&thread);
        const auto connectionType = static_cast<Qt::ConnectionType>(type);
        bool result = false;
        switch (signal) {
        case 0: result = verifyConnectionSignalParameters(&emitter, &Emitter::unregistered, &receiver, connectionType); break;
        case 1: result = verifyConnectionSignalParameters(&emitter, &Emitter::unregisteredPointer, &receiver, connectionType); break;
        case 2: result = verifyConnectionSignalParameters(&emitter, &Emitter::registered, &receiver, connectionType); break;
        case 3: result = verifyConnectionSignalParameters(&emitter, &Emitter::plain, &receiver, connectionType); break;
        }
        QCOMPARE(result, accepted);
    }

    void uncheckableQueuedConnectionEndsTheProcess_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("queued") << "queuedUnregistered";
        QTest::newRow("auto across threads") << "autoAcrossThreadsUnregistered";
    }
    void uncheckableQueuedConnectionEndsTheProcess()
    {
        QFETCH(QString, scenario);
        const ChildResult child = runChildScenario(scenario);
        QVERIFY(child.finished);
        QCOMPARE(child.status, QProcess::CrashExit);
        QVERIFY2(child.stderrText.contains(
                     QStringLiteral("ASSERT: \"verifyConnectionSignalParameters(sender, signal, receiver, type)\" in file")),
                 qPrintable(child.stderrText));
        QVERIFY(!child.stdoutText.contains(QStringLiteral("survived")));
    }

    void refusedConnectionEndsTheProcess_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("second unique connection") << "duplicateUnique";
        QTest::newRow("no sender") << "nullSender";
    }
    void refusedConnectionEndsTheProcess()
    {
        QFETCH(QString, scenario);
        const ChildResult child = runChildScenario(scenario);
        QVERIFY(child.finished);
        QCOMPARE(child.status, QProcess::CrashExit);
        QVERIFY2(child.stderrText.contains(QStringLiteral("ASSERT: \"connection\" in file")), qPrintable(child.stderrText));
        QVERIFY(!child.stderrText.contains(QStringLiteral("verifyConnectionSignalParameters")));
        QVERIFY(!child.stdoutText.contains(QStringLiteral("survived")));
    }

    void aChildThatConnectsWellSurvives()
    {
        // The fatal scenarios fail for the reason given, not because every child dies.
        const ChildResult child = runChildScenario(QStringLiteral("fine"));
        QVERIFY(child.finished);
        QCOMPARE(child.status, QProcess::NormalExit);
        QCOMPARE(child.exitCode, 0);
        QVERIFY(child.stdoutText.contains(QStringLiteral("survived")));
    }
};

static int childMain(const QString& scenario)
{
    tarvRegisterMetaTypes();
    Emitter emitter;
    Receiver receiver;
    QThread thread;
    if (scenario == QLatin1String("queuedUnregistered")) {
        tarvConnect(&emitter, &Emitter::unregistered, &receiver, &Receiver::on_emitter_unregistered,
                    Qt::QueuedConnection);
    } else if (scenario == QLatin1String("autoAcrossThreadsUnregistered")) {
        receiver.moveToThread(&thread);
        tarvConnect(&emitter, &Emitter::unregistered, &receiver, &Receiver::on_emitter_unregistered);
    } else if (scenario == QLatin1String("duplicateUnique")) {
        tarvConnect(&emitter, &Emitter::plain, &receiver, &Receiver::on_emitter_plain, Qt::UniqueConnection);
        tarvConnect(&emitter, &Emitter::plain, &receiver, &Receiver::on_emitter_plain, Qt::UniqueConnection);
    } else if (scenario == QLatin1String("nullSender")) {
        const Emitter* none = nullptr;
        tarvConnect(none, &Emitter::plain, &receiver, &Receiver::on_emitter_plain);
    } else if (scenario == QLatin1String("fine")) {
        tarvConnect(&emitter, &Emitter::registered, &receiver, &Receiver::on_emitter_registered, Qt::QueuedConnection);
        tarvConnect(&emitter, &Emitter::plain, &receiver, &Receiver::on_emitter_plain, Qt::UniqueConnection);
    }
    printf("survived\n");
    fflush(stdout);
    return 0;
}

TARV_TEST_MAIN_WITH_CHILDREN(tst_TarvConnect, childMain)
#include "tst_TarvConnect.moc"
