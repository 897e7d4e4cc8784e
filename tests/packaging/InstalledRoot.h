#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include "Command.h"

// An installation of this project under `root` (a DESTDIR staging directory
// or a root that dpkg installed into) with its files under `prefix`, run from
// this machine. The installed programs carry no library path (as on a
// device, where the linker finds libtarv_api.so under /usr), so here the
// installed library is named through LD_LIBRARY_PATH; everything else they
// find on their own, relative to where they are.
class InstalledRoot
{
public:
    explicit InstalledRoot(const QString& root, const QString& prefix = QStringLiteral("/usr"));

    const QString& root() const { return m_root; }
    // The absolute path `path` of the installed system, inside the root.
    QString path(const QString& path) const;
    QString binary(const QString& name) const;
    QString libraryDir() const;
    QString moduleDir() const;
    QProcessEnvironment environment() const;

    // Writes an executable shell script `file` that runs the installed
    // `program` with the script's arguments; `execPrefix` is shell text put
    // before the program (another program that runs it, e.g. setpriv ...).
    QString writeLauncher(const QString& program, const QString& file, const QString& execPrefix = QString()) const;
    Command::Result tarvctl(const QStringList& arguments) const;

    // A text file's contents (of the installed system or any other); empty
    // when it cannot be read.
    static QString readFile(const QString& path);

private:
    QString m_root;
    QString m_prefix;
};
