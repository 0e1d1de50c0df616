#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

namespace tavrel {

/// What a launch asks of the program, from its command line:
///   tavrel-recorder                            → activate
///   tavrel-recorder tavrel://auth?...          → open the links
///   tavrel-recorder --action add-note "texte"  → run an action (start-recording, stop-recording,
///                                                toggle-pause, add-note, open-settings)
struct LaunchRequest {
    enum class Kind { activate, open, action };
    Kind kind = Kind::activate;
    QList<QUrl> urls;
    /// The same links as text, exactly as given: a QUrl folds the scheme's and host's case, which the account
    /// link must see as it came.
    QStringList links;
    QString action;
    QStringList parameters;

    /// `arguments` includes the program name, as QCoreApplication::arguments() gives it.
    static LaunchRequest fromArguments(const QStringList& arguments);
};

} // namespace tavrel
