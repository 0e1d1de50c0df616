#include "app/LaunchRequest.h"

#include <gtest/gtest.h>

namespace tavrel {
namespace {

struct LaunchCase {
    const char* name;
    QStringList arguments;
    LaunchRequest::Kind kind;
    QStringList urls;
    QString action;
    QStringList parameters;
};

class LaunchRequestTest : public ::testing::TestWithParam<LaunchCase> {};

TEST_P(LaunchRequestTest, ReadsTheCommandLine) {
    const LaunchCase& c = GetParam();
    const LaunchRequest request =
        LaunchRequest::fromArguments(QStringList{QStringLiteral("tavrel-recorder")} + c.arguments);
    EXPECT_EQ(request.kind, c.kind);
    QStringList urls;
    for (const QUrl& url : request.urls)
        urls << url.toString(QUrl::FullyEncoded);
    EXPECT_EQ(urls, c.urls);
    EXPECT_EQ(request.action, c.action);
    EXPECT_EQ(request.parameters, c.parameters);
}

const QString kLink = QStringLiteral("tavrel://auth?token=abc&backend=https%3A%2F%2Fx.fr%2Fbackend");

INSTANTIATE_TEST_SUITE_P(
    Arguments, LaunchRequestTest,
    ::testing::Values(
        LaunchCase{"none", {}, LaunchRequest::Kind::activate, {}, {}, {}},
        LaunchCase{"link", {kLink}, LaunchRequest::Kind::open, {kLink}, {}, {}},
        LaunchCase{"two_links",
                   {kLink, QStringLiteral("tavrel://autre")},
                   LaunchRequest::Kind::open,
                   {kLink, QStringLiteral("tavrel://autre")},
                   {},
                   {}},
        LaunchCase{"unknown_option_ignored", {QStringLiteral("--verbose")}, LaunchRequest::Kind::activate, {}, {}, {}},
        LaunchCase{"action",
                   {QStringLiteral("--action"), QStringLiteral("start-recording")},
                   LaunchRequest::Kind::action,
                   {},
                   QStringLiteral("start-recording"),
                   {}},
        LaunchCase{"action_with_equals",
                   {QStringLiteral("--action=toggle-pause")},
                   LaunchRequest::Kind::action,
                   {},
                   QStringLiteral("toggle-pause"),
                   {}},
        LaunchCase{"note_keeps_its_spaces",
                   {QStringLiteral("--action"), QStringLiteral("add-note"), QStringLiteral("  point clé  ")},
                   LaunchRequest::Kind::action,
                   {},
                   QStringLiteral("add-note"),
                   {QStringLiteral("  point clé  ")}},
        LaunchCase{"action_without_name", {QStringLiteral("--action")}, LaunchRequest::Kind::activate, {}, {}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace tavrel
