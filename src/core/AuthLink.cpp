#include "AuthLink.h"

#include <QByteArray>
#include <QStringDecoder>

namespace tavrel {

namespace {

bool isSchemeCharacter(QChar c, bool first) {
    const char16_t u = c.unicode();
    const bool alpha = (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z');
    if (first)
        return alpha;
    return alpha || (u >= '0' && u <= '9') || u == '+' || u == '-' || u == '.';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Percent-decoding as URL components do it: a stray "%" or bytes that are not UTF-8 make the text unreadable.
std::optional<QString> percentDecoded(QStringView text) {
    const QByteArray encoded = text.toUtf8();
    QByteArray bytes;
    bytes.reserve(encoded.size());
    for (qsizetype i = 0; i < encoded.size(); ++i) {
        if (encoded[i] != '%') {
            bytes.append(encoded[i]);
            continue;
        }
        if (i + 2 >= encoded.size())
            return std::nullopt;
        const int high = hexValue(encoded[i + 1]);
        const int low = hexValue(encoded[i + 2]);
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes.append(static_cast<char>(high * 16 + low));
        i += 2;
    }
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString decoded = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return decoded;
}

struct QueryItem {
    std::optional<QString> name;
    std::optional<QString> value;
};

std::optional<QString> firstValue(const QList<QueryItem>& items, const QString& name) {
    for (const QueryItem& item : items) {
        if (item.name == name)
            return item.value;
    }
    return std::nullopt;
}

} // namespace

std::optional<AuthLink> AuthLink::parse(const QString& link) {
    // scheme ":" "//" authority [path] ["?" query] ["#" fragment]
    const qsizetype colon = link.indexOf(u':');
    if (colon <= 0)
        return std::nullopt;
    for (qsizetype i = 0; i < colon; ++i) {
        if (!isSchemeCharacter(link[i], i == 0))
            return std::nullopt;
    }
    if (QStringView(link).first(colon) != u"tavrel")
        return std::nullopt;

    const QStringView rest = QStringView(link).sliced(colon + 1);
    if (!rest.startsWith(u"//"))
        return std::nullopt; // no authority, so no host
    const QStringView afterSlashes = rest.sliced(2);
    qsizetype authorityEnd = 0;
    while (authorityEnd < afterSlashes.size() && afterSlashes[authorityEnd] != u'/' &&
           afterSlashes[authorityEnd] != u'?' && afterSlashes[authorityEnd] != u'#')
        ++authorityEnd;
    QStringView hostAndPort = afterSlashes.first(authorityEnd);
    if (const qsizetype at = hostAndPort.lastIndexOf(u'@'); at >= 0)
        hostAndPort = hostAndPort.sliced(at + 1);
    QStringView host = hostAndPort;
    if (const qsizetype portColon = hostAndPort.indexOf(u':'); portColon >= 0) {
        host = hostAndPort.first(portColon);
        for (const QChar c : hostAndPort.sliced(portColon + 1)) {
            if (!c.isDigit() || c.unicode() > '9')
                return std::nullopt; // not a URL at all
        }
    }
    if (percentDecoded(host) != QStringLiteral("auth"))
        return std::nullopt;

    QStringView tail = afterSlashes.sliced(authorityEnd);
    if (const qsizetype hash = tail.indexOf(u'#'); hash >= 0)
        tail = tail.first(hash);
    const qsizetype question = tail.indexOf(u'?');
    if (question < 0)
        return std::nullopt;
    const QStringView query = tail.sliced(question + 1);
    if (query.isEmpty())
        return std::nullopt;

    QList<QueryItem> items;
    for (const QStringView piece : query.tokenize(u'&')) {
        const qsizetype equals = piece.indexOf(u'=');
        if (equals < 0)
            items.append({percentDecoded(piece), std::nullopt});
        else
            items.append({percentDecoded(piece.first(equals)), percentDecoded(piece.sliced(equals + 1))});
    }

    const std::optional<QString> token = firstValue(items, QStringLiteral("token"));
    if (!token)
        return std::nullopt;
    const std::optional<QString> backend = firstValue(items, QStringLiteral("backend"));
    if (!backend)
        return std::nullopt;
    return AuthLink{*token, *backend};
}

std::optional<AuthLink> AuthLink::fromLinks(const QStringList& links) {
    if (links.isEmpty())
        return std::nullopt;
    return parse(links.first());
}

} // namespace tavrel
