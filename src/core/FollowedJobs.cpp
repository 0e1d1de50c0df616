#include "core/FollowedJobs.h"

#include "core/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QStandardPaths>
#include <algorithm>

namespace tavrel {

QString FollowedJobs::filePath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/TavrelRecorder/jobs.json");
}

QList<FollowedJob> FollowedJobs::load() {
    QFile file(filePath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (!document.isArray()) {
        logLine(
            QStringLiteral("[Upload] Liste des transcriptions suivies illisible (%1) : ignorée")
                .arg(error.error == QJsonParseError::NoError ? QStringLiteral("pas une liste") : error.errorString()));
        return {};
    }
    QList<FollowedJob> jobs;
    for (const QJsonValue& value : document.array()) {
        const QJsonObject object = value.toObject();
        FollowedJob job{object.value(QLatin1String("job_id")).toString(),
                        object.value(QLatin1String("title")).toString(), object.value(QLatin1String("polls")).toInt(),
                        object.value(QLatin1String("last_status")).toString()};
        if (!job.jobId.isEmpty())
            jobs.append(job);
    }
    return jobs;
}

void FollowedJobs::store(const FollowedJob& job) {
    QList<FollowedJob> jobs = load();
    const auto found =
        std::find_if(jobs.begin(), jobs.end(), [&](const FollowedJob& j) { return j.jobId == job.jobId; });
    if (found != jobs.end())
        *found = job;
    else
        jobs.append(job);
    save(jobs);
}

void FollowedJobs::remove(const QString& jobId) {
    QList<FollowedJob> jobs = load();
    if (jobs.removeIf([&](const FollowedJob& j) { return j.jobId == jobId; }) > 0)
        save(jobs);
}

void FollowedJobs::save(const QList<FollowedJob>& jobs) {
    QJsonArray array;
    for (const FollowedJob& job : jobs) {
        array.append(QJsonObject{{QStringLiteral("job_id"), job.jobId},
                                 {QStringLiteral("title"), job.title},
                                 {QStringLiteral("polls"), job.polls},
                                 {QStringLiteral("last_status"), job.lastStatus}});
    }
    const QString path = filePath();
    QDir().mkpath(QFileInfo(path).path());
    // Whole or not at all: a crash while writing leaves the previous list.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(array).toJson(QJsonDocument::Compact)) < 0 ||
        !file.commit())
        logLine(QStringLiteral("[Upload] Liste des transcriptions suivies non enregistrée : ") + file.errorString());
}

} // namespace tavrel
