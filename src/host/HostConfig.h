#pragma once

#include <QHash>
#include <QHostAddress>
#include <QString>
#include <QStringList>
#include <QVariantHash>

#include <log4cplus/loglevel.h>

// The host's configuration: built-in defaults, overridden by an optional
// JSON config file (keys = the long options without dashes), overridden by
// command-line options. Every value is checked while parsing, so a host that
// starts has a configuration it can use; anything wrong is one clear error.
// Which of the three gave a value is kept, because settings persisted in the
// data directory rank between the command line and the config file.
class HostConfig
{
public:
    enum class Origin { Default, ConfigFile, CommandLine };

    static constexpr int DefaultResendMs = 1000;
    static constexpr int DefaultTimeoutMs = 5000;
    static constexpr int DefaultDiscoveryMs = 1000;
    static constexpr quint16 DefaultApiPort = 8080;
    static constexpr quint16 DefaultDiscoveryPort = 41231;
    static QString defaultApiAddress() { return QStringLiteral("127.0.0.1"); }
    static QString defaultDiscoveryGroup() { return QStringLiteral("239.255.77.77"); }
    // ~/.local/share/tarv-host (XDG_DATA_HOME honoured), /var/lib/tarv-host for root.
    static QString defaultDataDir();
    // Where the modules installed with this program are: the module folder
    // relative to the program's own folder (lib/<multiarch>/tarv/modules
    // next to bin/). A host in the build tree has none there.
    static QString defaultModuleDir();
    // Every *.so file in `directory`, in name order; none when it does not exist.
    static QStringList modulesIn(const QString& directory);

    HostConfig();

    // Parses the program's arguments (the first is the program itself).
    // False with `error` set when anything is wrong; the configuration is
    // then unusable.
    bool parse(const QStringList& arguments, QString* error);
    static QString helpText();

    bool helpRequested() const { return m_help; }
    bool versionRequested() const { return m_version; }
    Origin origin(const QString& key) const { return m_origins.value(key, Origin::Default); }

    // Without --module or a config file's "module" (an empty list there
    // means none), every module in defaultModuleDir().
    const QStringList& modules() const { return m_modules; }
    const QString& configFile() const { return m_configFile; }
    // Empty when the device id comes from the data directory.
    const QString& id() const { return m_id; }
    const QString& name() const { return m_name; }
    const QString& hostName() const { return m_hostName; }
    // AnyIPv4 when not given.
    const QHostAddress& address() const { return m_address; }
    const QString& dataDir() const { return m_dataDir; }
    const QHostAddress& apiAddress() const { return m_apiAddress; }
    // 0 asks the system for a free port.
    quint16 apiPort() const { return m_apiPort; }
    quint16 requestPort() const { return m_requestPort; }
    int resendMs() const { return m_resendMs; }
    int timeoutMs() const { return m_timeoutMs; }
    int discoveryMs() const { return m_discoveryMs; }
    const QHostAddress& discoveryGroup() const { return m_discoveryGroup; }
    quint16 discoveryPort() const { return m_discoveryPort; }
    const QString& logConfig() const { return m_logConfig; }
    // NOT_SET_LOG_LEVEL when not given: the properties file (or INFO) rules.
    log4cplus::LogLevel logLevel() const { return m_logLevel; }
    // The config file's "module-settings" object, handed to every module.
    const QVariantHash& moduleSettings() const { return m_moduleSettings; }

    // The address this device announces as its ipAddress: --address when
    // given, else the first non-loopback IPv4 address of an interface that
    // is up, else 127.0.0.1.
    QString announcedIpAddress() const;

private:
    bool applyConfigFile(const QString& file, QString* error);
    // Checks and stores one option value given as text.
    bool apply(const QString& key, const QString& text, Origin origin, const QString& baseDir, QString* error);

    bool m_help = false;
    bool m_version = false;
    QHash<QString, Origin> m_origins;
    QStringList m_modules;
    QString m_configFile;
    QString m_id;
    QString m_name;
    QString m_hostName;
    QHostAddress m_address;
    QString m_dataDir;
    QHostAddress m_apiAddress;
    quint16 m_apiPort;
    quint16 m_requestPort;
    int m_resendMs;
    int m_timeoutMs;
    int m_discoveryMs;
    QHostAddress m_discoveryGroup;
    quint16 m_discoveryPort;
    QString m_logConfig;
    log4cplus::LogLevel m_logLevel = log4cplus::NOT_SET_LOG_LEVEL;
    QVariantHash m_moduleSettings;
};
