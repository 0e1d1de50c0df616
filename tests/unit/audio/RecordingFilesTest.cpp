#include "core/RecordingFiles.h"

#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "core/Notes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <functional>
#include <gtest/gtest.h>

using namespace tavrel;
using namespace tavrel::test;

namespace {

void touch(const QString& path) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
}

class RecordingFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_env.set("XDG_DATA_HOME", QFile::encodeName(m_home.filePath("data")));
        m_env.set("XDG_STATE_HOME", QFile::encodeName(m_home.filePath("state")));
    }
    TempDir m_home;
    ScopedEnvironment m_env;
};

struct NamePattern {
    const char* what;
    std::function<QString()> make;
    bool inRecordingsFolder;
    QString prefix;
    QString extension;
};

class RecordingFileNames : public RecordingFilesTest, public ::testing::WithParamInterface<NamePattern> {};

} // namespace

TEST_F(RecordingFilesTest, recordingsFolderLivesInTheXdgDataDirectoryAndIsCreatedOnEveryRead) {
    const QString expected = m_home.filePath("data") + "/TavrelRecorder/Enregistrements";
    EXPECT_EQ(RecordingFiles::recordingsDir(), expected);
    ASSERT_TRUE(QDir(expected).removeRecursively());
    EXPECT_EQ(RecordingFiles::recordingsDir(), expected);
    EXPECT_TRUE(QFileInfo(expected).isDir());
    EXPECT_EQ(QDir(m_home.filePath("data") + "/TavrelRecorder").entryList(QDir::Dirs | QDir::NoDotAndDotDot),
              QStringList{"Enregistrements"});
    // One that cannot be created is still returned.
    touch(m_home.filePath("blocker"));
    m_env.set("XDG_DATA_HOME", QFile::encodeName(m_home.filePath("blocker")));
    EXPECT_EQ(RecordingFiles::recordingsDir(), m_home.filePath("blocker") + "/TavrelRecorder/Enregistrements");
    EXPECT_FALSE(QFileInfo(RecordingFiles::recordingsDir()).isDir());
}

// Capture files go to the XDG state directory (on disk, private), never to a /tmp that may live in memory.
TEST_F(RecordingFilesTest, captureDirectoryIsPrivateInTheXdgStateDirectory) {
    const QString expected = m_home.filePath("state") + "/TavrelRecorder/capture";
    EXPECT_EQ(RecordingFiles::captureDir(), expected);
    const QFileDevice::Permissions permissions = QFileInfo(expected).permissions();
    EXPECT_TRUE(permissions.testFlags(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    EXPECT_EQ(permissions & 0x0077, 0) << "no access for the group or others";
    for (const char* unusable : {"", "relative/state"}) {
        m_env.set("XDG_STATE_HOME", unusable);
        m_env.set("HOME", QFile::encodeName(m_home.filePath("home")));
        EXPECT_EQ(RecordingFiles::captureDir(), m_home.filePath("home") + "/.local/state/TavrelRecorder/capture");
    }
}

TEST_P(RecordingFileNames, followsItsPatternWithTheCurrentTimeStamp) {
    const NamePattern& pattern = GetParam();
    const qint64 before = RecordingFiles::timestamp();
    const QString path = pattern.make();
    const qint64 after = RecordingFiles::timestamp();

    const QFileInfo info(path);
    EXPECT_EQ(info.absolutePath(),
              pattern.inRecordingsFolder ? RecordingFiles::recordingsDir() : RecordingFiles::captureDir());
    EXPECT_TRUE(info.isFile()) << "named and taken at once";
    const QRegularExpression name("^" + QRegularExpression::escape(pattern.prefix) + "([0-9]+)\\." +
                                  QRegularExpression::escape(pattern.extension) + "$");
    const auto match = name.match(info.fileName());
    ASSERT_TRUE(match.hasMatch()) << info.fileName().toStdString();
    const qint64 stamp = match.captured(1).toLongLong();
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);
}

INSTANTIATE_TEST_SUITE_P(
    Patterns, RecordingFileNames,
    ::testing::Values(
        NamePattern{"mic", [] { return RecordingFiles::micFile(); }, true, "tavrel_mic_", "m4a"},
        NamePattern{"tap", [] { return RecordingFiles::tapFile(); }, false, "tavrel_tap_", "caf"},
        NamePattern{"sys", [] { return RecordingFiles::screenCaptureFile(); }, false, "tavrel_sys_", "m4a"},
        NamePattern{"bh", [] { return RecordingFiles::virtualDeviceFile(true); }, false, "tavrel_bh_", "m4a"},
        NamePattern{"bhAiff", [] { return RecordingFiles::virtualDeviceFile(false); }, false, "tavrel_bh_", "aiff"},
        NamePattern{"merged", [] { return RecordingFiles::mergedFile(); }, false, "tavrel_merged_", "m4a"}),
    [](const auto& info) { return std::string(info.param.what); });

// A name taken in the same second gets a suffix, keeping prefix and extension. The mix is made in the capture
// directory and moved into the recordings folder under its name: a name taken in either place is not given, and two
// names made at once differ.
TEST_F(RecordingFilesTest, aNameTakenIsNeverGivenAgain) {
    const QString dir = m_home.filePath("names", true);
    const QString first = RecordingFiles::uniquePath(dir, "tavrel_mic_", "m4a", 1731772800);
    EXPECT_EQ(QFileInfo(first).fileName(), "tavrel_mic_1731772800.m4a");
    touch(first);
    const QString second = RecordingFiles::uniquePath(dir, "tavrel_mic_", "m4a", 1731772800);
    EXPECT_EQ(QFileInfo(second).fileName(), "tavrel_mic_1731772800_2.m4a");
    // Another extension of the same second is free.
    EXPECT_EQ(QFileInfo(RecordingFiles::uniquePath(dir, "tavrel_mic_", "aiff", 1731772800)).fileName(),
              "tavrel_mic_1731772800.aiff");

    const QString stamp = QString::number(RecordingFiles::timestamp());
    touch(RecordingFiles::recordingsDir() + "/tavrel_merged_" + stamp + ".m4a");
    touch(RecordingFiles::recordingsDir() + "/tavrel_merged_" + stamp + "_2.m4a");
    const QString merged = RecordingFiles::mergedFile();
    const QString again = RecordingFiles::mergedFile();
    if (RecordingFiles::timestamp() == stamp.toLongLong()) { // both named within the same second
        EXPECT_EQ(QFileInfo(merged).fileName(), "tavrel_merged_" + stamp + "_3.m4a");
        EXPECT_EQ(QFileInfo(again).fileName(), "tavrel_merged_" + stamp + "_4.m4a");
    }
    EXPECT_NE(merged, again);
}

TEST(RecordingFileTimestamp, truncatesTowardZero) {
    EXPECT_EQ(RecordingFiles::timestamp(QDateTime::fromMSecsSinceEpoch(1731772800999)), 1731772800);
    EXPECT_EQ(RecordingFiles::timestamp(QDateTime::fromMSecsSinceEpoch(1731772800000)), 1731772800);
    EXPECT_EQ(RecordingFiles::timestamp(QDateTime::fromMSecsSinceEpoch(-1500)), -1);
}

namespace {

struct NoteTiming {
    qint64 elapsedMs;
    qint64 storedS;
    const char* prefix;
};

class NoteTimes : public ::testing::TestWithParam<NoteTiming> {};

} // namespace

TEST_P(NoteTimes, areTruncatedWholeSecondsShownAsMinutesAndSeconds) {
    const NoteTiming timing = GetParam();
    const QDateTime start = QDateTime::fromMSecsSinceEpoch(1731772800000);
    const qint64 time = noteTime(start, start.addMSecs(timing.elapsedMs));
    EXPECT_EQ(time, timing.storedS);
    EXPECT_EQ(formatNotes({Note{time, "Budget"}}), QString(timing.prefix) + " Budget");
}

INSTANTIATE_TEST_SUITE_P(Times, NoteTimes,
                         ::testing::Values(NoteTiming{0, 0, "[0:00]"}, NoteTiming{12000, 12, "[0:12]"},
                                           NoteTiming{59900, 59, "[0:59]"}, NoteTiming{60000, 60, "[1:00]"},
                                           NoteTiming{75400, 75, "[1:15]"}, NoteTiming{3600000, 3600, "[60:00]"},
                                           NoteTiming{3725000, 3725, "[62:05]"}));

TEST(Notes, areJoinedByLineFeedsWithoutATrailingOneAndKeepTheirText) {
    EXPECT_EQ(noteTime(std::nullopt, QDateTime::currentDateTime()), 0) << "before any recording";
    EXPECT_EQ(formatNotes({}), "");
    EXPECT_EQ(formatNotes({{12, "Intro"}, {75, "Budget"}}), "[0:12] Intro\n[1:15] Budget");
    EXPECT_EQ(formatNotes({{5, "  %1 spaces kept  "}}), "[0:05]   %1 spaces kept  ");
    EXPECT_EQ(noteLogLine({75, "Budget"}), "[Note 75s] Budget");
    EXPECT_EQ(noteLogLine({3, "100% %2"}), "[Note 3s] 100% %2");
}
