#include "InstalledRoot.h"

#include <QDir>
#include <QFile>

InstalledRoot::InstalledRoot(const QString& root, const QString& prefix)
    : m_root(QDir::cleanPath(root)), m_prefix(prefix)
{
}

QString InstalledRoot::path(const QString& path) const
{
    return QDir::cleanPath(m_root + QLatin1Char('/') + path);
}

QString InstalledRoot::binary(const QString& name) const
{
    return path(m_prefix + QStringLiteral("/bin/") + name);
}

QString InstalledRoot::libraryDir() const
{
    return path(m_prefix + QStringLiteral("/lib/") + QStringLiteral(TARV_LIBRARY_ARCHITECTURE));
}

QString InstalledRoot::moduleDir() const
{
    return libraryDir() + QStringLiteral("/tarv/modules");
}

QProcessEnvironment InstalledRoot::environment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_LIBRARY_PATH"), libraryDir());
    return environment;
}

QString InstalledRoot::writeLauncher(const QString& program, const QString& file, const QString& execPrefix) const
{
    QFile script(file);
    if (!script.open(QIODevice::WriteOnly | QIODevice::Truncate))
        qFatal("cannot write %s", qPrintable(file));
    script.write(QStringLiteral("#!/bin/sh\nexport LD_LIBRARY_PATH='%1'\nexec %2'%3' \"$@\"\n")
                     .arg(libraryDir(), execPrefix.isEmpty() ? QString() : execPrefix + QLatin1Char(' '), binary(program))
                     .toUtf8());
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup
                          | QFile::ReadOther | QFile::ExeOther);
    return file;
}

Command::Result InstalledRoot::tarvctl(const QStringList& arguments) const
{
    return Command::run(binary(QStringLiteral("tarvctl")), arguments, 20000, environment());
}

QString InstalledRoot::readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}
