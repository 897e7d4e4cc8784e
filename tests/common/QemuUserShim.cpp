// Preloaded into every program a cross build's tests run under qemu-user
// (tests/CMakeLists.txt: the emulator command sets LD_PRELOAD for the
// emulated program only). Never part of a native build or of the shipped
// programs: it fills two gaps of qemu-user as Debian 12 ships it (7.2),
// each only where qemu itself refuses, so that a later qemu that does the
// right thing is left alone.
//
// - qemu passes waitid(P_PIDFD, ...) through to the kernel but refuses
//   clone(CLONE_PIDFD) with EINVAL. Qt's process launcher probes the first
//   to decide on the second, so every QProcess::start() failed. The probe
//   is answered with ENOSYS, as by a kernel without pidfds, and Qt takes
//   its other path (SIGCHLD and a pipe), which qemu emulates fully.
// - qemu refuses setsockopt(IP_MULTICAST_IF) with ENOPROTOOPT, so a
//   discovery socket told to announce on loopback announced on the
//   machine's default interface, from its address, and hosts on 127.0.0.1
//   never heard each other. The socket's choice is kept here instead, and
//   each datagram it sends without ancillary data of its own names that
//   interface and source address (IP_PKTINFO, which qemu passes on): what
//   the option does for every datagram.

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

#include <dlfcn.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// waitid's first argument for "the process of this pidfd" (linux/wait.h).
constexpr long kIdTypePidfd = 3;

using SyscallFunction = long (*)(long, ...);
using SetsockoptFunction = int (*)(int, int, int, const void*, socklen_t);

template<typename Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// The index of the interface that has `address`, 0 when none has.
unsigned interfaceWithAddress(in_addr address)
{
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0)
        return 0;
    unsigned index = 0;
    for (const ifaddrs* entry = interfaces; entry && index == 0; entry = entry->ifa_next) {
        if (entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET
            && reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr.s_addr == address.s_addr)
            index = if_nametoindex(entry->ifa_name);
    }
    freeifaddrs(interfaces);
    return index;
}

// The multicast interface each socket asked for, by descriptor: the
// interface index in the high half, the IPv4 source address in the low
// half, 0 for none. Sockets of several threads meet here.
std::array<std::atomic<std::uint64_t>, 4096> multicastInterfaces;

std::uint64_t multicastInterfaceOf(int fd)
{
    return fd >= 0 && static_cast<std::size_t>(fd) < multicastInterfaces.size() ? multicastInterfaces[fd].load() : 0;
}

void setMulticastInterface(int fd, std::uint64_t choice)
{
    if (fd >= 0 && static_cast<std::size_t>(fd) < multicastInterfaces.size())
        multicastInterfaces[fd].store(choice);
}

// The emulated programs this one starts get the library through their
// emulator's command line; a program of the build machine started from
// here (qemu itself) must not try to preload it.
__attribute__((constructor)) void forgetPreload()
{
    unsetenv("LD_PRELOAD");
}

} // namespace

extern "C" long syscall(long number, ...) noexcept
{
    static const SyscallFunction real = next<SyscallFunction>("syscall");
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
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

extern "C" int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept
{
    static const SetsockoptFunction real = next<SetsockoptFunction>("setsockopt");
    const int result = real(fd, level, option, value, length);
    if (result == 0 || errno != ENOPROTOOPT || level != IPPROTO_IP || option != IP_MULTICAST_IF || !value
        || static_cast<std::size_t>(fd) >= multicastInterfaces.size())
        return result;
    in_addr source{};
    unsigned index = 0;
    if (length >= sizeof(ip_mreqn)) {
        const ip_mreqn* request = static_cast<const ip_mreqn*>(value);
        source = request->imr_address;
        index = request->imr_ifindex > 0 ? static_cast<unsigned>(request->imr_ifindex)
                                         : interfaceWithAddress(request->imr_address);
    } else if (length >= sizeof(in_addr)) {
        source = *static_cast<const in_addr*>(value);
        index = interfaceWithAddress(source);
    }
    if (index == 0) {
        errno = ENOPROTOOPT;
        return -1;
    }
    setMulticastInterface(fd, (std::uint64_t(index) << 32) | source.s_addr);
    return 0;
}

extern "C" ssize_t sendmsg(int fd, const msghdr* message, int flags)
{
    static const auto real = next<ssize_t (*)(int, const msghdr*, int)>("sendmsg");
    const std::uint64_t choice = multicastInterfaceOf(fd);
    if (choice == 0 || !message || message->msg_controllen != 0)
        return real(fd, message, flags);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr withInterface = *message;
    withInterface.msg_control = control;
    withInterface.msg_controllen = sizeof(control);
    cmsghdr* header = CMSG_FIRSTHDR(&withInterface);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = static_cast<int>(choice >> 32);
    info.ipi_spec_dst.s_addr = static_cast<in_addr_t>(choice & 0xffffffffu);
    std::memcpy(CMSG_DATA(header), &info, sizeof(info));
    return real(fd, &withInterface, flags);
}

// A descriptor number is used again for other sockets once closed.
extern "C" int close(int fd)
{
    static const auto real = next<int (*)(int)>("close");
    setMulticastInterface(fd, 0);
    return real(fd);
}
