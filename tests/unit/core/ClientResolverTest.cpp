// Client resolution on normalised text, the integers the backend's records must carry, and the cut of long
// server texts.
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

TEST(ArResolveClient, TypedTextDesignatesAtMostOneClient) {
    const char* const three =
        R"([{"id":1,"name":"Dupont SA"},{"id":2,"name":"Dupuis"},{"id":3,"name":"Société Générale"}])";
    const struct {
        QString typed;
        std::optional<qint64> expectedId;
        const char* list;
    } cases[] = {{"dupont sa", 1, three}, // exact
                 {"dupo", 1, three},      // a single prefix
                 {"dup", std::nullopt, three},
                 {"generale", 3, three}, // a single substring
                 {"   SOCIETE   ", 3, three},
                 {"Dupont SA ", 1, three},
                 {"DUPÓNT", 1, three},
                 {"\n\tdupuis\n", 2, three},
                 {"Martin", std::nullopt, three},
                 {"", std::nullopt, three},
                 {"   ", std::nullopt, three},
                 {QStringLiteral("socie\u0301te\u0301"), 3, three}, // decomposed accents
                 {"francois", 9, R"([{"id":9,"name":"FRANÇOIS"}])"},
                 {"muller", 4, R"([{"id":4,"name":"Müller"}])"},
                 {"dupuis", 2, R"([{"id":2,"name":"Dupuis"},{"id":8,"name":"DUPUIS"}])"},         // the first wins
                 {"dupuis", 5, R"([{"id":4,"name":"Dupuis et Fils"},{"id":5,"name":"Dupuis"}])"}, // exact beats prefix
                 {"art", 6, R"([{"id":6,"name":"Artois"},{"id":7,"name":"Martin"}])"}, // prefix beats substring
                 {"zero", 0, R"([{"id":0,"name":"Zéro"}])"},
                 // Records without an integer id and a string name are skipped.
                 {"dupont", 11,
                  R"([{"id":"10","name":"Dupont A"},{"id":11,"name":"Dupont B"},{"id":12.5,"name":"Dupont C"},)"
                  R"({"id":13,"name":["Dupont D"]},{"name":"Dupont E"}])"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.typed.toStdString() + " in " + c.list);
        const auto resolved = arResolveClient(c.typed, clients(c.list));
        ASSERT_EQ(resolved.has_value(), c.expectedId.has_value()) << (resolved ? resolved->name.toStdString() : "");
        if (!resolved)
            continue;
        EXPECT_EQ(resolved->id, *c.expectedId);
        // The name comes back as the backend spells it, whatever was typed.
        for (const QJsonObject& record : clients(c.list)) {
            if (record.value("id").toInteger() == *c.expectedId) {
                EXPECT_EQ(resolved->name, record.value("name").toString());
            }
        }
    }
}

TEST(ExactInteger, OnlyExactSixtyFourBitIntegers) {
    const QJsonArray values =
        QJsonDocument::fromJson(R"([0, 1, -4, 7.0, 9007199254740993, 7.5, "7", true, null, 1e300, [1]])").array();
    const std::optional<qint64> expected[] = {0, 1, -4, 7, Q_INT64_C(9007199254740993)};
    for (qsizetype i = 0; i < values.size(); ++i)
        EXPECT_EQ(exactInteger(values[i]), i < 5 ? expected[i] : std::nullopt) << i;
}

TEST(FirstCharacters, CountsWholeCharactersNotUnits) {
    // 300 family emoji (7 UTF-16 units each, one character) keep 200 whole characters.
    const QString family = QStringLiteral("👨‍👩‍👧");
    EXPECT_EQ(firstCharacters(family.repeated(300), 200), family.repeated(200));
    EXPECT_EQ(firstCharacters(QStringLiteral("court"), 200), "court");
}

} // namespace
