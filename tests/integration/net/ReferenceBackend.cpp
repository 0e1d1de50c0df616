#include "ReferenceBackend.h"

#include "core/SettingsManager.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

namespace tavrel::test {

namespace {

QByteArray readWhole(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

} // namespace

ReferenceBackend::ReferenceBackend() : m_data(QStringLiteral("refbk")), m_config(QStringLiteral("refcfg")) {
    m_environment.set("XDG_CONFIG_HOME", m_config.path().toUtf8());

    const QString source = qEnvironmentVariable("TAVREL_SOURCE_DIR", QStringLiteral(TAVREL_SOURCE_DIR_FALLBACK));
    ManagedProcess::Options options;
    options.program = QStringLiteral("/usr/bin/python3");
    options.arguments = {source + QStringLiteral("/tools/reference-backend/reference_backend.py"),
                         QStringLiteral("--host"),
                         QStringLiteral("127.0.0.1"),
                         QStringLiteral("--port"),
                         QStringLiteral("0"),
                         QStringLiteral("--data"),
                         m_data.path(),
                         QStringLiteral("--advance"),
                         QStringLiteral("poll")};
    options.captureStdout = true;
    options.logPath = m_data.filePath(QStringLiteral("server.log"));
    if (!m_process.start(options))
        return;
    const std::optional<QByteArray> line = m_process.readStdoutLine(std::chrono::seconds(10));
    if (!line || !line->startsWith("listening on http://127.0.0.1:"))
        return;
    m_port = line->mid(line->lastIndexOf(':') + 1).toInt();

    SettingsManager::shared().setBackendURL(baseURL());
    SettingsManager::shared().setToken(QString());
}

ReferenceBackend::~ReferenceBackend() {
    m_process.stop();
}

QString ReferenceBackend::origin() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

QJsonObject ReferenceBackend::control(const QJsonObject& command) {
    QNetworkAccessManager manager;
    QNetworkRequest request(QUrl(origin() + QStringLiteral("/_control")));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QNetworkReply* reply = manager.post(request, QJsonDocument(command).toJson(QJsonDocument::Compact));
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    loop.exec();
    const QJsonObject state = QJsonDocument::fromJson(reply->readAll()).object();
    reply->deleteLater();
    return state;
}

QJsonArray ReferenceBackend::requests() const {
    QJsonArray entries;
    for (const QByteArray& line : readWhole(m_data.filePath(QStringLiteral("requests.jsonl"))).split('\n')) {
        if (!line.trimmed().isEmpty())
            entries.append(QJsonDocument::fromJson(line).object());
    }
    return entries;
}

std::optional<QString> ReferenceBackend::header(const QJsonObject& request, const QString& name) {
    for (const QJsonValue& pair : request.value(QStringLiteral("headers")).toArray()) {
        const QJsonArray nameValue = pair.toArray();
        if (nameValue.at(0).toString().compare(name, Qt::CaseInsensitive) == 0)
            return nameValue.at(1).toString();
    }
    return std::nullopt;
}

int ReferenceBackend::uploadCount() const {
    const QDir uploads(m_data.filePath(QStringLiteral("uploads")));
    return static_cast<int>(uploads.entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}

QJsonObject ReferenceBackend::upload(int number) const {
    return QJsonDocument::fromJson(readWhole(m_data.filePath(QStringLiteral("uploads/%1/fields.json").arg(number))))
        .object();
}

QByteArray ReferenceBackend::uploadBody(int number) const {
    return readWhole(m_data.filePath(QStringLiteral("uploads/%1/body.bin").arg(number)));
}

QByteArray ReferenceBackend::uploadFile(int number) const {
    const QJsonObject record = upload(number);
    const QString stored =
        record.value(QStringLiteral("files")).toArray().at(0).toObject().value(QStringLiteral("stored_as")).toString();
    if (stored.isEmpty())
        return {};
    return readWhole(m_data.filePath(QStringLiteral("uploads/%1/").arg(number) + stored));
}

} // namespace tavrel::test
