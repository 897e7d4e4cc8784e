#pragma once

#include <QObject>
#include <QString>

#include "HostConfig.h"
#include "HostSettingsStore.h"
#include "ModuleLoader.h"

class AnnouncementGate;
class ControlApi;
class Discovery;
class HostWorker;

// One device's host: data directory, own values and settings, modules,
// discovery and control API, started in that order. The modules get
// ModuleStartUpMs to start before any socket is served, and discovery
// announces this device only once a module has set its state
// (AnnouncementGate).
class HostDaemon : public QObject
{
    Q_OBJECT

public:
    // Twice the grouping module's wiring delay (100 ms).
    static constexpr int ModuleStartUpMs = 200;

    explicit HostDaemon(const HostConfig& config, QObject* parent = nullptr);
    ~HostDaemon() override;

    // False with `error` for people when the device cannot run: data
    // directory in use or unusable, the receiver-link port taken, a module
    // that does not load, API address taken. A discovery failure is logged and the host runs on.
    bool start(QString* error);
    // Stops the API and discovery and saves unsaved settings. The host
    // worker and the modules stay: module objects keep using the host's
    // nodes until the process ends.
    void stop();

    QString apiUrl() const;
    QString id() const;
    HostWorker* worker() const { return m_worker; }

private:
    // Runs the event loop for ModuleStartUpMs without serving sockets.
    void runModuleStartUp();
    // The receiver link's UDP port must be free before the modules load.
    static bool checkRequestPort(quint16 port, QString* error);

    HostConfig m_config;
    HostSettingsStore m_store;
    ModuleLoader m_modules;
    HostWorker* m_worker = nullptr;
    Discovery* m_discovery = nullptr;
    AnnouncementGate* m_announcementGate = nullptr;
    ControlApi* m_api = nullptr;
};
