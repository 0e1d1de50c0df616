#pragma once

// An application delegate in the test process: the real recorder and widgets (offscreen), fakes for
// the desktop (tray, notifications, login item, URL opening) and scripted answers to its alerts.
#include "TestSupport.h"
#include "app/AppDelegate.h"
#include "core/SettingsManager.h"
#include "platform/fake/FakePlatform.h"
#include "ui/ScriptedAlertPresenter.h"

#include <functional>
#include <gtest/gtest.h>

namespace tavrel::test {

class AppDelegateTestBase : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_env.set("XDG_CONFIG_HOME", m_dir.filePath(QStringLiteral("config"), true).toUtf8());
        m_env.set("XDG_DATA_HOME", m_dir.filePath(QStringLiteral("data"), true).toUtf8());
        m_env.set("XDG_STATE_HOME", m_dir.filePath(QStringLiteral("state"), true).toUtf8());
        // The call monitor must not poll behind the tests' backs.
        SettingsManager::shared().setAutoDetectCalls(false);
    }

    void TearDown() override { m_delegate.reset(); }

    /// Makes the delegate and runs its launch; `customize` may change the services first.
    void launch(const std::function<void(AppServices&)>& customize = {}) {
        AppServices services;
        m_notifier = install<FakeNotifier>(services.notifier);
        m_desktop = install<FakeDesktop>(services.desktop);
        m_loginItem = install<FakeLoginItem>(services.loginItem);
        m_alerts = install<ScriptedAlertPresenter>(services.alerts);
        m_statusItem = install<FakeStatusItem>(services.statusItem);
        // The pending check belongs to the upload tests; keep it out of the way here.
        services.pendingCheckDelayMs = std::chrono::hours(1);
        services.now = [this] { return m_now.isValid() ? m_now : QDateTime::currentDateTime(); };
        if (customize)
            customize(services);
        m_delegate = std::make_unique<AppDelegate>(std::move(services));
        m_delegate->applicationDidFinishLaunching();
    }

    template <typename Fake, typename Service>
    static Fake* install(std::unique_ptr<Service>& slot) {
        auto fake = std::make_unique<Fake>();
        Fake* raw = fake.get();
        slot = std::move(fake);
        return raw;
    }

    TempDir m_dir{QStringLiteral("tavrel-app")};
    ScopedEnvironment m_env;
    std::unique_ptr<AppDelegate> m_delegate;
    QDateTime m_now;
    FakeDesktop* m_desktop = nullptr;
    FakeLoginItem* m_loginItem = nullptr;
    ScriptedAlertPresenter* m_alerts = nullptr;
    FakeStatusItem* m_statusItem = nullptr;
    FakeNotifier* m_notifier = nullptr;
};

} // namespace tavrel::test
