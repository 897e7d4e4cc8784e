#pragma once

#include <sys/resource.h>

#include <QCoreApplication>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QtTest>

#include "EmulatedProgram.h"

// Fatal paths (assertions, fatal log lines) end the process, so they run in
// a child: the test binary starts itself again with TARV_TEST_CHILD set to a
// scenario name. Either main() runs only that scenario
// (TARV_TEST_MAIN_WITH_CHILDREN), or the scenario is a test function passed
// as the child's argument so that QtTest runs just that one (isChildRun()
// tells the function which side it is on).

struct ChildResult
{
    bool finished = false;
    QProcess::ExitStatus status = QProcess::NormalExit;
    int exitCode = 0;
    QString stdoutText;
    QString stderrText;
};

inline bool isChildRun()
{
    return qEnvironmentVariableIsSet("TARV_TEST_CHILD");
}

inline ChildResult runChildScenario(const QString& scenario, int timeoutMs = 10000,
                                    const QStringList& arguments = QStringList())
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TARV_TEST_CHILD"), scenario);
    child.setProcessEnvironment(env);
    EmulatedProgram::start(child, QCoreApplication::applicationFilePath(), arguments);
    ChildResult result;
    result.finished = child.waitForFinished(timeoutMs);
    if (!result.finished) {
        child.kill();
        child.waitForFinished(1000);
    }
    result.status = child.exitStatus();
    result.exitCode = child.exitCode();
    result.stdoutText = QString::fromUtf8(child.readAllStandardOutput());
    result.stderrText = QString::fromUtf8(child.readAllStandardError());
    return result;
}

// A child that aborts on purpose should not leave core files behind.
inline void disableCoreDumps()
{
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

// main() of a test with child scenarios: `childMain(name)` runs one scenario
// and returns the child's exit code (reaching the return means the expected
// fatal end did not happen).
#define TARV_TEST_MAIN_WITH_CHILDREN(TestObject, childMain)                                                            \
    int main(int argc, char** argv)                                                                                    \
    {                                                                                                                  \
        QCoreApplication app(argc, argv);                                                                              \
        const QByteArray scenario = qgetenv("TARV_TEST_CHILD");                                                        \
        if (!scenario.isEmpty()) {                                                                                     \
            disableCoreDumps();                                                                                        \
            return childMain(QString::fromUtf8(scenario));                                                             \
        }                                                                                                              \
        TestObject tc;                                                                                                 \
        QTEST_SET_MAIN_SOURCE_PATH                                                                                     \
        return QTest::qExec(&tc, argc, argv);                                                                          \
    }
