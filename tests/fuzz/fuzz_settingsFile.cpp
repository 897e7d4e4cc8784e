// The settings file a host reads at start: size and JSON checks, the format
// number, every persisted value through the host's own validator, and the
// setting aside of an unusable file.

#include <cstdint>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "FuzzSupport.h"
#include "HostSettingsStore.h"
#include "HostWorker.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = (fuzzSetUpProcess(), true);
    static QTemporaryDir dir;
    Q_UNUSED(ready)
    QDir folder(dir.path());
    // Whatever the previous input left (a set-aside file) goes first.
    for (const QString& name : folder.entryList(QDir::Files | QDir::Hidden))
        folder.remove(name);

    HostSettingsStore store(dir.path());
    QFile file(store.settingsFile());
    if (!file.open(QIODevice::WriteOnly))
        abort();
    file.write(reinterpret_cast<const char*>(data), static_cast<qint64>(size));
    file.close();

    QVariantHash values;
    QString report;
    const HostSettingsStore::LoadResult result = store.load(&HostWorker::checkPersisted, &values, &report);
    // A file that loads must give values that save and load back the same.
    if (result == HostSettingsStore::LoadResult::Loaded) {
        QString error;
        if (!store.save(values, &error))
            abort();
        QVariantHash again;
        if (store.load(&HostWorker::checkPersisted, &again, &report) != HostSettingsStore::LoadResult::Loaded
            || again != values)
            abort();
    }
    return 0;
}
