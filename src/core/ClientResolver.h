#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <optional>

namespace tavrel {

/// A client the typed text designates: the backend's id and the name as the backend spells it.
struct ResolvedClient {
    qint64 id = 0;
    QString name;
    bool operator==(const ResolvedClient&) const = default;
};

/// The form in which client names and typed text are compared: decomposed (NFD), combining marks
/// removed, case-folded, then trimmed. So "  SOCIÉTÉ " and "societe" compare equal, as do "ç" and "c".
QString normalizedForSearch(const QString& text);

/// A JSON number that converts exactly to a signed 64-bit integer (7 and 7.0 do; 7.5, "7", true and
/// numbers beyond the 64-bit range do not).
std::optional<qint64> exactInteger(const QJsonValue& value);

/// The one client that `text` designates among `clients` (records with an integer "id" and a string
/// "name"; others are skipped): the first exact match of the normalised names, else the only name that
/// begins with the text, else the only name that contains it. None when the text is empty or ambiguous.
std::optional<ResolvedClient> arResolveClient(const QString& text, const QList<QJsonObject>& clients);

} // namespace tavrel
