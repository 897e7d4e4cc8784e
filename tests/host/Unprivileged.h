#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>

// While it exists, a process running as root acts as the unprivileged user
// "nobody", so file permissions apply to it the way they apply to a
// device's service account. Does nothing for a process that is not root.
// `makeReachable` opens a directory to others so that "nobody" can reach it.
class Unprivileged
{
public:
    static constexpr uid_t NobodyId = 65534;

    Unprivileged()
    {
        if (::geteuid() == 0)
            m_dropped = ::setegid(NobodyId) == 0 && ::seteuid(NobodyId) == 0;
    }
    ~Unprivileged()
    {
        if (m_dropped) {
            [[maybe_unused]] const int uid = ::seteuid(0);
            [[maybe_unused]] const int gid = ::setegid(0);
        }
    }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

    static bool makeReachable(const QString& dir)
    {
        return ::chmod(dir.toLocal8Bit().constData(), 0755) == 0;
    }
    static bool makeReadOnly(const QString& dir)
    {
        return ::chmod(dir.toLocal8Bit().constData(), 0555) == 0;
    }

private:
    bool m_dropped = false;
};
