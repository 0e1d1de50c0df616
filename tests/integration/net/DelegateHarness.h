#pragma once

#include "ReferenceBackend.h"
#include "app/AppDelegate.h"
#include "platform/fake/FakePlatform.h"
#include "ui/ScriptedAlertPresenter.h"

#include <QDir>
#include <QFile>
#include <memory>

namespace tavrel::test {

/// An application delegate with fake desktop services, talking to the reference backend, with its
/// recordings folder in a private XDG data directory. The job poll interval is shortened for tests.
class DelegateHarness {
public:
    explicit DelegateHarness(std::chrono::milliseconds pollInterval = std::chrono::milliseconds(5)) {
        m_environment.set("XDG_DATA_HOME", m_data.path().toUtf8());
        auto notifierOwned = std::make_unique<FakeNotifier>();
        auto desktopOwned = std::make_unique<FakeDesktop>();
        auto alertsOwned = std::make_unique<ScriptedAlertPresenter>();
        auto statusItemOwned = std::make_unique<FakeStatusItem>();
        notifier = notifierOwned.get();
        desktop = desktopOwned.get();
        alerts = alertsOwned.get();
        statusItem = statusItemOwned.get();
        AppServices services;
        services.notifier = std::move(notifierOwned);
        services.desktop = std::move(desktopOwned);
        services.alerts = std::move(alertsOwned);
        services.statusItem = std::move(statusItemOwned);
        services.jobPollIntervalMs = pollInterval;
        delegate = std::make_unique<AppDelegate>(std::move(services));
    }

    QString recordingsDir() const { return AudioRecorder::recordingsDir(); }

    /// A recording in the recordings folder, with a notes file beside it when `notes` is given.
    QString makeRecording(const QString& name, const QByteArray& bytes,
                          std::optional<QByteArray> notes = std::nullopt) const {
        const QString path = recordingsDir() + QLatin1Char('/') + name;
        writeFile(path, bytes);
        if (notes)
            writeFile(notesPath(path), *notes);
        return path;
    }

    static QString notesPath(const QString& recording) {
        const QFileInfo info(recording);
        return info.path() + QLatin1Char('/') + info.completeBaseName() + QStringLiteral(".notes.txt");
    }

    static void writeFile(const QString& path, const QByteArray& bytes) {
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(bytes);
    }

    QStringList notificationTitles() const {
        QStringList titles;
        for (const auto& notification : notifier->notifications)
            titles << notification.first;
        return titles;
    }

    ReferenceBackend backend;
    FakeNotifier* notifier = nullptr;
    FakeDesktop* desktop = nullptr;
    ScriptedAlertPresenter* alerts = nullptr;
    FakeStatusItem* statusItem = nullptr;
    std::unique_ptr<AppDelegate> delegate;

private:
    TempDir m_data{QStringLiteral("netdata")};
    ScopedEnvironment m_environment;
};

} // namespace tavrel::test
