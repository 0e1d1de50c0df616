#include "SettingsManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>
#include <mutex>

namespace tavrel {

namespace {

const QString kBackendURL = QStringLiteral("backendURL");
const QString kWebURL = QStringLiteral("webURL");
const QString kToken = QStringLiteral("token");
const QString kAutoDetectCalls = QStringLiteral("autoDetectCalls");

constexpr QFileDevice::Permissions kOwnerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;

// QSettings serialises access to one file within a process, but read-modify-write of the file and the
// permission fix after it must not interleave between two writers of this process. A std::mutex, which
// ThreadSanitizer sees, unlike Qt's futex-based one.
std::mutex& writeMutex() {
    static std::mutex mutex;
    return mutex;
}

} // namespace

SettingsManager& SettingsManager::shared() {
    static SettingsManager instance;
    return instance;
}

QString SettingsManager::defaultBackendURL() {
    return QStringLiteral(TAVREL_DEFAULT_SERVER "/backend");
}

QString SettingsManager::defaultWebURL() {
    return QStringLiteral(TAVREL_DEFAULT_SERVER "/tavrel/index.html");
}

QString SettingsManager::filePath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/TavrelRecorder/TavrelRecorder.conf");
}

QString SettingsManager::readString(const QString& key, const QString& fallback) const {
    const QSettings settings(filePath(), QSettings::IniFormat);
    const QVariant value = settings.value(key);
    if (!value.isValid())
        return fallback;
    return value.toString();
}

void SettingsManager::write(const QString& key, const QVariant& value) {
    const std::lock_guard lock(writeMutex());
    const QString path = filePath();
    QDir().mkpath(QFileInfo(path).absolutePath());
    // The file exists with owner-only permissions before the token is ever written into it; QSettings
    // then keeps the permissions of the file it replaces.
    if (!QFileInfo::exists(path)) {
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.setPermissions(kOwnerOnly);
    }
    {
        QSettings settings(path, QSettings::IniFormat);
        settings.setValue(key, value);
        settings.sync();
    }
    QFile::setPermissions(path, kOwnerOnly);
}

QString SettingsManager::backendURL() const {
    return readString(kBackendURL, defaultBackendURL());
}
void SettingsManager::setBackendURL(const QString& value) {
    write(kBackendURL, value);
}
QString SettingsManager::webURL() const {
    return readString(kWebURL, defaultWebURL());
}
void SettingsManager::setWebURL(const QString& value) {
    write(kWebURL, value);
}
QString SettingsManager::token() const {
    return readString(kToken, QString());
}
void SettingsManager::setToken(const QString& value) {
    write(kToken, value);
}

bool SettingsManager::autoDetectCalls() const {
    const QSettings settings(filePath(), QSettings::IniFormat);
    const QVariant value = settings.value(kAutoDetectCalls);
    if (!value.isValid())
        return true;
    return value.toBool();
}

void SettingsManager::setAutoDetectCalls(bool value) {
    write(kAutoDetectCalls, value);
}

} // namespace tavrel
