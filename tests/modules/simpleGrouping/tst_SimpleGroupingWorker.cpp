#include <dlfcn.h>

#include <chrono>
#include <memory>

#include <QProcess>
#include <QSignalSpy>
#include <QtTest>

#include <log4cplus/spi/loggingevent.h>

#include <model/cmrequest>
#include <tarv>

#include "GroupingTestHost.h"
#include "LogCapture.h"

#ifndef TARV_SIMPLEGROUPING_MODULE
#error "TARV_SIMPLEGROUPING_MODULE must name the built module file"
#endif

using namespace log4cplus;

namespace {

using WorkerCreate = CMAbstractWorker* (*)(void* first, const QVariantHash& settings);

const QString Worker = QStringLiteral("SimpleGroupingWorker");
const char* const RemoveReceiverSignal = "requestRemoveReceiver(TarvSystemMember)";

} // namespace

// The module as a host loads it: the built shared object opened with
// dlopen, entered through its exported worker_create. Other components of
// the module may add their own nodes; these tests look only at the worker's.
class tst_SimpleGroupingWorker : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<LogCapture> m_log;
    // The moment the worker's init() starts, as it is logged.
    std::unique_ptr<LogHook> m_initHook;
    bool m_initSeen = false;
    std::chrono::steady_clock::time_point m_initAt;
    // Whether the observer's save action existed when the request object
    // announced itself, and when the constructor ended.
    int m_saveNodeWhenRequestCreated = -1;
    int m_saveNodeWhenConstructed = -1;
    std::unique_ptr<GroupingTestHost> m_host;
    void* m_module = nullptr;
    WorkerCreate m_workerCreate = nullptr;
    CMAbstractWorker* m_worker = nullptr;
    std::chrono::steady_clock::time_point m_created;
    int m_initRunsWhenCreated = -1;

    int initRuns() const
    {
        return m_log->count(TRACE_LOG_LEVEL, QStringLiteral("Enter SimpleGroupingWorker::init"), Worker);
    }

    CMActivateNode* removeReceiverNode() const
    {
        return qobject_cast<CMActivateNode*>(CMRoot()->findNode(TarvGroupingMembersRemoveReceiverPath()));
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_log = std::make_unique<LogCapture>();
        m_initHook = std::make_unique<LogHook>([this](const spi::InternalLoggingEvent& event) {
            if (!m_initSeen && event.getLoggerName() == "SimpleGroupingWorker"
                && event.getMessage() == "Enter SimpleGroupingWorker::init") {
                m_initAt = std::chrono::steady_clock::now();
                m_initSeen = true;
            }
            const bool saveNode = CMRoot()->findNode(TarvGroupingPersistentGroupSavePath()) != nullptr;
            if (event.getMessage() == "Created SimpleGroupingRequest")
                m_saveNodeWhenRequestCreated = saveNode;
            if (event.getMessage() == "Leave SimpleGroupingWorker::SimpleGroupingWorker")
                m_saveNodeWhenConstructed = saveNode;
        });

        // A device's host: own record, time settings, member list; the
        // receiver link on a port nobody else uses.
        m_host = std::make_unique<GroupingTestHost>(makeMember("A", "Alpha", "alpha.local", "10.0.0.1"), 3000, 1000);
        TarvSetRequestPort(freeUdpPort());

        m_module = dlopen(TARV_SIMPLEGROUPING_MODULE, RTLD_NOW | RTLD_LOCAL);
        QVERIFY2(m_module, dlerror());
        m_workerCreate = reinterpret_cast<WorkerCreate>(dlsym(m_module, "worker_create"));
        QVERIFY2(m_workerCreate, "worker_create is not exported under its plain name");

        m_created = std::chrono::steady_clock::now();
        m_worker = m_workerCreate(nullptr, QVariantHash());
        QVERIFY(m_worker);
        m_initRunsWhenCreated = initRuns();
        // init() is due 100 ms from now; the event loop must be running then
        // for its delay to be measured, so wait here, before any test.
        QTRY_COMPARE_WITH_TIMEOUT(initRuns(), 1, 2000);
    }

    void cleanupTestCase()
    {
        m_initHook.reset();
        // The worker and the module stay: the module's components live for
        // the whole process, as they do in a host.
    }

    void workerCreateIsExportedUndecorated()
    {
        // dlsym of the plain name succeeded in initTestCase; it is the
        // module's own symbol, not one found elsewhere.
        Dl_info info;
        QVERIFY(dladdr(reinterpret_cast<void*>(m_workerCreate), &info));
        QCOMPARE(QByteArray(info.dli_sname), QByteArray("worker_create"));
        QCOMPARE(QFileInfo(QString::fromLocal8Bit(info.dli_fname)).canonicalFilePath(),
                 QFileInfo(QStringLiteral(TARV_SIMPLEGROUPING_MODULE)).canonicalFilePath());
    }

    // Built with hidden visibility: nothing of the module can clash with a
    // host's or another module's symbols.
    void workerCreateIsTheOnlyExportedSymbol()
    {
        QProcess nm;
        nm.start(QStringLiteral(TARV_TEST_NM), {QStringLiteral("-D"), QStringLiteral("--defined-only"),
                                        QStringLiteral(TARV_SIMPLEGROUPING_MODULE)});
        QVERIFY2(nm.waitForFinished(10000), qPrintable(nm.errorString()));
        QCOMPARE(nm.exitCode(), 0);
        QStringList names;
        for (const QString& line : QString::fromLocal8Bit(nm.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QString name = line.section(QLatin1Char(' '), -1);
#ifdef TARV_TEST_SANITIZED
            // UBSan's function and vptr checks give the type descriptors they
            // compare (_ZTI, _ZTS) default visibility; they are not our symbols.
            if (name.startsWith(QLatin1String("_ZTI")) || name.startsWith(QLatin1String("_ZTS")))
                continue;
#endif
            names.append(name);
        }
        QCOMPARE(names, QStringList{QStringLiteral("worker_create")});
    }

    void workerCreateGivesTheSimpleGroupingWorker()
    {
        QCOMPARE(QByteArray(m_worker->metaObject()->className()), QByteArray("SimpleGroupingWorker"));
        auto* worker = qobject_cast<CMNodesWorker*>(m_worker);
        QVERIFY(worker);
        QCOMPARE(worker->name(), QStringLiteral("SimpleGroupingWorker"));
        QCOMPARE(worker->prefix(), CMPath("/modules/simpleGrouping"));
        QVERIFY(worker->settings().isEmpty());
        QVERIFY(m_worker->metaObject()->indexOfSignal(RemoveReceiverSignal) >= 0);
        QVERIFY(m_worker->metaObject()->indexOfSlot("init()") >= 0);
        QVERIFY(m_worker->metaObject()->indexOfSlot("on_remove_receiver(CMSetDataRequest)") >= 0);
    }

    void metaObjectDeclaresSignalThenSlotsInOrder()
    {
        QCOMPARE(declaredMethods(*m_worker->metaObject()),
                 QStringList({QStringLiteral("signal requestRemoveReceiver(TarvSystemMember)"),
                              QStringLiteral("slot init()"), QStringLiteral("slot on_remove_receiver(CMSetDataRequest)")}));
    }

    void publishesItsListNodeTitledVopGrouping()
    {
        auto* list = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(CMPath("/modules/simpleGrouping")));
        QVERIFY(list);
        QCOMPARE(list->title().toString(), QStringLiteral("VopGrouping"));
        QCOMPARE(list->nodes(), qobject_cast<CMNodesWorker*>(m_worker)->nodes());
    }

    void publishesTheRemoveReceiverAction()
    {
        CMActivateNode* action = removeReceiverNode();
        QVERIFY(action);
        QCOMPARE(action->path(), CMPath("/grouping/removeReceiver"));
        QCOMPARE(action->nodes(), qobject_cast<CMNodesWorker*>(m_worker)->nodes());
    }

    // The observer is the last component the worker creates.
    void observerIsCreatedAfterTheRequestObject()
    {
        QCOMPARE(m_saveNodeWhenRequestCreated, 0);
        QCOMPARE(m_saveNodeWhenConstructed, 1);
        auto* save = qobject_cast<CMActivateNode*>(CMRoot()->findNode(TarvGroupingPersistentGroupSavePath()));
        QVERIFY(save);
        QCOMPARE(save->nodes(), qobject_cast<CMNodesWorker*>(m_worker)->nodes());
    }

    // The loaded module saves a group: its observer is live.
    void saveActionWritesTheSavedGroup()
    {
        TarvGroupingPersistentGroup group;
        group.setName("Home").setMembers(TarvList<QString>({"B"}));
        const CMReply<QVariant> reply;
        CMRoot()->invoke(TarvGroupingPersistentGroupSavePath(), TarvValue().setGroupingPersistentGroup(group), reply);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(reply.result(), QVariant(true));
        const TarvGroupingPersistentGroup saved =
            TarvValue(CMRoot()->getValue(TarvGroupingPersistentGroupSettingsPath()).toHash()).groupingPersistentGroup();
        QCOMPARE(saved.name(), QStringLiteral("Home"));
        QCOMPARE(saved.members().size(), 2);
        QVERIFY(saved.members().contains("A") && saved.members().contains("B"));
    }

    void constructionIsTraced()
    {
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, QStringLiteral("Enter SimpleGroupingWorker::SimpleGroupingWorker"), Worker),
                 1);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, QStringLiteral("Leave SimpleGroupingWorker::SimpleGroupingWorker"), Worker),
                 1);
    }

    void initRunsOnceAbout100msAfterConstruction()
    {
        QCOMPARE(m_initRunsWhenCreated, 0);
        QVERIFY(m_initSeen);
        const qint64 delay = std::chrono::duration_cast<std::chrono::milliseconds>(m_initAt - m_created).count();
        qInfo("init ran %lld ms after construction", static_cast<long long>(delay));
        QVERIFY2(delay >= 99 && delay < 400, qPrintable(QStringLiteral("init ran after %1 ms").arg(delay)));
        QCOMPARE(initRuns(), 1);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, QStringLiteral("Leave SimpleGroupingWorker::init"), Worker), 1);
    }

    void removeReceiverActivationEmitsRequestRemoveReceiverWithTheMember()
    {
        QSignalSpy removed(m_worker, QByteArray(QByteArray("2") + RemoveReceiverSignal).constData());
        QVERIFY(removed.isValid());
        const TarvSystemMember member = makeMember("R7", "Receiver seven", "r7.local", "10.0.0.77", false);
        const CMReply<QVariant> reply;
        const CMVoidReply view = CMRoot()->invoke(TarvGroupingMembersRemoveReceiverPath(), member, reply);
        // Activations travel through the event loop.
        QCOMPARE(removed.count(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 1, 2000);
        QCOMPARE(qvariant_cast<TarvSystemMember>(removed.at(0).at(0)), member);
        // The slot sets neither result nor error on the request.
        QTRY_VERIFY_WITH_TIMEOUT(view.isFinished(), 2000);
        QVERIFY(!reply.hasError());
        QVERIFY(!reply.result().isValid());
        QCOMPARE(removed.count(), 1);
    }

    void valueThatIsNoHashGivesAnEmptyMember_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::newRow("string") << QVariant(QStringLiteral("R7"));
        QTest::newRow("number") << QVariant(42);
        QTest::newRow("list") << QVariant(QVariantList{QStringLiteral("R7")});
        QTest::newRow("nothing") << QVariant();
    }
    void valueThatIsNoHashGivesAnEmptyMember()
    {
        QFETCH(QVariant, value);
        QSignalSpy removed(m_worker, QByteArray(QByteArray("2") + RemoveReceiverSignal).constData());
        QVERIFY(removed.isValid());
        CMActivateNode* action = removeReceiverNode();
        QVERIFY(action);
        // invoke() carries only hashes; a host may hand the node anything.
        const CMReply<QVariant> reply;
        action->activate(CMSetDataRequest(TarvGroupingMembersRemoveReceiverPath(), value, reply));
        QCOMPARE(removed.count(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 1, 2000);
        const TarvSystemMember member = qvariant_cast<TarvSystemMember>(removed.at(0).at(0));
        QVERIFY(member.isEmpty());
        QCOMPARE(member, TarvSystemMember());
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(!reply.hasError());
    }

    void emptyHashGivesAnEmptyMember()
    {
        QSignalSpy removed(m_worker, QByteArray(QByteArray("2") + RemoveReceiverSignal).constData());
        CMRoot()->invoke(TarvGroupingMembersRemoveReceiverPath(), TarvHash(), CMReply<QVariant>());
        QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 1, 2000);
        QVERIFY(qvariant_cast<TarvSystemMember>(removed.at(0).at(0)).isEmpty());
    }
};

QTEST_GUILESS_MAIN(tst_SimpleGroupingWorker)
#include "tst_SimpleGroupingWorker.moc"
