#pragma once

#include <QObject>

#include "CMPath.h"
#include "TarvPlayLogicData.h"

// The player's logic as other parts see it: its data at /player/data.
class PlayLogicInterface : public QObject
{
    Q_OBJECT

public:
    // The process's player; lives for the process.
    static PlayLogicInterface* playerInstance();

    TarvPlayLogicData data() const;
    // Where the player's data lives, for those who follow its changes
    // through the root worker.
    CMPath dataPath() const;

Q_SIGNALS:
    void dataChanged(const TarvPlayLogicData& data);

private:
    PlayLogicInterface();
    void on_root_valueChanged(const CMPath& path, const QVariant& value);
};
