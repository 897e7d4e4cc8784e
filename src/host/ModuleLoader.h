#pragma once

#include <QList>
#include <QString>
#include <QVariantHash>

class CMAbstractWorker;

// Loads modules: shared objects exporting
//   extern "C" CMAbstractWorker* worker_create(void* first, const QVariantHash& settings)
// Loaded code is never unloaded: the objects a module creates (its worker,
// nodes and components) live until the process ends.
class ModuleLoader
{
public:
    using CreateFunction = CMAbstractWorker* (*)(void* first, const QVariantHash& settings);

    // Opens the module at `path` and creates its worker with `settings`;
    // `first` is handed through to worker_create. Null with `error` naming
    // the file and the reason when that fails.
    CMAbstractWorker* load(const QString& path, const QVariantHash& settings, void* first, QString* error);

    const QList<CMAbstractWorker*>& workers() const { return m_workers; }

private:
    QList<CMAbstractWorker*> m_workers;
};
