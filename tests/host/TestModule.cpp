// A module for the loader's tests: its worker shows what worker_create was
// given, and the setting "returnNull" makes worker_create fail.
#include <QVariantHash>

#include "CMNodesWorker.h"

extern "C" CMAbstractWorker* worker_create(void* first, const QVariantHash& settings)
{
    if (settings.value(QStringLiteral("returnNull")).toBool())
        return nullptr;
    auto* worker = new CMNodesWorker(settings, QStringLiteral("TestModuleWorker"));
    worker->setProperty("first", QVariant::fromValue(reinterpret_cast<quintptr>(first)));
    return worker;
}
