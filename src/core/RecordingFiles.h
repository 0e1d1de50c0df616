#pragma once

#include <QDateTime>
#include <QString>

namespace tavrel {

/// Where every file of a recording lives and how it is named. The rest of the program finds recordings by
/// these names alone: "tavrel_mic_<T>.m4a" in the recordings folder, the sources' "tavrel_tap_<T>.caf",
/// "tavrel_sys_<T>.m4a", "tavrel_bh_<T>.m4a|.aiff" and the mixed "tavrel_merged_<T>.m4a" in the temporary
/// directory, and "<recording without extension>.notes.txt" beside the final recording. <T> is the file time
/// stamp; a name already taken in the same second gets "_2", "_3"... before the extension.
class RecordingFiles {
public:
    static constexpr const char* kMicPrefix = "tavrel_mic_";
    static constexpr const char* kTapPrefix = "tavrel_tap_";
    static constexpr const char* kScreenCapturePrefix = "tavrel_sys_";
    static constexpr const char* kVirtualDevicePrefix = "tavrel_bh_";
    static constexpr const char* kMergedPrefix = "tavrel_merged_";
    static constexpr const char* kNotesSuffix = ".notes.txt";

    /// The XDG data directory + "TavrelRecorder/Enregistrements", created on every call (errors ignored).
    static QString recordingsDir();
    /// The temporary directory of the sources' own files (honours TMPDIR).
    static QString temporaryDir();

    /// Whole seconds since 1970, truncated toward zero.
    static qint64 timestamp(const QDateTime& moment);
    static qint64 timestamp();

    /// A free path `directory/prefix<T>.extension` (with a suffix when taken), named now.
    static QString uniquePath(const QString& directory, const QString& prefix, const QString& extension);
    static QString uniquePath(const QString& directory, const QString& prefix, const QString& extension,
                              qint64 timestamp);

    static QString micFile();                   ///< recordings folder, "tavrel_mic_<T>.m4a"
    static QString tapFile();                   ///< temporary directory, "tavrel_tap_<T>.caf"
    static QString screenCaptureFile();         ///< temporary directory, "tavrel_sys_<T>.m4a"
    static QString virtualDeviceFile(bool m4a); ///< temporary directory, "tavrel_bh_<T>.m4a" or ".aiff"
    static QString mergedFile();                ///< temporary directory, "tavrel_merged_<T>.m4a"
    /// The notes file beside `recording`: its name without extension + ".notes.txt".
    static QString notesFileFor(const QString& recording);
};

} // namespace tavrel
