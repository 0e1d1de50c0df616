#include "core/SettingsManager.h"

#include "TestSupport.h"

#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <functional>
#include <gtest/gtest.h>

namespace tavrel {
namespace {

class SettingsManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_env.set("XDG_CONFIG_HOME", m_dir.path().toUtf8());
    }

    /// What another process (or an older version) finds in the file.
    QVariant storedValue(const QString& key) const {
        return QSettings(SettingsManager::filePath(), QSettings::IniFormat).value(key);
    }

    test::TempDir m_dir{QStringLiteral("tavrel-settings")};
    test::ScopedEnvironment m_env;
    SettingsManager& m_settings = SettingsManager::shared();
};

struct StringKey {
    const char* name;
    std::function<QString()> read;
    std::function<void(const QString&)> write;
    std::function<QString()> defaultValue;
};

std::vector<StringKey> stringKeys() {
    SettingsManager& s = SettingsManager::shared();
    return {
        {"backendURL", [&s] { return s.backendURL(); }, [&s](const QString& v) { s.setBackendURL(v); },
         [] { return QStringLiteral(TAVREL_DEFAULT_SERVER) + QStringLiteral("/backend"); }},
        {"webURL", [&s] { return s.webURL(); }, [&s](const QString& v) { s.setWebURL(v); },
         [] { return QStringLiteral(TAVREL_DEFAULT_SERVER) + QStringLiteral("/tavrel/index.html"); }},
        {"token", [&s] { return s.token(); }, [&s](const QString& v) { s.setToken(v); }, [] { return QString(); }},
    };
}

class StringKeyTest : public SettingsManagerTest, public ::testing::WithParamInterface<StringKey> {};

// An absent key gives the default without creating the file. Spaces, a trailing slash and the INI file's own
// special characters all survive; a stored empty text stays empty rather than falling back to the default.
// What another writer stored since the last read is what is read.
TEST_P(StringKeyTest, ValuesAreStoredExactlyAsGivenAndReadAfreshEachTime) {
    EXPECT_EQ(GetParam().read(), GetParam().defaultValue());
    EXPECT_FALSE(QFileInfo::exists(SettingsManager::filePath())) << "reading must not create the file";
    const QString key = QString::fromLatin1(GetParam().name);
    for (const QString& value : {QStringLiteral("  https://exemple.fr/backend/  "), QStringLiteral("a=b;c#d[e]\"f\\g"),
                                 QStringLiteral("éèà « ✅ »"), QStringLiteral("eyJhbGciOi.J9.x-y_z=="), QString()}) {
        GetParam().write(value);
        EXPECT_EQ(GetParam().read(), value);
        EXPECT_TRUE(storedValue(key).isValid());
        EXPECT_EQ(storedValue(key).toString(), value);
    }
    QSettings(SettingsManager::filePath(), QSettings::IniFormat).setValue(key, QStringLiteral("second"));
    EXPECT_EQ(GetParam().read(), QStringLiteral("second"));
}

INSTANTIATE_TEST_SUITE_P(Keys, StringKeyTest, ::testing::ValuesIn(stringKeys()),
                         [](const auto& info) { return std::string(info.param.name); });

// The file holds the token: only its owner may read it, even when it was made readable to others before.
TEST_F(SettingsManagerTest, FileIsReadableByTheUserOnly) {
    EXPECT_TRUE(m_settings.autoDetectCalls()) << "call detection is on until switched off";
    m_settings.setAutoDetectCalls(false);
    EXPECT_EQ(storedValue(QStringLiteral("autoDetectCalls")).toBool(), false);
    const QString path = SettingsManager::filePath();
    EXPECT_TRUE(path.startsWith(m_dir.path() + QStringLiteral("/TavrelRecorder/"))) << path.toStdString();
    constexpr QFile::Permissions kOthers =
        QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup | QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
    EXPECT_FALSE(QFile::permissions(path) & kOthers) << "group or others may read the token";
    EXPECT_EQ(QFile::permissions(path) & (QFile::ReadOwner | QFile::WriteOwner), QFile::ReadOwner | QFile::WriteOwner);

    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);
    m_settings.setToken(QStringLiteral("secret"));
    EXPECT_FALSE(QFile::permissions(path) & kOthers);
    EXPECT_FALSE(m_settings.autoDetectCalls()) << "other keys are kept";
}

} // namespace
} // namespace tavrel
