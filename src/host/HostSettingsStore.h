#pragma once

#include <functional>

#include <QLockFile>
#include <QScopedPointer>
#include <QString>
#include <QVariantHash>

#include "CMPath.h"

// The files a host keeps in its data directory:
//  - settings.json: persisted values by path, {"format": 1, "values": {path: value}};
//  - device-id: the generated device id, one line;
//  - tarv-host.lock: held while a host uses the directory.
// Every write is atomic (temporary file, fsync, rename, fsync of the
// directory), so a crash leaves the old or the new file, never a torn one.
// A file that cannot be used is never overwritten: it is renamed to
// <name>.corrupt-<timestamp> and reported.
class HostSettingsStore
{
public:
    // Checks one persisted value; empty when acceptable, else the reason.
    using EntryValidator = std::function<QString(const CMPath& path, const QVariant& value)>;

    enum class LoadResult {
        Missing,  // no settings file yet: nothing persisted
        Loaded,   // values read
        SetAside, // the file was unusable and has been renamed; start from defaults
        Failed,   // the file was unusable and could not be set aside: do not run
    };

    static QString settingsFileName() { return QStringLiteral("settings.json"); }
    static QString idFileName() { return QStringLiteral("device-id"); }
    static QString lockFileName() { return QStringLiteral("tarv-host.lock"); }
    static QString tempSuffix() { return QStringLiteral(".tmp"); }
    static constexpr int Format = 1;
    // A settings file larger than this is not read (it cannot be ours).
    static constexpr qint64 MaxFileSize = 1024 * 1024;

    explicit HostSettingsStore(const QString& dataDir);
    ~HostSettingsStore();

    const QString& dataDir() const { return m_dataDir; }
    QString settingsFile() const;

    // Creates the directory when needed and takes the lock, so that two
    // hosts never share one directory.
    bool open(QString* error);

    // Reads the persisted values. Every value must pass `validator`, or the
    // whole file counts as unusable. `report` says what happened when it was
    // not simply Loaded or Missing.
    LoadResult load(const EntryValidator& validator, QVariantHash* values, QString* report);
    bool save(const QVariantHash& values, QString* error);

    // The kept device id, or a new one that is kept from now on. Empty with
    // `error` set when no id can be kept.
    QString loadOrCreateId(QString* error);

    // Replaces `file` atomically with `contents`.
    static bool writeAtomically(const QString& file, const QByteArray& contents, QString* error);

private:
    // Renames an unusable file out of the way; false when that failed.
    bool setAside(const QString& file, QString* newName, QString* error);

    QString m_dataDir;
    QScopedPointer<QLockFile> m_lock;
};
