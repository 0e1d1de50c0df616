#include "TestSupport.h"
#include "core/Error.h"
#include "platform/LoginItem.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <gtest/gtest.h>

namespace tavrel {
namespace {

class XdgLoginItemTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_env.set("XDG_CONFIG_HOME", m_dir.path().toUtf8());
    }

    QString entryPath() const { return m_dir.path() + QStringLiteral("/autostart/fr.tavrel.Recorder.desktop"); }

    void writeEntry(const QByteArray& text) {
        QDir().mkpath(m_dir.path() + QStringLiteral("/autostart"));
        QFile file(entryPath());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    }

    test::TempDir m_dir{QStringLiteral("tavrel-login")};
    test::ScopedEnvironment m_env;
    std::unique_ptr<LoginItem> m_item = makeLoginItem();
};

TEST_F(XdgLoginItemTest, EnablingWritesAnAutostartEntryThatStartsThisProgramAndDisablingRemovesIt) {
    EXPECT_FALSE(m_item->isEnabled());
    m_item->setEnabled(true);
    EXPECT_TRUE(m_item->isEnabled());
    {
        QSettings entry(entryPath(), QSettings::IniFormat);
        entry.beginGroup(QStringLiteral("Desktop Entry"));
        EXPECT_EQ(entry.value(QStringLiteral("Type")).toString(), QStringLiteral("Application"));
        EXPECT_EQ(entry.value(QStringLiteral("Exec")).toString(), QCoreApplication::applicationFilePath());
        EXPECT_FALSE(entry.contains(QStringLiteral("Hidden")));
    }
    for (int i = 0; i < 2; ++i) { // harmless twice
        m_item->setEnabled(false);
        EXPECT_FALSE(QFile::exists(entryPath()));
        EXPECT_FALSE(m_item->isEnabled());
    }
}

// The desktop's own settings switch an entry off by adding Hidden=true rather than deleting it; enabling
// rewrites a hidden entry.
TEST_F(XdgLoginItemTest, EnabledMeansPresentAndNotHidden) {
    const std::pair<QByteArray, bool> entries[] = {{"[Desktop Entry]\nType=Application\nExec=x\n", true},
                                                   {"[Desktop Entry]\nType=Application\nHidden=true\nExec=x\n", false},
                                                   {"[Desktop Entry]\nHidden = True\n", false},
                                                   {"[Desktop Entry]\nHidden=false\n", true},
                                                   {"[Desktop Entry]\nExec=x\n[Desktop Action a]\nHidden=true\n", true},
                                                   {"", true}};
    for (const auto& [text, enabled] : entries) {
        SCOPED_TRACE(text.toStdString());
        writeEntry(text);
        EXPECT_EQ(m_item->isEnabled(), enabled);
        m_item->setEnabled(true);
        EXPECT_TRUE(m_item->isEnabled());
    }
}

TEST_F(XdgLoginItemTest, FailureCarriesAReadableDescription) {
    // A file where the autostart folder should be: neither the folder nor the entry can be made.
    QFile blocker(m_dir.path() + QStringLiteral("/autostart"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    try {
        m_item->setEnabled(true);
        FAIL() << "enabling succeeded without an autostart folder";
    } catch (const Error& error) {
        EXPECT_FALSE(error.localizedDescription().trimmed().isEmpty());
    }
    EXPECT_FALSE(m_item->isEnabled());
}

} // namespace
} // namespace tavrel
