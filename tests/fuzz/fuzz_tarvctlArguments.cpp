// tarvctl's command line: options anywhere, values after "=" or as the next
// argument, "--", numbers, JSON values and API URLs.
//
// Input: the arguments separated by zero bytes.

#include <cstdint>

#include <QStringList>

#include "CtlArguments.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = (fuzzSetUpProcess(), true);
    Q_UNUSED(ready)
    const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QStringList arguments;
    for (const QByteArray& argument : input.split('\0'))
        arguments.append(QString::fromLocal8Bit(argument));
    CtlArguments parsed;
    parsed.parse(arguments, QStringLiteral("http://127.0.0.1:8080"));
    return 0;
}
