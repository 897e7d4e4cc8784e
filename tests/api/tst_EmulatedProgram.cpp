#include <QSysInfo>
#include <QtTest>

#include "ChildProcess.h"
#include "EmulatedProgram.h"

class tst_EmulatedProgram : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The test program starts itself again: the child says which processor
    // it finds itself running on, which has to be the one it was built for
    // (under an emulator: the emulated one).
    void aProgramOfThisBuildRunsAsTheArchitectureItWasBuiltFor()
    {
        const ChildResult child = runChildScenario(QStringLiteral("architecture"), EmulatedProgram::scaled(10000));
        QVERIFY2(child.finished, qPrintable(child.stderrText));
        QCOMPARE(child.status, QProcess::NormalExit);
        QCOMPARE(child.exitCode, 0);
        QCOMPARE(child.stdoutText.trimmed(), QSysInfo::buildCpuArchitecture());
    }

    void theEmulatorIsUsedExactlyInACrossBuild()
    {
        QCOMPARE(EmulatedProgram::isEmulated(), bool(TARV_TEST_CROSSCOMPILING));
        const QStringList arguments{QStringLiteral("--flag"), QStringLiteral("value")};
        if (!EmulatedProgram::isEmulated()) {
            QCOMPARE(EmulatedProgram::program(QStringLiteral("/x/prog")), QStringLiteral("/x/prog"));
            QCOMPARE(EmulatedProgram::arguments(QStringLiteral("/x/prog"), arguments), arguments);
            return;
        }
        const QStringList emulator = EmulatedProgram::emulator();
        QCOMPARE(EmulatedProgram::program(QStringLiteral("/x/prog")), emulator.first());
        QCOMPARE(EmulatedProgram::arguments(QStringLiteral("/x/prog"), arguments),
                 emulator.mid(1) + QStringList{QStringLiteral("/x/prog")} + arguments);
    }

    void timeBoundsScaleOnlyUnderEmulation()
    {
        if (EmulatedProgram::isEmulated())
            QVERIFY2(EmulatedProgram::slowdown() > 1, qPrintable(QString::number(EmulatedProgram::slowdown())));
        else
            QCOMPARE(EmulatedProgram::slowdown(), 1);
        QCOMPARE(EmulatedProgram::scaled(250), 250 * EmulatedProgram::slowdown());
    }
};

static int childMain(const QString& scenario)
{
    if (scenario == QLatin1String("architecture")) {
        QTextStream(stdout) << QSysInfo::currentCpuArchitecture() << '\n';
        return 0;
    }
    return 2;
}

TARV_TEST_MAIN_WITH_CHILDREN(tst_EmulatedProgram, childMain)
#include "tst_EmulatedProgram.moc"
