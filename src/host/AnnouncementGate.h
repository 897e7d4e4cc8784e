#pragma once

#include <QObject>
#include <QTimer>
#include <QVariant>

#include "CMPath.h"

// Decides when this device may first be announced on the LAN. A device that
// other devices hear must be able to take receivers: a restarting master
// announced before its module has set /system/deviceState says
// "transcoder: false", which makes its followers leave it and join again
// at once. With modules loaded the gate opens once /system/deviceState holds
// a state (at start() when it already does). A module that never sets the
// state must not keep the device unheard: after `deviceStateWaitMs` the gate
// opens anyway, with a warning. Without modules it opens at start(). It
// opens once and stays open.
class AnnouncementGate : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        bool modulesLoaded = false;
        int deviceStateWaitMs = 3000;
    };

    explicit AnnouncementGate(const Options& options, QObject* parent = nullptr);

    void start();
    bool isOpen() const { return m_open; }

Q_SIGNALS:
    void opened();

private:
    void on_waitTimer_timeout();
    void on_root_deviceStateChanged(const CMPath& path, const QVariant& value);
    bool deviceStateSet() const;
    void openIfReady();
    void open();

    Options m_options;
    QTimer m_waitTimer;
    bool m_open = false;
};
