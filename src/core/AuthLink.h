#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace tavrel {

/// The account link the web application opens: tavrel://auth?token=…&backend=…
///
/// The link is read from its text exactly as the desktop handed it over: scheme and host are compared
/// case-sensitively, which a QUrl (it folds both to lower case) cannot do.
struct AuthLink {
    QString token;
    QString backendURL;

    /// The link's token and backend, or nothing when the link is not a complete account link. Item values are
    /// percent-decoded ("+" stays "+"); "token=" gives an empty value, "token" alone gives none; the first
    /// occurrence of an item counts.
    static std::optional<AuthLink> parse(const QString& link);
    /// Only the first link of a hand-over counts, even when it is not an account link.
    static std::optional<AuthLink> fromLinks(const QStringList& links);
};

} // namespace tavrel
