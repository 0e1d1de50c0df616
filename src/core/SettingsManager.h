#pragma once

#include <QString>
#include <QVariant>

namespace tavrel {

/// The one store of the user's settings: a per-user INI file in the XDG config directory, readable by
/// the user only (it holds the access token). Nothing is cached: every read asks the file, so that a
/// value written by another instance or by the account link is seen at the next use. Safe to use from
/// any thread.
class SettingsManager {
public:
    static SettingsManager& shared();

    /// Read: the stored text, or the default when the key is absent (a stored empty text stays empty).
    QString backendURL() const;
    void setBackendURL(const QString& value);
    QString webURL() const;
    void setWebURL(const QString& value);
    QString token() const;
    void setToken(const QString& value);
    /// True until the user switches call detection off.
    bool autoDetectCalls() const;
    void setAutoDetectCalls(bool value);

    static QString defaultBackendURL();
    static QString defaultWebURL();
    /// `<XDG config>/TavrelRecorder/TavrelRecorder.conf`, resolved at every call so that tests can
    /// redirect XDG_CONFIG_HOME.
    static QString filePath();

private:
    SettingsManager() = default;
    QString readString(const QString& key, const QString& fallback) const;
    void write(const QString& key, const QVariant& value);
};

} // namespace tavrel
