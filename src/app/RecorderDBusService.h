#pragma once

#include "LaunchRequest.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QVariantMap>

namespace tavrel {

class AppDelegate;
class RecorderDBusService;

/// org.freedesktop.Application: how the desktop, shortcuts, scripts and a second launch drive us.
class ApplicationAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")
public:
    explicit ApplicationAdaptor(RecorderDBusService* service);

public slots:
    void Activate(const QVariantMap& platformData);
    void Open(const QStringList& uris, const QVariantMap& platformData);
    void ActivateAction(const QString& actionName, const QVariantList& parameter, const QVariantMap& platformData);

private:
    RecorderDBusService* m_service;
};

/// fr.tavrel.Recorder: the session state, read-only, with PropertiesChanged on every change.
class RecorderStateAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "fr.tavrel.Recorder")
    Q_PROPERTY(bool IsRecording READ isRecording)
    Q_PROPERTY(bool IsPaused READ isPaused)
    Q_PROPERTY(int ActiveJobs READ activeJobs)
    Q_PROPERTY(QString StatusTitle READ statusTitle)
public:
    explicit RecorderStateAdaptor(RecorderDBusService* service);
    bool isRecording() const;
    bool isPaused() const;
    int activeJobs() const;
    QString statusTitle() const;

private:
    RecorderDBusService* m_service;
};

/// The program's object on the session bus: `fr.tavrel.Recorder` at `/fr/tavrel/Recorder`. Owning the
/// name is also what makes this process the single running instance.
class RecorderDBusService : public QObject {
    Q_OBJECT
public:
    static constexpr const char* kServiceName = "fr.tavrel.Recorder";
    static constexpr const char* kObjectPath = "/fr/tavrel/Recorder";
    static constexpr const char* kInterface = "fr.tavrel.Recorder";

    explicit RecorderDBusService(QDBusConnection connection, QObject* parent = nullptr);
    ~RecorderDBusService() override;

    /// Registers the object, then asks for the name. False when another instance owns it (or there is
    /// no session bus); the object stays registered so that nothing else changes.
    bool publish();
    /// From now on requests go to `delegate`, and its state is published.
    void attach(AppDelegate* delegate);
    AppDelegate* delegate() const { return m_delegate; }

    /// Runs a launch request on the delegate (a link, an action, or the popover on Activate).
    void handle(const LaunchRequest& request);
    /// Hands a request to the instance that owns the name. False when it did not answer.
    static bool forward(QDBusConnection connection, const LaunchRequest& request, QString* error = nullptr);

private:
    void publishChanges();

    QDBusConnection m_connection;
    QPointer<AppDelegate> m_delegate;
    bool m_registered = false;
    bool m_lastIsRecording = false;
    bool m_lastIsPaused = false;
    int m_lastActiveJobs = 0;
    QString m_lastStatusTitle;
};

} // namespace tavrel
