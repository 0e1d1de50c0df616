#pragma once

// Recordings that a crash, a kill or a power cut interrupted, rebuilt at the next launch as their stop would
// have made them.
//
//   QLockFile lock(RecordingFiles::captureLockFile());     // kept for as long as the program runs
//   RecoveryPlan plan = planRecovery(lock);                // at launch, before any recording can start
//   co_await recoverRecordingsInBackground(plan);          // then the check for unsent recordings
//
// Every recording keeps a journal in the capture directory (RecordingJournal.h). For each journal left
// behind, recovery repairs each track (a fragmented .m4a becomes an ordinary one), mixes them with the merge
// a stop uses into "tavrel_merged_<T>.m4a" in the recordings folder, writes the notes file from the journal
// and removes the journal and the intermediate files. A track that cannot be read is left out and logged; if
// nothing can be mixed, the microphone file alone is the recording. When the mix fails (the disk is full),
// the tracks are kept for the next launch, three launches at most. Files of ours in the capture directory
// that no journal accounts for, and working copies left in the recordings folder, are removed; a fragmented
// .m4a of the recordings folder that no journal accounts for is repaired in place. Every step can itself be
// interrupted and taken up again at the next launch.

#include <QCoro/QCoroTask>
#include <QLockFile>
#include <QString>
#include <QStringList>

namespace tavrel {

/// What recovery looks at: the files there were at launch, before any new recording could add its own.
struct RecoveryPlan {
    QStringList journals;      ///< journals of recordings that did not finish
    QStringList captureFiles;  ///< every other file of ours in the capture directory
    QStringList recordings;    ///< the .m4a files of the recordings folder
    QStringList workingCopies; ///< hidden working copies in the recordings folder (".tavrel_…")
};

/// Lists the capture directory and the recordings folder. Nothing to do when another running instance holds
/// `lock` (its recordings are alive); otherwise the lock is taken, and the caller keeps it while it runs.
RecoveryPlan planRecovery(QLockFile& lock);

/// Carries out `plan`, blocking; the number of recordings made whole (rebuilt or finished).
int recoverRecordings(const RecoveryPlan& plan);

/// `recoverRecordings` on a thread of its own, apart from the pool that starts and stops recordings.
QCoro::Task<int> recoverRecordingsInBackground(RecoveryPlan plan);

} // namespace tavrel
