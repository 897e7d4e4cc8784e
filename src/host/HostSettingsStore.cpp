#include "HostSettingsStore.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include "HostValidators.h"
#include "TarvJson.h"
#include "TarvLog.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("HostSettingsStore");
}

QString errnoText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

bool writeAll(int fd, const QByteArray& contents)
{
    const char* data = contents.constData();
    qint64 left = contents.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, static_cast<size_t>(left));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        left -= written;
    }
    return true;
}

} // namespace

HostSettingsStore::HostSettingsStore(const QString& dataDir)
    : m_dataDir(QDir::cleanPath(QFileInfo(dataDir).absoluteFilePath()))
{
}

HostSettingsStore::~HostSettingsStore() = default;

QString HostSettingsStore::settingsFile() const
{
    return QDir(m_dataDir).filePath(settingsFileName());
}

bool HostSettingsStore::open(QString* error)
{
    if (!QDir().mkpath(m_dataDir)) {
        *error = QStringLiteral("cannot create the data directory %1").arg(m_dataDir);
        return false;
    }
    m_lock.reset(new QLockFile(QDir(m_dataDir).filePath(lockFileName())));
    m_lock->setStaleLockTime(0);
    if (m_lock->tryLock(0))
        return true;
    if (m_lock->error() == QLockFile::LockFailedError) {
        qint64 pid = 0;
        QString host;
        QString app;
        m_lock->getLockInfo(&pid, &host, &app);
        *error = QStringLiteral("the data directory %1 is in use by another tarv-host (pid %2)").arg(m_dataDir).arg(pid);
        m_lock.reset();
        return false;
    }
    // A directory we may read but not write still lets the device run with
    // what it holds; every save then reports why it failed.
    LOG4CPLUS_WARN(logger(), "Cannot lock the data directory " << m_dataDir
                                                                << " (not writable?): settings changes may not be saved");
    m_lock.reset();
    return true;
}

bool HostSettingsStore::writeAtomically(const QString& file, const QByteArray& contents, QString* error)
{
    const QString temp = file + tempSuffix();
    const QByteArray tempName = QFile::encodeName(temp);
    const QByteArray fileName = QFile::encodeName(file);
    const QByteArray dirName = QFile::encodeName(QFileInfo(file).absolutePath());

    const int fd = ::open(tempName.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = QStringLiteral("cannot write %1: %2").arg(temp, errnoText(errno));
        return false;
    }
    if (!writeAll(fd, contents) || ::fsync(fd) != 0) {
        const int saved = errno;
        ::close(fd);
        ::unlink(tempName.constData());
        *error = QStringLiteral("cannot write %1: %2").arg(temp, errnoText(saved));
        return false;
    }
    if (::close(fd) != 0) {
        const int saved = errno;
        ::unlink(tempName.constData());
        *error = QStringLiteral("cannot write %1: %2").arg(temp, errnoText(saved));
        return false;
    }
    if (::rename(tempName.constData(), fileName.constData()) != 0) {
        const int saved = errno;
        ::unlink(tempName.constData());
        *error = QStringLiteral("cannot replace %1: %2").arg(file, errnoText(saved));
        return false;
    }
    // The rename is only durable once the directory entry is on disk.
    const int dirFd = ::open(dirName.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0 || ::fsync(dirFd) != 0) {
        const int saved = errno;
        if (dirFd >= 0)
            ::close(dirFd);
        *error = QStringLiteral("cannot sync the directory of %1: %2").arg(file, errnoText(saved));
        return false;
    }
    ::close(dirFd);
    return true;
}

bool HostSettingsStore::setAside(const QString& file, QString* newName, QString* error)
{
    const QString stamp = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmsszzz'Z'"));
    QString target = file + QStringLiteral(".corrupt-") + stamp;
    for (int i = 1; QFileInfo::exists(target); ++i)
        target = file + QStringLiteral(".corrupt-") + stamp + QLatin1Char('-') + QString::number(i);
    if (::rename(QFile::encodeName(file).constData(), QFile::encodeName(target).constData()) != 0) {
        *error = errnoText(errno);
        return false;
    }
    *newName = target;
    return true;
}

HostSettingsStore::LoadResult HostSettingsStore::load(const EntryValidator& validator, QVariantHash* values,
                                                      QString* report)
{
    values->clear();
    report->clear();
    const QString file = settingsFile();
    const QString temp = file + tempSuffix();
    if (QFileInfo::exists(temp)) {
        // A save was cut short before its rename: the settings file itself
        // is still the previous complete one.
        if (QFile::remove(temp))
            LOG4CPLUS_WARN(logger(), "Discarded unfinished settings write " << temp << "; " << file
                                                                             << " holds the last complete settings");
        else
            LOG4CPLUS_WARN(logger(), "Cannot remove unfinished settings write " << temp);
    }
    const QFileInfo info(file);
    if (!info.exists() && !info.isSymLink())
        return LoadResult::Missing;

    QString reason;
    QVariantHash loaded;
    qint64 format = 0;
    QFile in(file);
    if (!info.isFile()) {
        reason = QStringLiteral("it is not a regular file");
    } else if (info.size() > MaxFileSize) {
        reason = QStringLiteral("it is larger than %1 bytes").arg(MaxFileSize);
    } else if (!in.open(QIODevice::ReadOnly)) {
        reason = QStringLiteral("it cannot be read: ") + in.errorString();
    } else {
        TarvError parseError;
        const QVariant parsed = TarvJson::parse(in.readAll(), parseError, nullptr);
        const QVariantHash root = parsed.toHash();
        if (parseError.isError()) {
            reason = QStringLiteral("it is not valid JSON (at byte %1: %2)").arg(parseError.offset).arg(parseError.message);
        } else if (parsed.userType() != QMetaType::QVariantHash) {
            reason = QStringLiteral("it does not hold a JSON object");
        } else if (!HostValidators::toInteger(root.value(QStringLiteral("format")), &format) || format != Format) {
            reason = QStringLiteral("its \"format\" is not %1").arg(Format);
        } else if (root.value(QStringLiteral("values")).userType() != QMetaType::QVariantHash) {
            reason = QStringLiteral("it has no \"values\" object");
        } else {
            loaded = root.value(QStringLiteral("values")).toHash();
            for (auto it = loaded.begin(); it != loaded.end() && reason.isEmpty(); ++it) {
                const QString refusal = validator ? validator(CMPath(it.key()), it.value()) : QString();
                if (!refusal.isEmpty())
                    reason = QStringLiteral("value \"%1\" is unusable: %2").arg(it.key(), refusal);
            }
        }
    }
    if (reason.isEmpty()) {
        *values = loaded;
        return LoadResult::Loaded;
    }
    in.close();

    QString newName;
    QString renameError;
    if (!setAside(file, &newName, &renameError)) {
        *report = QStringLiteral("Settings file %1 is unusable (%2) and cannot be moved aside (%3); refusing to "
                                 "start so that it is not overwritten")
                      .arg(file, reason, renameError);
        LOG4CPLUS_ERROR(logger(), *report);
        return LoadResult::Failed;
    }
    *report = QStringLiteral("Settings file %1 is unusable (%2); moved it to %3 and started from the defaults")
                  .arg(file, reason, newName);
    LOG4CPLUS_ERROR(logger(), *report);
    return LoadResult::SetAside;
}

bool HostSettingsStore::save(const QVariantHash& values, QString* error)
{
    QJsonObject root;
    root.insert(QStringLiteral("format"), Format);
    root.insert(QStringLiteral("values"), QJsonObject::fromVariantHash(values));
    return writeAtomically(settingsFile(), QJsonDocument(root).toJson(QJsonDocument::Indented), error);
}

QString HostSettingsStore::loadOrCreateId(QString* error)
{
    const QString file = QDir(m_dataDir).filePath(idFileName());
    QFile in(file);
    if (in.exists()) {
        QString reason;
        QString id;
        if (!in.open(QIODevice::ReadOnly)) {
            reason = in.errorString();
        } else {
            id = QString::fromUtf8(in.read(1024)).trimmed();
            reason = HostValidators::checkDeviceId(id);
        }
        if (reason.isEmpty())
            return id;
        in.close();
        QString newName;
        QString renameError;
        if (!setAside(file, &newName, &renameError)) {
            *error = QStringLiteral("device id file %1 is unusable (%2) and cannot be moved aside (%3)")
                         .arg(file, reason, renameError);
            return QString();
        }
        LOG4CPLUS_ERROR(logger(), "Device id file " << file << " is unusable (" << reason << "); moved it to "
                                                    << newName << " and made a new id");
    }
    const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    QString writeError;
    if (!writeAtomically(file, id.toUtf8() + '\n', &writeError)) {
        *error = QStringLiteral("cannot keep a new device id: ") + writeError;
        return QString();
    }
    LOG4CPLUS_INFO(logger(), "New device id " << id << " kept in " << file);
    return id;
}
