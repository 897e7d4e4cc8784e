#pragma once

#include <functional>

#include <QHostAddress>
#include <QMetaMethod>
#include <QMetaObject>
#include <QStringList>
#include <QUdpSocket>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

// Helpers shared by the module's tests.

// A UDP port that was free a moment ago on every interface (the module's
// listener binds all of them); 0 when none could be had.
inline quint16 freeUdpPort()
{
    QUdpSocket probe;
    if (!probe.bind(QHostAddress::Any, 0, QAbstractSocket::DontShareAddress))
        return 0;
    return probe.localPort();
}

// The signals and slots a class declares itself (not its bases), as
// "signal name(Types)" / "slot name(Types)". Qt lists a class's signals
// before its slots, each kind in declaration order.
inline QStringList declaredMethods(const QMetaObject& metaObject)
{
    QStringList methods;
    for (int i = metaObject.methodOffset(); i < metaObject.methodCount(); ++i) {
        const QMetaMethod method = metaObject.method(i);
        const QString kind = method.methodType() == QMetaMethod::Signal ? QStringLiteral("signal ")
            : method.methodType() == QMetaMethod::Slot                  ? QStringLiteral("slot ")
                                                                        : QStringLiteral("method ");
        methods.append(kind + QString::fromLatin1(method.methodSignature()));
    }
    return methods;
}

// Calls `onEvent` for every log event while it exists, at the moment the
// line is written, so a test can look at the state of things right then.
// It sees what the loggers let through (a LogCapture made before it sets
// them all to TRACE; one made after it removes it).
class LogHook
{
public:
    using Handler = std::function<void(const log4cplus::spi::InternalLoggingEvent&)>;

    explicit LogHook(Handler onEvent)
        : m_appender(new Appender(std::move(onEvent)))
    {
        log4cplus::Logger::getRoot().addAppender(m_appender);
    }
    ~LogHook() { log4cplus::Logger::getRoot().removeAppender(m_appender); }
    LogHook(const LogHook&) = delete;
    LogHook& operator=(const LogHook&) = delete;

private:
    class Appender : public log4cplus::Appender
    {
    public:
        explicit Appender(Handler onEvent)
            : m_onEvent(std::move(onEvent))
        {
        }
        ~Appender() override { destructorImpl(); }
        void close() override {}

    protected:
        void append(const log4cplus::spi::InternalLoggingEvent& event) override { m_onEvent(event); }

    private:
        Handler m_onEvent;
    };

    log4cplus::SharedAppenderPtr m_appender;
};
