#pragma once

#include "core/Error.h"
#include "platform/Desktop.h"
#include "platform/LoginItem.h"
#include "platform/Notifier.h"
#include "platform/PowerEvents.h"
#include "platform/StatusItem.h"

#include <QList>
#include <QPair>
#include <QStringList>
#include <QUrl>

namespace tavrel {

/// Keeps every notification it is given.
class FakeNotifier final : public Notifier {
public:
    void notify(const QString& title, const QString& body) override { notifications.append({title, body}); }
    QList<QPair<QString, QString>> notifications;
};

/// A login item that can be told to fail, as a read-only config directory would.
class FakeLoginItem final : public LoginItem {
public:
    bool isEnabled() const override { return enabled; }
    void setEnabled(bool value) override {
        calls.append(value);
        if (!failWith.isEmpty())
            throw Error(failWith);
        enabled = value;
    }
    bool enabled = false;
    QString failWith; ///< non-empty: every change fails with this description
    QList<bool> calls;
};

class FakeDesktop final : public Desktop {
public:
    bool openUrl(const QUrl& url) override {
        openedUrls.append(url);
        return true;
    }
    void revealFiles(const QStringList& paths) override { revealed.append(paths); }
    void openSoundSettings() override { ++soundSettingsOpened; }
    QList<QUrl> openedUrls;
    QList<QStringList> revealed;
    int soundSettingsOpened = 0;
};

/// Wakes the program up when the test says so.
class FakePowerEvents final : public PowerEvents {
public:
    void resume() { emit resumed(); }
};

class FakeStatusItem final : public StatusItem {
public:
    void setIcon(StatusIcon value) override { icon = value; }
    void setTitle(const QString& value) override {
        titles.append(value);
        m_title = value;
    }
    QString title() const override { return m_title; }
    void setToolTipDetail(const QString& value) override { details.append(value); }
    bool isShown() const override { return true; }
    void click(QPoint pos = QPoint(640, 24)) { emit clicked(pos); }
    StatusIcon icon = StatusIcon::idle;
    QStringList titles;  ///< every title set, in order
    QStringList details; ///< every tooltip detail set, in order

private:
    QString m_title;
};

} // namespace tavrel
