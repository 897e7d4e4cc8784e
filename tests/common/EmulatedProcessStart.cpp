// Linked into every test program of a cross build (tests/CMakeLists.txt),
// never into a native one or into the shipped programs.
//
// qemu-user as Debian 12 ships it (7.2) passes waitid(P_PIDFD, ...) through
// to the kernel but refuses clone(CLONE_PIDFD) with EINVAL. Qt's process
// launcher probes the first to decide on the second, so under that emulator
// every QProcess::start() of an emulated test fails, and with it every test
// that starts a program (a host, tarvctl, its own child scenario). Answering
// the probe with ENOSYS, as a kernel without pidfds would, makes Qt take its
// other path (SIGCHLD and a pipe), which qemu emulates fully. On a real
// device nothing of this is linked.

#include <cerrno>
#include <cstdarg>

#include <dlfcn.h>
#include <sys/syscall.h>

namespace {

// waitid's first argument for "the process of this pidfd" (linux/wait.h).
constexpr long kIdTypePidfd = 3;

using SyscallFunction = long (*)(long, ...);

SyscallFunction realSyscall()
{
    static const SyscallFunction real = reinterpret_cast<SyscallFunction>(dlsym(RTLD_NEXT, "syscall"));
    return real;
}

} // namespace

extern "C" long syscall(long number, ...) noexcept
{
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_waitid && arguments[0] == kIdTypePidfd) {
        errno = ENOSYS;
        return -1;
    }
    return realSyscall()(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
