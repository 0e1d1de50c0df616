#pragma once

#include <QByteArray>
#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QList>
#include <QString>

namespace tavrel {

/// One image of an icon on the wire: width, height, ARGB32 pixels in network byte order.
struct SniPixmap {
    qint32 width = 0;
    qint32 height = 0;
    QByteArray pixels;
};
using SniPixmapList = QList<SniPixmap>;

struct SniToolTip {
    QString iconName;
    SniPixmapList pixmaps;
    QString title;
    QString description;
};

QDBusArgument& operator<<(QDBusArgument& argument, const SniPixmap& pixmap);
const QDBusArgument& operator>>(const QDBusArgument& argument, SniPixmap& pixmap);
QDBusArgument& operator<<(QDBusArgument& argument, const SniToolTip& toolTip);
const QDBusArgument& operator>>(const QDBusArgument& argument, SniToolTip& toolTip);

class LinuxStatusItem;

/// org.kde.StatusNotifierItem with the Ayatana label extension that AppIndicator hosts read.
class StatusNotifierItemAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(qint32 WindowId READ windowId)
    Q_PROPERTY(QString IconName READ iconName)
    Q_PROPERTY(tavrel::SniPixmapList IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ emptyName)
    Q_PROPERTY(tavrel::SniPixmapList OverlayIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionIconName READ emptyName)
    Q_PROPERTY(tavrel::SniPixmapList AttentionIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionMovieName READ emptyName)
    Q_PROPERTY(tavrel::SniToolTip ToolTip READ toolTip)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)
    Q_PROPERTY(QString XAyatanaLabel READ label)
    Q_PROPERTY(QString XAyatanaLabelGuide READ labelGuide)
    Q_PROPERTY(quint32 XAyatanaOrderingIndex READ orderingIndex)
public:
    explicit StatusNotifierItemAdaptor(LinuxStatusItem* item);

    QString category() const { return QStringLiteral("ApplicationStatus"); }
    QString id() const { return QStringLiteral("tavrel-recorder"); }
    QString title() const { return QStringLiteral("TaVREL Recorder"); }
    QString status() const { return QStringLiteral("Active"); }
    qint32 windowId() const { return 0; }
    QString iconName() const;
    SniPixmapList iconPixmap() const;
    QString emptyName() const { return {}; }
    SniPixmapList noPixmaps() const { return {}; }
    SniToolTip toolTip() const;
    bool itemIsMenu() const { return false; }
    QDBusObjectPath menu() const { return QDBusObjectPath(QStringLiteral("/NO_DBUSMENU")); }
    QString label() const;
    QString labelGuide() const;
    quint32 orderingIndex() const { return 0; }

public slots:
    void Activate(int x, int y);
    void SecondaryActivate(int x, int y);
    void ContextMenu(int x, int y);
    void Scroll(int delta, const QString& orientation);

signals:
    void NewTitle();
    void NewIcon();
    void NewAttentionIcon();
    void NewOverlayIcon();
    void NewToolTip();
    void NewStatus(const QString& status);
    void XAyatanaNewLabel(const QString& label, const QString& guide);

private:
    LinuxStatusItem* m_item;
};

} // namespace tavrel

Q_DECLARE_METATYPE(tavrel::SniPixmap)
Q_DECLARE_METATYPE(tavrel::SniToolTip)
