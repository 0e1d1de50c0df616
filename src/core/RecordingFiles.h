#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>

namespace tavrel {

/// Where every file of a recording lives and how it is named; nothing else in the program makes a name. The
/// rest of the program finds recordings by these names alone:
///
/// - recordings folder: "tavrel_mic_<T>.m4a", the final "tavrel_merged_<T>.m4a", and
///   "<recording without extension>.notes.txt" beside the final recording;
/// - capture directory: the sources' "tavrel_tap_<T>.caf", "tavrel_sys_<T>.m4a", "tavrel_bh_<T>.m4a|.aiff",
///   the mix "tavrel_merged_<T>.m4a" until it is moved into the recordings folder, and one journal per
///   recording, "<microphone file without extension>.journal".
///
/// <T> is the file time stamp; a name already taken in the same second gets "_2", "_3"... before the extension.
/// The functions that name a file of a recording also create it empty, so that two names made at once (a
/// recording's merge and the recovery of another at launch) never collide.
class RecordingFiles {
public:
    static constexpr const char* kMicPrefix = "tavrel_mic_";
    static constexpr const char* kTapPrefix = "tavrel_tap_";
    static constexpr const char* kScreenCapturePrefix = "tavrel_sys_";
    static constexpr const char* kVirtualDevicePrefix = "tavrel_bh_";
    static constexpr const char* kMergedPrefix = "tavrel_merged_";
    static constexpr const char* kNotesSuffix = ".notes.txt";
    static constexpr const char* kJournalSuffix = ".journal";
    /// Every file this program makes in its two folders begins with it (a hidden working copy with a dot first).
    static constexpr const char* kFilePrefix = "tavrel_";

    /// The XDG data directory + "TavrelRecorder/Enregistrements", created on every call (errors ignored).
    static QString recordingsDir();
    /// Where the sources write while recording, and where the mix is made: the XDG state directory
    /// ($XDG_STATE_HOME, by default ~/.local/state) + "TavrelRecorder/capture", created on every call, readable by
    /// the user only. On disk, unlike /tmp, which many systems keep in memory: a power cut must not lose a side,
    /// and an hour of the tap's float track (about 1.4 GB) must not fill the memory. Outside the recordings
    /// folder, so that half-written tracks never show up as recordings.
    static QString captureDir();
    /// The lock that the running program holds on the capture directory (see `planRecovery`).
    static QString captureLockFile();

    /// Whole seconds since 1970, truncated toward zero.
    static qint64 timestamp(const QDateTime& moment);
    static qint64 timestamp();

    /// A free path `directory/prefix<T>.extension` (with a suffix when taken), named now.
    static QString uniquePath(const QString& directory, const QString& prefix, const QString& extension);
    static QString uniquePath(const QString& directory, const QString& prefix, const QString& extension,
                              qint64 timestamp);

    static QString micFile();                   ///< recordings folder, "tavrel_mic_<T>.m4a"
    static QString tapFile();                   ///< capture directory, "tavrel_tap_<T>.caf"
    static QString screenCaptureFile();         ///< capture directory, "tavrel_sys_<T>.m4a"
    static QString virtualDeviceFile(bool m4a); ///< capture directory, "tavrel_bh_<T>.m4a" or ".aiff"
    /// Capture directory, "tavrel_merged_<T>.m4a", with a name also free in the recordings folder, where it goes.
    static QString mergedFile();
    /// The notes file beside `recording`: its name without extension + ".notes.txt".
    static QString notesFileFor(const QString& recording);
    /// The journal of the recording whose microphone file is `micFile`, in the capture directory.
    static QString journalFileFor(const QString& micFile);

private:
    /// `uniquePath` in `directory`, also free in `alsoFreeIn`, created empty so that nobody else takes it.
    static QString reservePath(const QString& directory, const QString& prefix, const QString& extension,
                               const QStringList& alsoFreeIn = {});
};

} // namespace tavrel
