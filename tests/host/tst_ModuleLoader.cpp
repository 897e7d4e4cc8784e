#include <memory>

#include <QFile>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtTest>

#include "CMListRowsNode.h"
#include "CMNodesWorker.h"
#include "CMRootWorker.h"
#include "HostConfig.h"
#include "HostWorker.h"
#include "LogCapture.h"
#include "ModuleLoader.h"
#include "TarvPaths.h"

class tst_ModuleLoader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theGroupingModuleLoadsAndPublishesItsList()
    {
        // The module reads the host's values while it is created.
        HostConfig config;
        QString error;
        QVERIFY(config.parse({QStringLiteral("tarv-host")}, &error));
        const HostWorker host(config, QStringLiteral("dev-1"), QVariantHash(), nullptr);
        QUdpSocket probe;
        QVERIFY(probe.bind(QHostAddress(QHostAddress::LocalHost), 0));
        TarvSetRequestPort(probe.localPort());
        probe.close();

        LogCapture log;
        ModuleLoader loader;
        CMAbstractWorker* worker = loader.load(QStringLiteral(TARV_TEST_GROUPING_MODULE), QVariantHash(), CMRoot(), &error);
        QVERIFY2(worker, qPrintable(error));
        QCOMPARE(worker->objectName(), QStringLiteral("SimpleGroupingWorker"));
        QCOMPARE(loader.workers(), QList<CMAbstractWorker*>{worker});
        auto* list = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(CMPath("/modules/simpleGrouping")));
        QVERIFY(list);
        QCOMPARE(list->title().toString(), QStringLiteral("VopGrouping"));
        QCOMPARE(log.count(log4cplus::INFO_LOG_LEVEL,
                           QStringLiteral("Loaded module %1 (worker SimpleGroupingWorker)").arg(QStringLiteral(TARV_TEST_GROUPING_MODULE)),
                           QStringLiteral("ModuleLoader")),
                 1);
    }

    void settingsAndTheFirstArgumentReachWorkerCreate()
    {
        ModuleLoader loader;
        QString error;
        int marker = 0;
        const QVariantHash settings{{QStringLiteral("colour"), QStringLiteral("blue")}};
        CMAbstractWorker* worker = loader.load(QStringLiteral(TARV_TEST_MODULE), settings, &marker, &error);
        QVERIFY2(worker, qPrintable(error));
        auto* nodesWorker = qobject_cast<CMNodesWorker*>(worker);
        QVERIFY(nodesWorker);
        QCOMPARE(nodesWorker->settings(), settings);
        QCOMPARE(worker->property("first").value<quintptr>(), reinterpret_cast<quintptr>(&marker));
        delete worker;
    }

    void aMissingFileNamesTheFileAndTheReason()
    {
        ModuleLoader loader;
        QString error;
        QVERIFY(!loader.load(QStringLiteral("/nonexistent/libnothing.so"), QVariantHash(), nullptr, &error));
        QCOMPARE(error, QStringLiteral("cannot load module /nonexistent/libnothing.so: cannot open shared object file: "
                                       "No such file or directory"));
        QVERIFY(loader.workers().isEmpty());
    }

    void aRelativePathIsNamedInFull()
    {
        ModuleLoader loader;
        QString error;
        QVERIFY(!loader.load(QStringLiteral("no-such-module.so"), QVariantHash(), nullptr, &error));
        QCOMPARE(error, QStringLiteral("cannot load module %1: cannot open shared object file: No such file or directory")
                            .arg(QDir::current().absoluteFilePath(QStringLiteral("no-such-module.so"))));
    }

    void aFileThatIsNotASharedObjectNamesTheReason()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("text.so"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(256, 'x'));
        file.close();
        ModuleLoader loader;
        QString error;
        QVERIFY(!loader.load(path, QVariantHash(), nullptr, &error));
        QCOMPARE(error, QStringLiteral("cannot load module %1: invalid ELF header").arg(path));
    }

    void aLibraryWithoutTheEntryNamesTheMissingSymbol()
    {
        ModuleLoader loader;
        QString error;
        QVERIFY(!loader.load(QStringLiteral(TARV_TEST_NOT_A_MODULE), QVariantHash(), nullptr, &error));
        // The library is loaded already (under its soname), which dlerror names.
        QVERIFY2(error.startsWith(QStringLiteral("cannot load module %1: it has no worker_create (")
                                      .arg(QStringLiteral(TARV_TEST_NOT_A_MODULE))),
                 qPrintable(error));
        QVERIFY2(error.endsWith(QStringLiteral("undefined symbol: worker_create)")), qPrintable(error));
    }

    void aModuleThatMakesNoWorkerIsAnError()
    {
        ModuleLoader loader;
        QString error;
        QVERIFY(!loader.load(QStringLiteral(TARV_TEST_MODULE), {{QStringLiteral("returnNull"), true}}, nullptr, &error));
        QCOMPARE(error, QStringLiteral("cannot load module %1: its worker_create returned no worker")
                            .arg(QStringLiteral(TARV_TEST_MODULE)));
        QVERIFY(loader.workers().isEmpty());
    }
};

QTEST_GUILESS_MAIN(tst_ModuleLoader)
#include "tst_ModuleLoader.moc"
