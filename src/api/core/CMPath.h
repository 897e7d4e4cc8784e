#pragma once

#include <ostream>

#include <QDebug>
#include <QMetaType>
#include <QPair>
#include <QString>
#include <QStringList>

#include "TarvHash.h"

// A host path: "/"-separated segments from the root ("/grouping/members").
// Kept normalised (leading "/", no trailing or doubled "/"); the default
// path is empty.
class CMPath
{
public:
    CMPath() = default;
    CMPath(const QString& path); // NOLINT: paths are written as strings everywhere
    CMPath(const char* path);    // NOLINT

    bool isEmpty() const { return m_path.isEmpty(); }
    const QString& toString() const { return m_path; }
    QStringList segments() const;

    // Appends one segment (or several, when it contains "/").
    CMPath operator+(const QString& segment) const;
    // Splits off the last segment: ("/a/b", "c") for "/a/b/c".
    QPair<CMPath, QString> splitBase() const;
    // True when this path is `base` or lies below it.
    bool startsWith(const CMPath& base) const;

    bool operator==(const CMPath& other) const { return m_path == other.m_path; }
    bool operator!=(const CMPath& other) const { return m_path != other.m_path; }
    bool operator<(const CMPath& other) const { return m_path < other.m_path; }

private:
    QString m_path;
};

uint qHash(const CMPath& path, uint seed = 0);
std::ostream& operator<<(std::ostream& out, const CMPath& path);
QDebug operator<<(QDebug debug, const CMPath& path);

template <>
struct TarvFieldTraits<CMPath>
{
    static CMPath fromVariant(const QVariant& value) { return CMPath(value.toString()); }
    static QVariant toVariant(const CMPath& value) { return value.toString(); }
};

Q_DECLARE_METATYPE(CMPath)
