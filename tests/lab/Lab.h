#pragma once

#include <QJsonObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// Drives scripts/lab for one lab instance of its own name, so that tests and
// benchmarks never meet another lab on this machine. The lab watches the
// process that brought it up and takes itself down when that process goes
// away, even after a crash.
class Lab
{
public:
    // name: 1..8 lower-case letters or digits; the instance's namespaces are
    // tarv-<name>-dev1... and its run directory /run/tarv-lab/<name>.
    explicit Lab(const QString& name);
    ~Lab();

    // Why no lab can run here (not root, no network namespaces), or empty.
    static QString unavailableReason();

    // The lab's script, the build it runs, and the environment it gets.
    static QString script();
    static QString buildDir();
    QProcessEnvironment environment() const;
    // Extra variables for every later command (e.g. LAB_HOST_BIN, LAB_OWNER_PID).
    void setVariable(const QString& name, const QString& value);

    // The options of `up` for the hosts' time settings.
    static QStringList timeOptions(int resendMs, int timeoutMs, int discoveryMs);
    // `scripts/lab up N options...`; true when every device sees every other.
    bool up(int devices, const QStringList& options);
    // Runs `scripts/lab args...`; returns its exit code (-1 when it did not
    // finish within timeoutMs) and its merged output.
    int run(const QStringList& args, QString* output = nullptr, int timeoutMs = 60000) const;
    bool down();

    // From `status --json`, refreshed by status().
    QJsonObject status();
    QString api(int device) const;
    QString address(int device) const;
    QString id(int device) const;
    qint64 pid(int device) const;
    QString state(int device) const;
    QString network(int device) const;
    QString runDir() const;
    QString logPath(int device) const;

    // The output of the last up() or run().
    QString lastOutput() const { return m_lastOutput; }
    const QString& name() const { return m_name; }
    bool isUp() const { return m_up; }

private:
    QJsonObject device(int device) const;

    QString m_name;
    QProcessEnvironment m_extra;
    QJsonObject m_status;
    mutable QString m_lastOutput;
    bool m_up = false;
};
