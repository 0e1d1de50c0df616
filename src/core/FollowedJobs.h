#pragma once

#include <QList>
#include <QString>

namespace tavrel {

/// A transcription job being followed: what the next launch needs to go on following it.
struct FollowedJob {
    QString jobId;
    QString title;      ///< as the notifications show it
    int polls = 0;      ///< polls already made, counted toward the limit
    QString lastStatus; ///< the status seen at the last answered poll
};

/// The jobs being followed, kept on disk so that a quit, a crash or a restart does not lose their
/// notifications: `<XDG data>/TavrelRecorder/jobs.json`, rewritten whole (atomically) at every change.
/// An unreadable or garbled file counts as empty and is logged once. One thread at a time (the program keeps
/// them from its file thread: a durable write waits for the disk).
class FollowedJobs {
public:
    static QString filePath();

    static QList<FollowedJob> load();
    /// Adds or updates the job with the same id.
    static void store(const FollowedJob& job);
    static void remove(const QString& jobId);

private:
    static void save(const QList<FollowedJob>& jobs);
};

} // namespace tavrel
