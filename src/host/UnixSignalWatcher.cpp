#include "UnixSignalWatcher.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "TarvConnect.h"
#include "TarvLog.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("UnixSignalWatcher");
}

// Written by the signal handler, so a plain int the handler may read.
int pipeFds[2] = {-1, -1};

} // namespace

UnixSignalWatcher::UnixSignalWatcher(const QList<int>& signalNumbers, QObject* parent)
    : QObject(parent), m_signals(signalNumbers)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pipeFds) != 0) {
        LOG4CPLUS_ERROR(logger(), "Cannot create the signal socket pair; signals end the process at once");
        return;
    }
    ::fcntl(pipeFds[0], F_SETFL, O_NONBLOCK);
    ::fcntl(pipeFds[1], F_SETFL, O_NONBLOCK);
    m_notifier = new QSocketNotifier(pipeFds[0], QSocketNotifier::Read, this);
    tarvConnect(m_notifier, &QSocketNotifier::activated, this, &UnixSignalWatcher::on_notifier_activated);
    for (int number : qAsConst(m_signals)) {
        struct sigaction action = {};
        action.sa_handler = &UnixSignalWatcher::handle;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        ::sigaction(number, &action, nullptr);
    }
}

UnixSignalWatcher::~UnixSignalWatcher()
{
    for (int number : qAsConst(m_signals))
        ::signal(number, SIG_DFL);
    if (m_notifier) {
        delete m_notifier;
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        pipeFds[0] = pipeFds[1] = -1;
    }
}

void UnixSignalWatcher::handle(int signalNumber)
{
    const char byte = static_cast<char>(signalNumber);
    const int saved = errno;
    // Nothing else is safe here; a full pipe means a signal is pending anyway.
    [[maybe_unused]] const ssize_t written = ::write(pipeFds[1], &byte, 1);
    errno = saved;
}

void UnixSignalWatcher::on_notifier_activated()
{
    char byte = 0;
    while (::read(pipeFds[0], &byte, 1) == 1)
        Q_EMIT signalReceived(static_cast<unsigned char>(byte));
}
