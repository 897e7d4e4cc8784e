#include "ModuleLoader.h"

#include <dlfcn.h>

#include <QFile>
#include <QFileInfo>

#include "CMAbstractWorker.h"
#include "TarvLog.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("ModuleLoader");
}

// dlerror's text, without the file name it often starts with (the caller
// names the file already).
QString dlerrorText(const QString& file)
{
    const char* text = ::dlerror();
    QString reason = text ? QString::fromLocal8Bit(text) : QStringLiteral("unknown error");
    if (reason.startsWith(file + QStringLiteral(": ")))
        reason = reason.mid(file.size() + 2);
    return reason;
}

} // namespace

CMAbstractWorker* ModuleLoader::load(const QString& path, const QVariantHash& settings, void* first, QString* error)
{
    // An absolute name keeps dlopen from searching the library path for a
    // different file of the same name.
    const QString file = QFileInfo(path).absoluteFilePath();
    ::dlerror();
    void* handle = ::dlopen(QFile::encodeName(file).constData(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        *error = QStringLiteral("cannot load module %1: %2").arg(file, dlerrorText(file));
        return nullptr;
    }
    ::dlerror();
    void* symbol = ::dlsym(handle, "worker_create");
    if (!symbol) {
        *error = QStringLiteral("cannot load module %1: it has no worker_create (%2)").arg(file, dlerrorText(file));
        ::dlclose(handle);
        return nullptr;
    }
    const auto create = reinterpret_cast<CreateFunction>(symbol);
    CMAbstractWorker* worker = create(first, settings);
    if (!worker) {
        *error = QStringLiteral("cannot load module %1: its worker_create returned no worker").arg(file);
        // The module may have left objects behind; its code stays loaded.
        return nullptr;
    }
    m_workers.append(worker);
    LOG4CPLUS_INFO(logger(), "Loaded module " << file << " (worker " << worker->objectName() << ")");
    return worker;
}
