#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// How a test starts a program of this build. In a cross build the program
// is of another architecture and runs under the build's emulator (CMake's
// CMAKE_CROSSCOMPILING_EMULATOR, e.g. qemu-aarch64), called directly rather
// than through binfmt registration, which containers often lack; natively
// it runs as it is.
class EmulatedProgram
{
public:
    // The emulator's command, empty in a native build.
    static QStringList emulator();
    static bool isEmulated() { return !emulator().isEmpty(); }
    // The program QProcess starts for `binary`, and its arguments.
    static QString program(const QString& binary);
    static QStringList arguments(const QString& binary, const QStringList& arguments);
    // process.start() of `binary` with `arguments`, through the emulator
    // when there is one.
    static void start(QProcess& process, const QString& binary, const QStringList& arguments);

    // How many times longer a time bound is under emulation: 1 in a native
    // build, the cross build's TARV_TEST_SLOWDOWN (a CMake setting, 6 by
    // default: qemu-user translates code on first use and runs it slower).
    // Every bound a test scales for emulation goes through this one factor,
    // so native runs keep their bounds exactly.
    static int slowdown();
    // msecs times slowdown().
    static int scaled(int msecs);
};
