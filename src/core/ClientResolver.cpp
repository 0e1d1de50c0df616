#include "ClientResolver.h"

#include <vector>

namespace tavrel {

QString normalizedForSearch(const QString& text) {
    const QString decomposed = text.normalized(QString::NormalizationForm_D);
    QString folded;
    folded.reserve(decomposed.size());
    // Iterate by code point so that marks outside the BMP are recognised too.
    for (const char32_t codePoint : decomposed.toUcs4()) {
        const auto category = QChar::category(codePoint);
        if (category == QChar::Mark_NonSpacing || category == QChar::Mark_SpacingCombining ||
            category == QChar::Mark_Enclosing)
            continue;
        folded.append(QString::fromUcs4(&codePoint, 1));
    }
    return folded.toCaseFolded().trimmed();
}

std::optional<qint64> exactInteger(const QJsonValue& value) {
    if (!value.isDouble())
        return std::nullopt;
    // toInteger() answers its default when the number is not an exact 64-bit integer; two different
    // defaults tell that case apart from a genuine 0 or 1.
    const qint64 a = value.toInteger(0);
    const qint64 b = value.toInteger(1);
    if (a != b)
        return std::nullopt;
    return a;
}

std::optional<ResolvedClient> arResolveClient(const QString& text, const QList<QJsonObject>& clients) {
    const QString query = normalizedForSearch(text);
    if (query.isEmpty())
        return std::nullopt;

    struct Candidate {
        ResolvedClient client;
        QString normalized;
    };
    std::vector<Candidate> candidates;
    for (const QJsonObject& record : clients) {
        const std::optional<qint64> id = exactInteger(record.value(QLatin1String("id")));
        const QJsonValue name = record.value(QLatin1String("name"));
        if (!id || !name.isString())
            continue;
        candidates.push_back({{*id, name.toString()}, normalizedForSearch(name.toString())});
    }

    for (const Candidate& candidate : candidates) {
        if (candidate.normalized == query)
            return candidate.client;
    }
    const auto single = [&](auto matches) -> std::optional<ResolvedClient> {
        const Candidate* found = nullptr;
        for (const Candidate& candidate : candidates) {
            if (!matches(candidate.normalized))
                continue;
            if (found)
                return std::nullopt;
            found = &candidate;
        }
        if (!found)
            return std::nullopt;
        return found->client;
    };
    if (auto byPrefix = single([&](const QString& name) { return name.startsWith(query); }))
        return byPrefix;
    // Several prefixes fall through to the substring stage, where they are several again.
    return single([&](const QString& name) { return name.contains(query); });
}

} // namespace tavrel
