#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

#include "AnnouncementGate.h"
#include "CMRootWorker.h"
#include "LogCapture.h"
#include "TarvPaths.h"
#include "TarvSystemMemberTranscoderState.h"
#include "TarvValue.h"

using namespace log4cplus;

namespace {
const QString Gate = QStringLiteral("AnnouncementGate");

void setDeviceState(TarvTranscoderState::Enum type)
{
    TarvSystemMemberTranscoderState state;
    state.setId(QStringLiteral("dev-1")).setType(type);
    CMRoot()->setValue(TarvDeviceStatePath(), TarvValue().setSystemMemberTranscoderState(state), CMReply<QVariant>());
}

AnnouncementGate::Options withModules(int waitMs)
{
    AnnouncementGate::Options options;
    options.modulesLoaded = true;
    options.deviceStateWaitMs = waitMs;
    return options;
}
} // namespace

class tst_AnnouncementGate : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<LogCapture> m_log;

private Q_SLOTS:
    void init()
    {
        m_log = std::make_unique<LogCapture>();
        // As the host defines it: empty until a module sets it.
        CMRoot()->defineValue(TarvDeviceStatePath(), QVariantHash());
    }

    void cleanup()
    {
        CMRoot()->undefineValue(TarvDeviceStatePath());
        m_log.reset();
    }

    void withoutModulesItOpensAtStart()
    {
        AnnouncementGate gate({});
        QSignalSpy opened(&gate, &AnnouncementGate::opened);
        QVERIFY(!gate.isOpen());
        gate.start();
        QVERIFY(gate.isOpen());
        QCOMPARE(opened.count(), 1);
        QVERIFY(m_log->messages(WARN_LOG_LEVEL, Gate).isEmpty());
    }

    void withModulesItOpensWhenAStateIsSet()
    {
        AnnouncementGate gate(withModules(5000));
        QSignalSpy opened(&gate, &AnnouncementGate::opened);
        gate.start();
        QVERIFY(!gate.isOpen());
        setDeviceState(TarvTranscoderState::Transcoder);
        QVERIFY(gate.isOpen());
        QCOMPARE(opened.count(), 1);
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Gate), QStringList{"/system/deviceState is set; announcing this device"});
        // Open for good: later states change nothing.
        setDeviceState(TarvTranscoderState::Receiver);
        QCOMPARE(opened.count(), 1);
    }

    void aStateSetBeforeTheStartOpensAtStart()
    {
        setDeviceState(TarvTranscoderState::Transcoder);
        AnnouncementGate gate(withModules(5000));
        QSignalSpy opened(&gate, &AnnouncementGate::opened);
        gate.start();
        QVERIFY(gate.isOpen());
        QCOMPARE(opened.count(), 1);
    }

    // A module that never sets a state does not keep the device unheard.
    void withoutAStateItOpensAfterTheWaitWithAWarning()
    {
        AnnouncementGate gate(withModules(400));
        QSignalSpy opened(&gate, &AnnouncementGate::opened);
        QElapsedTimer clock;
        clock.start();
        gate.start();
        QTRY_COMPARE_WITH_TIMEOUT(opened.count(), 1, 2000);
        QVERIFY2(clock.elapsed() >= 400, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(m_log->messages(WARN_LOG_LEVEL, Gate),
                 QStringList{"No module set /system/deviceState within 400 ms; announcing this device anyway"});
        setDeviceState(TarvTranscoderState::Transcoder);
        QCOMPARE(opened.count(), 1);
        QVERIFY(m_log->messages(INFO_LOG_LEVEL, Gate).isEmpty());
    }
};

QTEST_GUILESS_MAIN(tst_AnnouncementGate)
#include "tst_AnnouncementGate.moc"
