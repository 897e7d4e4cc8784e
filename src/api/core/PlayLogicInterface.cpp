#include "PlayLogicInterface.h"

#include <QCoreApplication>

#include "CMRootWorker.h"
#include "TarvPaths.h"

PlayLogicInterface* PlayLogicInterface::playerInstance()
{
    static PlayLogicInterface* player = new PlayLogicInterface;
    return player;
}

PlayLogicInterface::PlayLogicInterface()
{
    moveToThread(CMRoot()->thread());
    CMRoot()->connectValueChange(TarvPlayerDataPath(), this, &PlayLogicInterface::on_root_valueChanged);
}

TarvPlayLogicData PlayLogicInterface::data() const
{
    return TarvPlayLogicData(CMRoot()->getValue(TarvPlayerDataPath()).toHash());
}

CMPath PlayLogicInterface::dataPath() const
{
    return TarvPlayerDataPath();
}

void PlayLogicInterface::on_root_valueChanged(const CMPath& path, const QVariant& value)
{
    Q_UNUSED(path);
    Q_EMIT dataChanged(TarvPlayLogicData(value.toHash()));
}
