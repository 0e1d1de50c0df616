#include "core/Error.h"
#include "platform/AutostartTemplate.h"
#include "platform/LoginItem.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTextStream>

namespace tavrel {

namespace {

QString entryPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/fr.tavrel.Recorder.desktop");
}

/// Whether the entry's own group says Hidden=true (the desktop's way of switching an entry off).
bool isHidden(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return false;
    QTextStream in(&file);
    bool inMainGroup = false;
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (line.startsWith(u'[')) {
            inMainGroup = line == QStringLiteral("[Desktop Entry]");
            continue;
        }
        if (!inMainGroup)
            continue;
        const qsizetype equals = line.indexOf(u'=');
        if (equals < 0 || line.left(equals).trimmed() != QStringLiteral("Hidden"))
            continue;
        return line.mid(equals + 1).trimmed().compare(QStringLiteral("true"), Qt::CaseInsensitive) == 0;
    }
    return false;
}

/// An XDG autostart entry in the user's config directory.
class XdgLoginItem final : public LoginItem {
public:
    bool isEnabled() const override {
        const QString path = entryPath();
        return QFileInfo::exists(path) && !isHidden(path);
    }

    void setEnabled(bool enabled) override {
        const QString path = entryPath();
        if (!enabled) {
            QFile file(path);
            if (file.exists() && !file.remove())
                throw Error(file.errorString());
            return;
        }
        if (!QDir().mkpath(QFileInfo(path).absolutePath()))
            throw Error(QStringLiteral("impossible de créer le dossier %1").arg(QFileInfo(path).absolutePath()));
        QString program = QCoreApplication::applicationFilePath();
        if (program.isEmpty())
            program = QStringLiteral("tavrel-recorder");
        QString text = QString::fromUtf8(kAutostartTemplate);
        // Desktop entries quote an argument that holds spaces.
        if (program.contains(u' '))
            program = u'"' + program + u'"';
        text.replace(QStringLiteral("@EXEC@"), program);
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.commit())
            throw Error(file.errorString());
    }
};

} // namespace

std::unique_ptr<LoginItem> makeLoginItem() {
    return std::make_unique<XdgLoginItem>();
}

} // namespace tavrel
