#include "HostConfig.h"

#include <unistd.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkInterface>
#include <QStandardPaths>

#include "HostValidators.h"
#include "TarvJson.h"
#include "TarvLog.h"

namespace {

struct OptionInfo
{
    const char* key;
    const char* valueName;
    const char* description;
};

// Every option, in --help order. The config file uses the same keys.
const OptionInfo options[] = {
    {"module", "PATH", "Load the module at PATH (repeatable; modules load in order)."},
    {"config", "FILE", "Read defaults from the JSON config FILE (keys = these options without dashes)."},
    {"id", "ID", "Device id (default: generated once and kept in the data directory)."},
    {"name", "NAME", "Device name (default: the machine's host name)."},
    {"host-name", "HOST", "Host name other devices use to reach this one (default: the machine's host name; an "
                          "IP literal is fine)."},
    {"address", "ADDR", "IPv4 address to announce and to do discovery on (default: any)."},
    {"data-dir", "DIR", "Data directory for the device id and settings (default: ~/.local/share/tarv-host, "
                        "/var/lib/tarv-host as root)."},
    {"api", "ADDR:PORT", "Control API address (default: 127.0.0.1:8080; port 0 picks a free port)."},
    {"request-port", "N", "UDP port of the receiver link (default: 41230)."},
    {"resend-ms", "N", "Resend period in ms, /settings/streaming/requestTimeout (default: 1000)."},
    {"timeout-ms", "N", "Receiver time-out in ms, /settings/streaming/stopTimeout (default: 5000)."},
    {"discovery-ms", "N", "Discovery announcement period in ms (default: 1000)."},
    {"discovery-group", "ADDR:PORT", "Discovery multicast group (default: 239.255.77.77:41231)."},
    {"log-config", "FILE", "log4cplus properties file (default: INFO and above to stderr; an example is "
                           "config/log.properties)."},
    {"log-level", "LEVEL", "Level of the root logger, over the properties file's: TRACE, DEBUG, INFO, WARN, ERROR, "
                           "FATAL or OFF (default: INFO)."},
};

const QStringList repeatable = {QStringLiteral("module")};
const QString moduleSettingsKey = QStringLiteral("module-settings");

bool parseInteger(const QString& text, qint64 min, qint64 max, qint64* result)
{
    bool ok = false;
    const qint64 value = text.trimmed().toLongLong(&ok);
    if (!ok || value < min || value > max)
        return false;
    *result = value;
    return true;
}

// "ADDR:PORT" or "[IPv6]:PORT".
bool parseAddressPort(const QString& text, QHostAddress* address, qint64* port, qint64 minPort)
{
    QString host;
    QString portText;
    if (text.startsWith(QLatin1Char('['))) {
        const int close = text.indexOf(QLatin1String("]:"));
        if (close < 0)
            return false;
        host = text.mid(1, close - 1);
        portText = text.mid(close + 2);
    } else {
        const int colon = text.lastIndexOf(QLatin1Char(':'));
        if (colon < 0 || text.indexOf(QLatin1Char(':')) != colon)
            return false;
        host = text.left(colon);
        portText = text.mid(colon + 1);
    }
    QHostAddress parsed;
    if (!parsed.setAddress(host))
        return false;
    if (!parseInteger(portText, minPort, 65535, port))
        return false;
    *address = parsed;
    return true;
}

QString resolvePath(const QString& path, const QString& baseDir)
{
    if (baseDir.isEmpty() || QDir::isAbsolutePath(path))
        return path;
    return QDir(baseDir).filePath(path);
}

} // namespace

QString HostConfig::defaultDataDir()
{
    if (::geteuid() == 0)
        return QStringLiteral("/var/lib/tarv-host");
    QString base = qEnvironmentVariable("XDG_DATA_HOME");
    if (base.isEmpty())
        base = QDir::homePath() + QStringLiteral("/.local/share");
    return base + QStringLiteral("/tarv-host");
}

QString HostConfig::defaultModuleDir()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QLatin1Char('/')
                           + QStringLiteral(TARV_MODULE_DIR_FROM_BINDIR));
}

QStringList HostConfig::modulesIn(const QString& directory)
{
    QStringList modules;
    const QFileInfoList files =
        QDir(directory).entryInfoList({QStringLiteral("*.so")}, QDir::Files | QDir::Readable, QDir::Name);
    for (const QFileInfo& file : files)
        modules << file.absoluteFilePath();
    return modules;
}

HostConfig::HostConfig()
    : m_name(QHostInfo::localHostName()),
      m_hostName(QHostInfo::localHostName()),
      m_address(QHostAddress::AnyIPv4),
      m_dataDir(defaultDataDir()),
      m_apiAddress(defaultApiAddress()),
      m_apiPort(DefaultApiPort),
      m_requestPort(41230),
      m_resendMs(DefaultResendMs),
      m_timeoutMs(DefaultTimeoutMs),
      m_discoveryMs(DefaultDiscoveryMs),
      m_discoveryGroup(defaultDiscoveryGroup()),
      m_discoveryPort(DefaultDiscoveryPort)
{
    if (m_name.isEmpty() || !HostValidators::checkDeviceName(m_name).isEmpty())
        m_name = QStringLiteral("tarv-host");
    if (m_hostName.isEmpty())
        m_hostName = QStringLiteral("localhost");
}

QString HostConfig::helpText()
{
    QString text = QStringLiteral(
        "Usage: tarv-host [options]\n"
        "Runs one device: loads its modules, finds the other devices on the LAN, keeps the\n"
        "device's settings and serves the HTTP/JSON control API.\n\nOptions:\n");
    for (const OptionInfo& option : options) {
        const QString left = QStringLiteral("  --%1 %2").arg(QLatin1String(option.key), QLatin1String(option.valueName));
        text += left.leftJustified(30) + QLatin1Char(' ') + QLatin1String(option.description) + QLatin1Char('\n');
    }
    text += QStringLiteral("  --help").leftJustified(30) + QStringLiteral(" Show this help and exit.\n");
    text += QStringLiteral("  --version").leftJustified(30) + QStringLiteral(" Show tarv-host's version and exit.\n");
    text += QStringLiteral(
                "\nModules: without --module or a \"module\" list in the config file, every *.so\n"
                "file in %1 is loaded, by name.\n")
                .arg(defaultModuleDir());
    text += QStringLiteral(
        "\nPrecedence: command-line options win over settings persisted in the data\n"
        "directory (device name, resend and time-out periods, saved group), which win\n"
        "over the config file, which wins over the built-in defaults.\n");
    return text;
}

bool HostConfig::parse(const QStringList& arguments, QString* error)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    for (const OptionInfo& option : options)
        parser.addOption(QCommandLineOption(QLatin1String(option.key), QLatin1String(option.description),
                                            QLatin1String(option.valueName)));
    parser.addOption(QCommandLineOption({QStringLiteral("help"), QStringLiteral("h")}, QStringLiteral("help")));
    parser.addOption(QCommandLineOption(QStringLiteral("version"), QStringLiteral("version")));

    if (!parser.parse(arguments)) {
        *error = parser.errorText();
        return false;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *error = QStringLiteral("unexpected argument '%1' (options start with --)").arg(parser.positionalArguments().first());
        return false;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        m_help = true;
        return true;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        m_version = true;
        return true;
    }
    for (const OptionInfo& option : options) {
        const QString key = QLatin1String(option.key);
        if (!repeatable.contains(key) && parser.values(key).size() > 1) {
            *error = QStringLiteral("--%1 given more than once").arg(key);
            return false;
        }
    }

    if (parser.isSet(QStringLiteral("config"))) {
        m_configFile = QFileInfo(parser.value(QStringLiteral("config"))).absoluteFilePath();
        if (!applyConfigFile(m_configFile, error))
            return false;
    }

    bool modulesGiven = false;
    for (const OptionInfo& option : options) {
        const QString key = QLatin1String(option.key);
        if (key == QLatin1String("config") || !parser.isSet(key))
            continue;
        for (const QString& value : parser.values(key)) {
            if (key == QLatin1String("module") && !modulesGiven) {
                // Modules named on the command line replace the config file's list.
                m_modules.clear();
                modulesGiven = true;
            }
            QString reason;
            if (!apply(key, value, Origin::CommandLine, QDir::currentPath(), &reason)) {
                *error = QStringLiteral("--%1: %2").arg(key, reason);
                return false;
            }
        }
    }
    // An installed host with no module list runs the modules installed with
    // it, so that its configuration need not name the multiarch folder and
    // a module dropped into that folder is picked up.
    if (origin(QStringLiteral("module")) == Origin::Default)
        m_modules = modulesIn(defaultModuleDir());
    return true;
}

bool HostConfig::applyConfigFile(const QString& file, QString* error)
{
    QFile in(file);
    if (!in.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read config file %1: %2").arg(file, in.errorString());
        return false;
    }
    TarvError parseError;
    const QVariant parsed = TarvJson::parse(in.readAll(), parseError, nullptr);
    if (parseError.isError()) {
        *error = QStringLiteral("config file %1 is not valid JSON (at byte %2: %3)")
                     .arg(file)
                     .arg(parseError.offset)
                     .arg(parseError.message);
        return false;
    }
    if (parsed.userType() != QMetaType::QVariantHash) {
        *error = QStringLiteral("config file %1 must hold one JSON object").arg(file);
        return false;
    }
    const QString baseDir = QFileInfo(file).absolutePath();
    const QJsonObject object = QJsonObject::fromVariantHash(parsed.toHash());
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QString key = it.key();
        const QString where = QStringLiteral("config file %1, \"%2\": ").arg(file, key);
        if (key == moduleSettingsKey) {
            if (!it.value().isObject()) {
                *error = where + QStringLiteral("must be an object");
                return false;
            }
            m_moduleSettings = it.value().toObject().toVariantHash();
            continue;
        }
        bool known = false;
        for (const OptionInfo& option : options)
            known = known || key == QLatin1String(option.key);
        if (!known || key == QLatin1String("config")) {
            *error = where + QStringLiteral("unknown key");
            return false;
        }
        QStringList texts;
        const QJsonValue value = it.value();
        if (value.isString()) {
            texts << value.toString();
        } else if (value.isDouble()) {
            qint64 integer = 0;
            if (!HostValidators::toInteger(value.toDouble(), &integer)) {
                *error = where + QStringLiteral("must be a whole number");
                return false;
            }
            texts << QString::number(integer);
        } else if (value.isArray() && repeatable.contains(key)) {
            for (const QJsonValue& item : value.toArray()) {
                if (!item.isString()) {
                    *error = where + QStringLiteral("must be a list of texts");
                    return false;
                }
                texts << item.toString();
            }
        } else {
            *error = where + (repeatable.contains(key) ? QStringLiteral("must be a text or a list of texts")
                                                       : QStringLiteral("must be a text or a number"));
            return false;
        }
        // An empty list is given too: "module": [] means no module at all.
        if (texts.isEmpty())
            m_origins.insert(key, Origin::ConfigFile);
        for (const QString& text : texts) {
            QString reason;
            if (!apply(key, text, Origin::ConfigFile, baseDir, &reason)) {
                *error = where + reason;
                return false;
            }
        }
    }
    return true;
}

bool HostConfig::apply(const QString& key, const QString& text, Origin origin, const QString& baseDir,
                       QString* error)
{
    qint64 number = 0;
    if (key == QLatin1String("module")) {
        if (text.isEmpty()) {
            *error = QStringLiteral("a module path must not be empty");
            return false;
        }
        m_modules << QFileInfo(resolvePath(text, baseDir)).absoluteFilePath();
    } else if (key == QLatin1String("id")) {
        const QString reason = HostValidators::checkDeviceId(text);
        if (!reason.isEmpty()) {
            *error = QStringLiteral("'%1': %2").arg(text, reason);
            return false;
        }
        m_id = text;
    } else if (key == QLatin1String("name")) {
        const QString reason = HostValidators::checkDeviceName(text);
        if (!reason.isEmpty()) {
            *error = QStringLiteral("'%1': %2").arg(text, reason);
            return false;
        }
        m_name = text;
    } else if (key == QLatin1String("host-name")) {
        if (text.isEmpty() || text.contains(QLatin1Char(' ')) || text.size() > 253) {
            *error = QStringLiteral("'%1' is not a host name").arg(text);
            return false;
        }
        m_hostName = text;
    } else if (key == QLatin1String("address")) {
        QHostAddress address;
        if (!address.setAddress(text) || address.protocol() != QAbstractSocket::IPv4Protocol) {
            *error = QStringLiteral("'%1' is not an IPv4 address").arg(text);
            return false;
        }
        m_address = address;
    } else if (key == QLatin1String("data-dir")) {
        if (text.isEmpty()) {
            *error = QStringLiteral("the data directory must not be empty");
            return false;
        }
        m_dataDir = QDir::cleanPath(QFileInfo(resolvePath(text, baseDir)).absoluteFilePath());
    } else if (key == QLatin1String("api")) {
        QHostAddress address;
        if (!parseAddressPort(text, &address, &number, 0)) {
            *error = QStringLiteral("'%1' is not ADDR:PORT with an IP address and a port from 0 to 65535").arg(text);
            return false;
        }
        m_apiAddress = address;
        m_apiPort = static_cast<quint16>(number);
    } else if (key == QLatin1String("request-port")) {
        if (!parseInteger(text, 1, 65535, &number)) {
            *error = QStringLiteral("'%1' is not a port number (1-65535)").arg(text);
            return false;
        }
        m_requestPort = static_cast<quint16>(number);
    } else if (key == QLatin1String("resend-ms") || key == QLatin1String("timeout-ms")
               || key == QLatin1String("discovery-ms")) {
        const qint64 min = key == QLatin1String("discovery-ms") ? 10 : HostValidators::MinMilliseconds;
        if (!parseInteger(text, min, HostValidators::MaxMilliseconds, &number)) {
            *error = QStringLiteral("'%1' is not a whole number of milliseconds from %2 to %3")
                         .arg(text)
                         .arg(min)
                         .arg(HostValidators::MaxMilliseconds);
            return false;
        }
        int& target = key == QLatin1String("resend-ms") ? m_resendMs
            : key == QLatin1String("timeout-ms")        ? m_timeoutMs
                                                        : m_discoveryMs;
        target = static_cast<int>(number);
    } else if (key == QLatin1String("discovery-group")) {
        QHostAddress address;
        if (!parseAddressPort(text, &address, &number, 1) || address.protocol() != QAbstractSocket::IPv4Protocol
            || !address.isMulticast()) {
            *error = QStringLiteral("'%1' is not ADDR:PORT with an IPv4 multicast address (224.0.0.0/4) and a "
                                    "port from 1 to 65535")
                         .arg(text);
            return false;
        }
        m_discoveryGroup = address;
        m_discoveryPort = static_cast<quint16>(number);
    } else if (key == QLatin1String("log-config")) {
        const QString path = QFileInfo(resolvePath(text, baseDir)).absoluteFilePath();
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
            return false;
        }
        m_logConfig = path;
    } else if (key == QLatin1String("log-level")) {
        log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL;
        if (!TarvLog::parseLevel(text, &level)) {
            *error = QStringLiteral("'%1' is not a level (TRACE, DEBUG, INFO, WARN, ERROR, FATAL or OFF)").arg(text);
            return false;
        }
        m_logLevel = level;
    } else {
        *error = QStringLiteral("unknown option");
        return false;
    }
    m_origins.insert(key, origin);
    return true;
}

QString HostConfig::announcedIpAddress() const
{
    if (m_address != QHostAddress(QHostAddress::AnyIPv4))
        return m_address.toString();
    for (const QNetworkInterface& iface : QNetworkInterface::allInterfaces()) {
        const auto flags = iface.flags();
        if (!(flags & QNetworkInterface::IsUp) || !(flags & QNetworkInterface::IsRunning)
            || (flags & QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry& entry : iface.addressEntries()) {
            if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
                return entry.ip().toString();
        }
    }
    return QStringLiteral("127.0.0.1");
}
