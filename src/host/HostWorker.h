#pragma once

#include <QList>
#include <QTimer>
#include <QVariantHash>

#include "CMListRowsNode.h"
#include "CMNodesWorker.h"
#include "CMRootWorker.h"
#include "TarvSystemMember.h"

class HostConfig;
class HostSettingsStore;

// The host's own worker. It defines the values the host holds on the root
// worker (own record and id, device state, settings, player data, discovery
// counters), keeps the own record in step with the device state, the device
// name and the saved group, persists the settings on every change, and owns
// the system-members list that discovery fills.
class HostWorker : public CMNodesWorker
{
    Q_OBJECT

public:
    // How long a failed save waits before it is tried again.
    static constexpr int SaveRetryMs = 5000;

    // Settings start from `persisted` unless the command line set them (see
    // HostConfig). `store` may be null (nothing is saved then).
    HostWorker(const HostConfig& config, const QString& id, const QVariantHash& persisted, HostSettingsStore* store,
               QObject* parent = nullptr);
    ~HostWorker() override;

    static CMPath discoveryStatsPath();
    static QList<CMPath> persistedPaths();
    // The check for values read from the settings file: a persisted path
    // holding a value its validator accepts.
    static QString checkPersisted(const CMPath& path, const QVariant& value);

    const QString& id() const { return m_id; }
    CMListRowsNode* membersNode() const { return m_members; }
    TarvSystemMember record() const { return m_record; }

    // Writes the persisted values now. On failure the values stay in memory,
    // the reason is logged and the save is retried later.
    bool saveSettings();
    bool hasUnsavedSettings() const { return m_unsaved; }
    // How long a failed save waits before it is tried again (SaveRetryMs).
    void setSaveRetryInterval(int ms) { m_retryTimer.setInterval(ms); }

    void setDiscoveryStats(const QVariantHash& stats);

Q_SIGNALS:
    void recordChanged(const TarvSystemMember& record);

private:
    static CMRootWorker::Validator validatorFor(const CMPath& path);
    void define(const CMPath& path, const QVariant& value);
    // Updates a value only the host writes.
    void publish(const CMPath& path, const QVariant& value);
    void updateRecord();
    void on_root_recordSourceChanged(const CMPath& path, const QVariant& value);
    void on_root_settingChanged(const CMPath& path, const QVariant& value);
    void on_retryTimer_timeout();

    QString m_id;
    QString m_host;
    QString m_ipAddress;
    HostSettingsStore* m_store;
    CMListRowsNode* m_members;
    TarvSystemMember m_record;
    QList<CMPath> m_defined;
    QTimer m_retryTimer;
    bool m_unsaved = false;
};
