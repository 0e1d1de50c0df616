// Client resolution on normalised text, and the error texts of the backend client.
#include "core/ClientResolver.h"

#include "net/UploadService.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace tavrel;

static void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace {

QList<QJsonObject> clients(const char* json) {
    QList<QJsonObject> list;
    for (const QJsonValue& value : QJsonDocument::fromJson(json).array())
        list.append(value.toObject());
    return list;
}

const char* const kThree =
    R"([{"id":1,"name":"Dupont SA"},{"id":2,"name":"Dupuis"},{"id":3,"name":"Société Générale"}])";

struct ResolveCase {
    const char* label;
    QString typed;
    std::optional<qint64> expectedId;
    const char* list = kThree;
};

class ResolveTest : public ::testing::TestWithParam<ResolveCase> {};

TEST_P(ResolveTest, TypedTextDesignatesAtMostOneClient) {
    const ResolveCase& c = GetParam();
    const auto resolved = arResolveClient(c.typed, clients(c.list));
    if (!c.expectedId) {
        EXPECT_FALSE(resolved) << "resolved to " << resolved->name.toStdString();
        return;
    }
    ASSERT_TRUE(resolved);
    EXPECT_EQ(resolved->id, *c.expectedId);
    // The name comes back as the backend spells it, whatever was typed.
    for (const QJsonObject& record : clients(c.list)) {
        if (record.value("id").toInteger() == *c.expectedId) {
            EXPECT_EQ(resolved->name, record.value("name").toString());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Examples, ResolveTest,
    ::testing::Values(
        ResolveCase{"Exact", "dupont sa", 1}, ResolveCase{"SinglePrefix", "dupo", 1},
        ResolveCase{"TwoPrefixesTwoSubstrings", "dup", std::nullopt}, ResolveCase{"SingleSubstring", "generale", 3},
        ResolveCase{"SpacesAndCase", "   SOCIETE   ", 3}, ResolveCase{"TrailingSpaceExact", "Dupont SA ", 1},
        ResolveCase{"AccentsTyped", "DUPÓNT", 1}, ResolveCase{"NewlinesTrimmed", "\n\tdupuis\n", 2},
        ResolveCase{"Nothing", "Martin", std::nullopt}, ResolveCase{"Empty", "", std::nullopt},
        ResolveCase{"OnlySpaces", "   ", std::nullopt},
        ResolveCase{"DecomposedInput", QStringLiteral("socie\u0301te\u0301"), 3},
        ResolveCase{"CedillaAndCase", "francois", 9, R"([{"id":9,"name":"FRANÇOIS"}])"},
        ResolveCase{"SameNameFirstWins", "dupuis", 2, R"([{"id":2,"name":"Dupuis"},{"id":8,"name":"DUPUIS"}])"},
        ResolveCase{"ExactBeatsPrefix", "dupuis", 5, R"([{"id":4,"name":"Dupuis et Fils"},{"id":5,"name":"Dupuis"}])"},
        ResolveCase{"PrefixBeforeSubstring", "art", 6, R"([{"id":6,"name":"Artois"},{"id":7,"name":"Martin"}])"},
        ResolveCase{"IdZeroResolves", "zero", 0, R"([{"id":0,"name":"Zéro"}])"},
        ResolveCase{"RecordsWithoutProperTypesSkipped", "dupont", 11,
                    R"([{"id":"10","name":"Dupont A"},{"id":11,"name":"Dupont B"},{"id":12.5,"name":"Dupont C"},)"
                    R"({"id":13,"name":["Dupont D"]},{"name":"Dupont E"}])"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(NormalizedForSearch, TypedTextAndNamesFoldAlike) {
    EXPECT_EQ(normalizedForSearch(QStringLiteral(" Société Générale\n")), QStringLiteral("societe generale"));
    EXPECT_EQ(normalizedForSearch(QStringLiteral("ÇA")), normalizedForSearch(QStringLiteral("ca")));
    EXPECT_EQ(normalizedForSearch(QStringLiteral("ÉCOLE")), normalizedForSearch(QStringLiteral("ecole")));
    EXPECT_EQ(normalizedForSearch(QStringLiteral("Müller")), QStringLiteral("muller"));
}

TEST(ExactInteger, OnlyExactSixtyFourBitIntegers) {
    const QJsonArray values =
        QJsonDocument::fromJson(R"([0, 1, -4, 7.0, 9007199254740993, 7.5, "7", true, null, 1e300, [1]])").array();
    EXPECT_EQ(exactInteger(values[0]), 0);
    EXPECT_EQ(exactInteger(values[1]), 1);
    EXPECT_EQ(exactInteger(values[2]), -4);
    EXPECT_EQ(exactInteger(values[3]), 7);
    EXPECT_EQ(exactInteger(values[4]), Q_INT64_C(9007199254740993));
    for (int i = 5; i < values.size(); ++i)
        EXPECT_FALSE(exactInteger(values[i])) << i;
}

TEST(UploadFailureText, DescriptionsAndTheCutCountCharactersNotBytesOrUnits) {
    EXPECT_EQ(UploadFailure::httpError(500, {}).localizedDescription(), "Erreur serveur 500");
    EXPECT_EQ(UploadFailure::httpError(413, "Fichier trop volumineux").localizedDescription(),
              "Erreur serveur 413 : Fichier trop volumineux");
    EXPECT_EQ(UploadFailure::invalidURL().localizedDescription(), "URL du serveur invalide");
    EXPECT_EQ(UploadFailure::badResponse().localizedDescription(), "Réponse inattendue du serveur");
    EXPECT_EQ(UploadFailure::badResponse().debugDescription(), "badResponse");

    // 300 family emoji (7 UTF-16 units each, one character) keep 200 whole characters.
    const QString family = QStringLiteral("👨‍👩‍👧");
    QString longText;
    for (int i = 0; i < 300; ++i)
        longText += family;
    const QString cut = firstCharacters(longText, 200);
    EXPECT_EQ(cut.size(), 200 * family.size());
    EXPECT_TRUE(longText.startsWith(cut));
    EXPECT_EQ(firstCharacters(QStringLiteral("court"), 200), "court");
    EXPECT_EQ(UploadFailure::httpError(500, longText).localizedDescription(), "Erreur serveur 500 : " + cut);
}

} // namespace
