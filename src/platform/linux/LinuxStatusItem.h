#pragma once

#include "platform/StatusItem.h"
#include "platform/linux/StatusNotifierItemAdaptor.h"

#include <QDBusServiceWatcher>
#include <QIcon>
#include <QPointer>
#include <QSystemTrayIcon>
#include <memory>

namespace tavrel {

/// A StatusNotifierItem on the session bus, registered with org.kde.StatusNotifierWatcher whenever one
/// runs; while none runs, the XEmbed tray (QSystemTrayIcon) shows the item instead.
class LinuxStatusItem final : public StatusItem {
    Q_OBJECT
public:
    explicit LinuxStatusItem(const QIcon& icon);
    ~LinuxStatusItem() override;

    void setIcon(StatusIcon icon) override;
    void setTitle(const QString& title) override;
    QString title() const override { return m_title; }
    void setToolTipDetail(const QString& detail) override;
    bool isShown() const override;
    /// The tooltip's text under the program's name: the title, then the detail.
    QString toolTipText() const;

    // Read by the D-Bus adaptor.
    QString iconName() const;
    SniPixmapList iconPixmaps() const;
    QImage currentImage(int sizePx) const;
    void activate(QPoint pos);

private:
    void registerWithWatcher();
    void onWatcherOwnerChanged(const QString& service, const QString& oldOwner, const QString& newOwner);
    void showFallback(bool shown);
    void refreshFallback();

    QIcon m_icon;
    StatusIcon m_state = StatusIcon::idle;
    QString m_title;
    QString m_toolTipDetail;
    QString m_serviceName;
    bool m_registered = false;
    bool m_busOk = false;
    StatusNotifierItemAdaptor* m_adaptor = nullptr; ///< owned by this object (Qt parent)
    std::unique_ptr<QSystemTrayIcon> m_fallback;
    QDBusServiceWatcher m_watcher;
};

} // namespace tavrel
