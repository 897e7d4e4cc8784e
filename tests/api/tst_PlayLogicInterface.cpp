#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"

class tst_PlayLogicInterface : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oneInstanceOnTheRootsThread()
    {
        PlayLogicInterface* player = PlayLogicInterface::playerInstance();
        QVERIFY(player);
        QCOMPARE(PlayLogicInterface::playerInstance(), player);
        QCOMPARE(player->thread(), CMRoot()->thread());
    }

    void dataPathIsThePlayerDataPath()
    {
        QCOMPARE(PlayLogicInterface::playerInstance()->dataPath(), TarvPlayerDataPath());
        QCOMPARE(PlayLogicInterface::playerInstance()->dataPath().toString(), QStringLiteral("/player/data"));
    }

    void dataIsEmptyUntilThePlayerPublishes()
    {
        QVERIFY(PlayLogicInterface::playerInstance()->data().isEmpty());
        QCOMPARE(PlayLogicInterface::playerInstance()->data().state(), 0);
    }

    void dataFollowsThePlayerDataPath()
    {
        PlayLogicInterface* player = PlayLogicInterface::playerInstance();
        QSignalSpy changed(player, &PlayLogicInterface::dataChanged);
        CMRoot()->defineValue(TarvPlayerDataPath(), TarvPlayLogicData().setState(0));
        QCOMPARE(changed.count(), 1);
        CMRoot()->setValue(TarvPlayerDataPath(), TarvValue(TarvPlayLogicData().setState(2).hash()), CMReply<QVariant>());
        QCOMPARE(player->data().state(), 2);
        QCOMPARE(changed.count(), 2);
        QCOMPARE(changed.at(1).at(0).value<TarvPlayLogicData>().state(), 2);
        // An equal write is no change.
        CMRoot()->setValue(TarvPlayerDataPath(), TarvValue(TarvPlayLogicData().setState(2).hash()), CMReply<QVariant>());
        QCOMPARE(changed.count(), 2);
        CMRoot()->undefineValue(TarvPlayerDataPath());
    }
};

QTEST_GUILESS_MAIN(tst_PlayLogicInterface)
#include "tst_PlayLogicInterface.moc"
