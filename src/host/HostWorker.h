#pragma once

#include <QHostAddress>
#include <QList>
#include <QTimer>
#include <QVariantHash>

#include "CMListRowsNode.h"
#include "CMNodesWorker.h"
#include "CMRootWorker.h"
#include "Discovery.h"
#include "TarvSystemMember.h"

class CMRowsClone;
class HostConfig;
class HostSettingsStore;
class HouseList;

// The host's own worker. It defines the values the host holds on the root
// worker (own record and id, device state, settings, player data, discovery
// counters), keeps the own record in step with the device state, the device
// name and the saved group, persists the settings on every change, and owns
// the system-members list that discovery fills and the house list
// (HouseList) beside it. It keeps the own house information: the master
// named by the module's own row of the grouping members, the saved group's
// name and where the control API can be reached from other devices.
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
    // The house list: every device with its master, saved group and API.
    static CMPath housePath();
    static QList<CMPath> persistedPaths();
    // The check for values read from the settings file: a persisted path
    // holding a value its validator accepts.
    static QString checkPersisted(const CMPath& path, const QVariant& value);

    const QString& id() const { return m_id; }
    CMListRowsNode* membersNode() const { return m_members; }
    CMListRowsNode* houseNode() const { return m_house; }
    HouseList* houseList() const { return m_houseList; }
    TarvSystemMember record() const { return m_record; }
    // What discovery announces besides the record.
    Discovery::House ownHouse() const { return m_ownHouse; }
    // The control API listens on `address`:`port`. Other devices can reach
    // it unless it listens on loopback only; on an any-address (0.0.0.0,
    // ::) it is reached at the own record's address, else at `address`.
    void setApiListening(const QHostAddress& address, quint16 port);

    // Writes the persisted values now. On failure the values stay in memory,
    // the reason is logged and the save is retried later.
    bool saveSettings();
    bool hasUnsavedSettings() const { return m_unsaved; }
    // How long a failed save waits before it is tried again (SaveRetryMs).
    void setSaveRetryInterval(int ms) { m_retryTimer.setInterval(ms); }

    void setDiscoveryStats(const QVariantHash& stats);

Q_SIGNALS:
    void recordChanged(const TarvSystemMember& record);
    void ownHouseChanged(const Discovery::House& house);

private:
    static CMRootWorker::Validator validatorFor(const CMPath& path);
    void define(const CMPath& path, const QVariant& value);
    // Updates a value only the host writes.
    void publish(const CMPath& path, const QVariant& value);
    void updateRecord();
    void updateHouse();
    void on_groupingMembers_itemChanged(const TarvRoles& newRow, const TarvRoles& oldRow);
    void on_root_recordSourceChanged(const CMPath& path, const QVariant& value);
    void on_root_settingChanged(const CMPath& path, const QVariant& value);
    void on_retryTimer_timeout();

    QString m_id;
    QString m_host;
    QString m_ipAddress;
    HostSettingsStore* m_store;
    CMListRowsNode* m_members;
    CMListRowsNode* m_house;
    HouseList* m_houseList;
    // The module's grouping members, for the own master; absent without
    // the module.
    CMRowsClone* m_groupingMembers;
    TarvSystemMember m_record;
    Discovery::House m_ownHouse;
    // Where other devices reach the control API; empty: they cannot.
    QString m_apiAddress;
    quint16 m_apiPort = 0;
    // The saved group's name last found unfit to announce (warned once).
    QString m_unfitGroupName;
    QList<CMPath> m_defined;
    QTimer m_retryTimer;
    bool m_unsaved = false;
};
