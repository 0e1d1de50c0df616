#include "ReferenceBackend.h"

#include "core/SettingsManager.h"

#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <algorithm>

namespace tavrel::test {

namespace {

QByteArray readWhole(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

ReferenceBackend::ReferenceBackend(const QStringList& extraArguments)
    : m_data(QStringLiteral("refbk")), m_config(QStringLiteral("refcfg")) {
    m_environment.set("XDG_CONFIG_HOME", m_config.path().toUtf8());

    const QString source = qEnvironmentVariable("TAVREL_SOURCE_DIR", QStringLiteral(TAVREL_SOURCE_DIR_FALLBACK));
    ManagedProcess::Options options;
    options.program = QStringLiteral("/usr/bin/python3");
    options.arguments = QStringList{source + QStringLiteral("/tools/reference-backend/reference_backend.py")} +
                        QStringLiteral("--host 127.0.0.1 --port 0 --advance poll --data").split(QLatin1Char(' ')) +
                        QStringList{m_data.path()} + extraArguments;
    options.captureStdout = true;
    options.logPath = m_data.filePath(QStringLiteral("server.log"));
    if (!m_process.start(options))
        return;
    const std::optional<QByteArray> line = m_process.readStdoutLine(std::chrono::seconds(10));
    if (!line || !line->startsWith("listening on http"))
        return;
    m_scheme = line->startsWith("listening on https://") ? QStringLiteral("https") : QStringLiteral("http");
    m_port = line->mid(line->lastIndexOf(':') + 1).toInt();

    SettingsManager::shared().setBackendURL(baseURL());
    SettingsManager::shared().setToken(QString());
}

ReferenceBackend::~ReferenceBackend() {
    m_process.stop();
}

QJsonObject ReferenceBackend::control(const QJsonObject& command) {
    QNetworkAccessManager manager;
    QNetworkRequest request(QUrl(origin() + QStringLiteral("/_control")));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    // The reply belongs to the manager and goes with it.
    QNetworkReply* reply = manager.post(request, QJsonDocument(command).toJson(QJsonDocument::Compact));
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    loop.exec();
    return QJsonDocument::fromJson(reply->readAll()).object();
}

QJsonArray ReferenceBackend::requests() const {
    QJsonArray entries;
    for (const QByteArray& line : readWhole(m_data.filePath(QStringLiteral("requests.jsonl"))).split('\n')) {
        if (!line.trimmed().isEmpty())
            entries.append(QJsonDocument::fromJson(line).object());
    }
    return entries;
}

int ReferenceBackend::requestsTo(const QString& path) const {
    const QJsonArray all = requests();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const QJsonValue& request) {
        return request.toObject().value("path").toString() == path;
    }));
}

int ReferenceBackend::uploadCount() const {
    return static_cast<int>(
        QDir(m_data.filePath(QStringLiteral("uploads"))).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}

QJsonObject ReferenceBackend::upload(int number) const {
    return QJsonDocument::fromJson(readWhole(m_data.filePath(QStringLiteral("uploads/%1/fields.json").arg(number))))
        .object();
}

QByteArray ReferenceBackend::uploadBody(int number) const {
    return readWhole(m_data.filePath(QStringLiteral("uploads/%1/body.bin").arg(number)));
}

QByteArray ReferenceBackend::uploadFile(int number) const {
    const QString stored =
        upload(number).value("files").toArray().at(0).toObject().value(QStringLiteral("stored_as")).toString();
    return stored.isEmpty() ? QByteArray()
                            : readWhole(m_data.filePath(QStringLiteral("uploads/%1/").arg(number) + stored));
}

} // namespace tavrel::test
