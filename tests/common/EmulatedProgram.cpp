#include "EmulatedProgram.h"

QStringList EmulatedProgram::emulator()
{
#ifdef TARV_TEST_EMULATOR
    // The program, then its arguments, joined with '|' at configure time.
    return QString::fromUtf8(TARV_TEST_EMULATOR).split(QLatin1Char('|'), Qt::SkipEmptyParts);
#else
    return QStringList();
#endif
}

QString EmulatedProgram::program(const QString& binary)
{
    const QStringList command = emulator();
    return command.isEmpty() ? binary : command.first();
}

QStringList EmulatedProgram::arguments(const QString& binary, const QStringList& arguments)
{
    QStringList command = emulator();
    if (command.isEmpty())
        return arguments;
    command.removeFirst();
    return command + QStringList{binary} + arguments;
}

void EmulatedProgram::start(QProcess& process, const QString& binary, const QStringList& arguments)
{
    process.start(program(binary), EmulatedProgram::arguments(binary, arguments));
}

int EmulatedProgram::slowdown()
{
#ifdef TARV_TEST_SLOWDOWN
    // Configured with the emulator (tests/CMakeLists.txt), where it also
    // scales the tests' CTest timeouts.
    return TARV_TEST_SLOWDOWN;
#else
    return 1;
#endif
}

int EmulatedProgram::scaled(int msecs)
{
    return msecs * slowdown();
}
