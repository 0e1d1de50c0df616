#include "TestSupport.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace tavrel {
namespace {

struct CrashCase {
    const char* how;
    QStringList expectedLines; ///< in this order, each at the start of a line
};

class CrashHooksTest : public ::testing::TestWithParam<CrashCase> {};

// The probe installs the hooks as main() does, then crashes the way it is told.
TEST_P(CrashHooksTest, WritesTheCrashAndItsStackToStandardOutput) {
    const test::CommandResult probe = test::runCommand(
        QStringLiteral(TAVREL_CRASH_PROBE), {QString::fromLatin1(GetParam().how)}, {}, std::chrono::seconds(20));
    EXPECT_GT(probe.exitCode, 128) << "the hooks must not swallow the crash: " << probe.describe().toStdString();
    const QString out = QString::fromUtf8(probe.standardOutput);
    qsizetype from = 0;
    for (const QString& expected : GetParam().expectedLines) {
        const qsizetype at = out.indexOf(expected, from);
        ASSERT_GE(at, 0) << "missing \"" << expected.toStdString() << "\" in:\n" << out.toStdString();
        EXPECT_TRUE(at == 0 || out.at(at - 1) == u'\n');
        from = at + expected.size();
    }
    // The call stack follows: several frames, one of them in the probe's own crashing function.
    EXPECT_GE(out.mid(from).count(u'\n'), 3) << out.toStdString();
    EXPECT_TRUE(out.contains(QStringLiteral("tavrel_crash_probe"))) << out.toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    Crashes, CrashHooksTest,
    ::testing::Values(CrashCase{"abort", {QStringLiteral("💥 SIGABRT reçu\n")}},
                      CrashCase{"throw",
                                {QStringLiteral("💥 EXCEPTION: std::runtime_error: périphérique introuvable\n"),
                                 QStringLiteral("💥 SIGABRT reçu\n")}},
                      CrashCase{"throw-other", {QStringLiteral("💥 EXCEPTION: int: \n")}}),
    [](const auto& info) {
        std::string name = info.param.how;
        std::replace(name.begin(), name.end(), '-', '_');
        return name;
    });

} // namespace
} // namespace tavrel
