#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

// tarvctl's command line: the command, its arguments and the options, with
// every check that needs no host (unknown command or option, missing or
// surplus argument, an option the command does not take, a number that is
// not one). Values given as JSON are checked by the command itself.
class CtlArguments
{
public:
    // Parses the arguments after the program name. `apiFromEnvironment` is
    // TARV_API's value, `deviceFromEnvironment` TARV_DEVICE's (empty when
    // unset). On failure error() says what is wrong in one sentence.
    bool parse(const QStringList& arguments, const QString& apiFromEnvironment = QString(),
               const QString& deviceFromEnvironment = QString());
    const QString& error() const { return m_error; }

    bool help() const { return m_help; }
    bool version() const { return m_version; }
    bool json() const { return m_json; }
    bool verbose() const { return m_verbose; }
    // The API's URL as given (option, then TARV_API, then the default).
    const QString& api() const { return m_api; }
    // Where the API URL came from, for messages: "--api", "TARV_API" or "default".
    const QString& apiSource() const { return m_apiSource; }

    // The device the command is aimed at through the host (--device, then
    // TARV_DEVICE); empty: the host itself.
    const QString& device() const { return m_device; }
    // Where it came from, for messages: "--device" or "TARV_DEVICE".
    const QString& deviceSource() const { return m_deviceSource; }

    const QString& command() const { return m_command; }
    // The command's positional arguments, without the command itself.
    const QStringList& arguments() const { return m_arguments; }

    bool hasOption(const QString& name) const { return m_options.contains(name); }
    QString option(const QString& name) const { return m_options.value(name); }
    // Numeric options, already checked; -1 when not given.
    int timeoutMs() const { return m_timeoutMs; }
    int count() const { return m_count; }

    // The text of --help.
    static QString usage();

private:
    bool fail(const QString& error);
    bool checkCommand();
    // `ui` alone (optionally --watch), `ui join NAME|ID` or `ui leave`.
    bool checkUi();
    // Only what the host forwards can be aimed at another device.
    bool checkDevice();

    QString m_error;
    bool m_help = false;
    bool m_version = false;
    bool m_json = false;
    bool m_verbose = false;
    QString m_api;
    QString m_apiSource;
    QString m_device;
    QString m_deviceSource;
    QString m_command;
    QStringList m_arguments;
    QHash<QString, QString> m_options;
    int m_timeoutMs = -1;
    int m_count = -1;
};
