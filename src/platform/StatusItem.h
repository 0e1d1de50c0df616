#pragma once

#include <QIcon>
#include <QObject>
#include <QPoint>
#include <QString>
#include <memory>

namespace tavrel {

/// What the tray item shows besides its text, for hosts that show neither labels nor tooltips.
enum class StatusIcon { idle, recording, busy };

/// The program's item in the desktop's tray. Its title (the recording clock, "⏳", "⬆︎") is shown as a
/// label where the host shows labels, and always in the tooltip.
class StatusItem : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    ~StatusItem() override = default;

    virtual void setIcon(StatusIcon icon) = 0;
    virtual void setTitle(const QString& title) = 0;
    virtual QString title() const = 0;
    /// A second line of the tooltip under the title, e.g. how far an upload has gone; empty for none.
    virtual void setToolTipDetail(const QString& detail) = 0;
    /// Whether a tray host shows the item (a StatusNotifierWatcher accepted it, or an XEmbed tray exists).
    virtual bool isShown() const = 0;

signals:
    /// The user activated the item; `globalPos` is where the host says it was clicked (or the cursor).
    void clicked(QPoint globalPos);
};

/// The tray item of this desktop: a StatusNotifierItem when a watcher runs, else the XEmbed tray. Its
/// base image is `icon` (may be null: the item then shows no image).
std::unique_ptr<StatusItem> makeStatusItem(const QIcon& icon);

} // namespace tavrel
