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
        m_environment.set("XDG_STATE_HOME", m_data.filePath("state").toUtf8());
        AppServices services;
        services.notifier = keep(notifier);
        services.desktop = keep(desktop);
        services.alerts = keep(alerts);
        services.statusItem = keep(statusItem);
        services.jobPollIntervalMs = pollInterval;
        services.quit = [this] { ++quits; };
        delegate = std::make_unique<AppDelegate>(std::move(services));
    }

    QString recordingsDir() const { return AudioRecorder::recordingsDir(); }

    /// A recording in the recordings folder, with a notes file beside it when `notes` is given.
    QString makeRecording(const QString& name, const QByteArray& bytes = "audio",
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
    int quits = 0; ///< times the delegate ended the program
    std::unique_ptr<AppDelegate> delegate;

private:
    /// A new service handed to the delegate, `observer` left pointing at it.
    template <typename T>
    static std::unique_ptr<T> keep(T*& observer) {
        auto owned = std::make_unique<T>();
        observer = owned.get();
        return owned;
    }

    TempDir m_data{QStringLiteral("netdata")};
    ScopedEnvironment m_environment;
};

} // namespace tavrel::test
