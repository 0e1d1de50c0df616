#include "core/AuthLink.h"

#include <gtest/gtest.h>
#include <optional>

namespace tavrel {
namespace {

struct LinkCase {
    const char* name;
    QStringList links;
    std::optional<AuthLink> expected;
};

void PrintTo(const LinkCase& c, std::ostream* os) {
    *os << c.name;
}

class AuthLinkParse : public ::testing::TestWithParam<LinkCase> {};

TEST_P(AuthLinkParse, readsTokenAndBackendOrNothing) {
    const LinkCase& c = GetParam();
    const std::optional<AuthLink> link = AuthLink::fromLinks(c.links);
    ASSERT_EQ(link.has_value(), c.expected.has_value()) << c.links.join(u' ').toStdString();
    if (link) {
        EXPECT_EQ(link->token, c.expected->token);
        EXPECT_EQ(link->backendURL, c.expected->backendURL);
        // A stored empty text must stay distinct from an absent value.
        EXPECT_EQ(link->token.isNull(), false);
        EXPECT_EQ(link->backendURL.isNull(), false);
    }
}

QString s(const char* text) {
    return QString::fromUtf8(text);
}

AuthLink link(const char* token, const char* backend) {
    return AuthLink{s(token), s(backend)};
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AuthLinkParse,
    ::testing::Values(
        LinkCase{"percentEncodedBackend",
                 {s("tavrel://auth?token=abc&backend=https%3A%2F%2Fexample.org%2Fbackend")},
                 link("abc", "https://example.org/backend")},
        LinkCase{"itemOrderIgnored", {s("tavrel://auth?backend=b&token=t")}, link("t", "b")},
        LinkCase{"schemeInCapitals", {s("TAVREL://auth?token=abc&backend=b")}, std::nullopt},
        LinkCase{"hostInCapitals", {s("tavrel://AUTH?token=abc&backend=b")}, std::nullopt},
        LinkCase{"noHost", {s("tavrel:auth?token=abc&backend=b")}, std::nullopt},
        LinkCase{"emptyHost", {s("tavrel:///auth?token=abc&backend=b")}, std::nullopt},
        LinkCase{"noScheme", {s("auth?token=abc&backend=b")}, std::nullopt},
        LinkCase{"tokenOnly", {s("tavrel://auth?token=abc")}, std::nullopt},
        LinkCase{"noQuery", {s("tavrel://auth")}, std::nullopt},
        LinkCase{"emptyValuesStored", {s("tavrel://auth?token=&backend=")}, link("", "")},
        LinkCase{"tokenWithoutEquals", {s("tavrel://auth?token&backend=b")}, std::nullopt},
        LinkCase{"firstTokenWins", {s("tavrel://auth?token=one&token=two&backend=b")}, link("one", "b")},
        LinkCase{"firstTokenHasNoValue", {s("tavrel://auth?token&token=two&backend=b")}, std::nullopt},
        LinkCase{"firstBackendWins", {s("tavrel://auth?token=t&backend=x&backend=y")}, link("t", "x")},
        LinkCase{"itemNamesCaseSensitive", {s("tavrel://auth?Token=t&backend=b")}, std::nullopt},
        LinkCase{"pathFragmentAndOthersIgnored",
                 {s("tavrel://auth/some/path?x=1&token=t&&backend=b#token=zzz")},
                 link("t", "b")},
        LinkCase{"fragmentIsNotQuery", {s("tavrel://auth#?token=t&backend=b")}, std::nullopt},
        LinkCase{"plusIsNotSpace", {s("tavrel://auth?token=a+b&backend=b")}, link("a+b", "b")},
        LinkCase{"encodedEqualsAndAmpersand", {s("tavrel://auth?token=a%3Db%26c&backend=b")}, link("a=b&c", "b")},
        LinkCase{"secondEqualsKept", {s("tavrel://auth?token=a=b&backend=b")}, link("a=b", "b")},
        LinkCase{"utf8Decoded", {s("tavrel://auth?token=%C3%A9t%C3%A9&backend=b")}, link("été", "b")},
        LinkCase{"badEscapeMeansNoValue", {s("tavrel://auth?token=%ZZ&backend=b")}, std::nullopt},
        LinkCase{"truncatedEscape", {s("tavrel://auth?token=t&backend=b%2")}, std::nullopt},
        LinkCase{"notUtf8", {s("tavrel://auth?token=%FF&backend=b")}, std::nullopt},
        LinkCase{"encodedItemName", {s("tavrel://auth?%74oken=t&backend=b")}, link("t", "b")},
        LinkCase{"userAndPortIgnored", {s("tavrel://me@auth:42?token=t&backend=b")}, link("t", "b")},
        LinkCase{"badPort", {s("tavrel://auth:x?token=t&backend=b")}, std::nullopt},
        LinkCase{"noLinks", {}, std::nullopt},
        // Only the first link is read: not the first valid one, not the last.
        LinkCase{"secondLinkIgnoredEvenWhenFirstIsForeign",
                 {s("https://example.org/"), s("tavrel://auth?token=t&backend=b")},
                 std::nullopt}),
    [](const ::testing::TestParamInfo<LinkCase>& info) { return std::string(info.param.name); });

} // namespace
} // namespace tavrel
