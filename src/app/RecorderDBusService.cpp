#include "RecorderDBusService.h"

#include "AppDelegate.h"
#include "core/Log.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>

namespace tavrel {

namespace {

constexpr int kForwardTimeoutMs = 10000;

QString firstText(const QVariantList& parameter) {
    if (parameter.isEmpty())
        return {};
    QVariant value = parameter.first();
    if (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    return value.toString();
}

} // namespace

ApplicationAdaptor::ApplicationAdaptor(RecorderDBusService* service)
    : QDBusAbstractAdaptor(service), m_service(service) {}

void ApplicationAdaptor::Activate(const QVariantMap&) {
    m_service->handle(LaunchRequest{});
}

void ApplicationAdaptor::Open(const QStringList& uris, const QVariantMap&) {
    LaunchRequest request;
    request.kind = LaunchRequest::Kind::open;
    for (const QString& uri : uris)
        request.urls << QUrl(uri);
    request.links = uris;
    m_service->handle(request);
}

void ApplicationAdaptor::ActivateAction(const QString& actionName, const QVariantList& parameter, const QVariantMap&) {
    LaunchRequest request;
    request.kind = LaunchRequest::Kind::action;
    request.action = actionName;
    if (!parameter.isEmpty())
        request.parameters << firstText(parameter);
    m_service->handle(request);
}

RecorderStateAdaptor::RecorderStateAdaptor(RecorderDBusService* service)
    : QDBusAbstractAdaptor(service), m_service(service) {}

bool RecorderStateAdaptor::isRecording() const {
    return m_service->delegate() && m_service->delegate()->isRecording();
}
bool RecorderStateAdaptor::isPaused() const {
    return m_service->delegate() && m_service->delegate()->isPaused();
}
int RecorderStateAdaptor::activeJobs() const {
    return m_service->delegate() ? m_service->delegate()->activeJobs() : 0;
}
QString RecorderStateAdaptor::statusTitle() const {
    return m_service->delegate() ? m_service->delegate()->statusTitle() : QString();
}

RecorderDBusService::RecorderDBusService(QDBusConnection connection, QObject* parent)
    : QObject(parent), m_connection(std::move(connection)) {
    new ApplicationAdaptor(this);
    new RecorderStateAdaptor(this);
}

RecorderDBusService::~RecorderDBusService() {
    if (m_registered)
        m_connection.unregisterObject(QString::fromLatin1(kObjectPath));
}

bool RecorderDBusService::publish() {
    if (!m_connection.isConnected())
        return false;
    if (!m_registered)
        m_registered = m_connection.registerObject(QString::fromLatin1(kObjectPath), this);
    QDBusConnectionInterface* bus = m_connection.interface();
    if (!bus)
        return false;
    const auto reply =
        bus->registerService(QString::fromLatin1(kServiceName), QDBusConnectionInterface::DontQueueService,
                             QDBusConnectionInterface::DontAllowReplacement);
    return reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered;
}

void RecorderDBusService::attach(AppDelegate* delegate) {
    m_delegate = delegate;
    m_lastIsRecording = delegate->isRecording();
    m_lastIsPaused = delegate->isPaused();
    m_lastActiveJobs = delegate->activeJobs();
    m_lastStatusTitle = delegate->statusTitle();
    // Every change of the delegate's state refreshes all four values; only those that differ are sent.
    connect(delegate, &AppDelegate::recordingStateChanged, this, &RecorderDBusService::publishChanges);
    connect(delegate, &AppDelegate::activeJobsChanged, this, &RecorderDBusService::publishChanges);
    connect(delegate, &AppDelegate::statusTitleChanged, this, &RecorderDBusService::publishChanges);
}

void RecorderDBusService::publishChanges() {
    if (!m_delegate)
        return;
    QVariantMap changed;
    if (m_delegate->isRecording() != m_lastIsRecording) {
        m_lastIsRecording = m_delegate->isRecording();
        changed.insert(QStringLiteral("IsRecording"), m_lastIsRecording);
    }
    if (m_delegate->isPaused() != m_lastIsPaused) {
        m_lastIsPaused = m_delegate->isPaused();
        changed.insert(QStringLiteral("IsPaused"), m_lastIsPaused);
    }
    if (m_delegate->activeJobs() != m_lastActiveJobs) {
        m_lastActiveJobs = m_delegate->activeJobs();
        changed.insert(QStringLiteral("ActiveJobs"), m_lastActiveJobs);
    }
    if (m_delegate->statusTitle() != m_lastStatusTitle) {
        m_lastStatusTitle = m_delegate->statusTitle();
        changed.insert(QStringLiteral("StatusTitle"), m_lastStatusTitle);
    }
    if (changed.isEmpty() || !m_registered)
        return;
    QDBusMessage signal =
        QDBusMessage::createSignal(QString::fromLatin1(kObjectPath), QStringLiteral("org.freedesktop.DBus.Properties"),
                                   QStringLiteral("PropertiesChanged"));
    signal << QString::fromLatin1(kInterface) << changed << QStringList();
    m_connection.send(signal);
}

void RecorderDBusService::handle(const LaunchRequest& request) {
    AppDelegate* delegate = m_delegate;
    if (!delegate)
        return;
    switch (request.kind) {
    case LaunchRequest::Kind::activate:
        delegate->showPopover();
        return;
    case LaunchRequest::Kind::open:
        if (request.links.isEmpty())
            delegate->application(request.urls);
        else
            delegate->application(request.links);
        return;
    case LaunchRequest::Kind::action:
        break;
    }
    const QString& action = request.action;
    // Like the tray, the desktop's actions wait for an alert that is up; a note given as text needs no one.
    const bool asksTheUser = action != QStringLiteral("add-note") || request.parameters.isEmpty();
    if (asksTheUser && delegate->raiseAlertIfUp()) {
        logLine(QStringLiteral("[DBus] action %1 ignorée : une alerte attend une réponse").arg(action));
        return;
    }
    if (action == QStringLiteral("start-recording")) {
        // The same guard as the popover's button: a second start while recording does nothing.
        if (!delegate->isRecording())
            delegate->startRecording();
    } else if (action == QStringLiteral("stop-recording")) {
        if (delegate->isRecording())
            delegate->stopRecording();
    } else if (action == QStringLiteral("toggle-pause")) {
        if (delegate->isRecording())
            delegate->togglePause();
    } else if (action == QStringLiteral("add-note")) {
        if (request.parameters.isEmpty())
            delegate->promptNote();
        else
            delegate->addNote(request.parameters.first());
    } else if (action == QStringLiteral("open-settings")) {
        delegate->openSettings();
    } else {
        logLine(QStringLiteral("[DBus] action inconnue : ") + action);
    }
}

bool RecorderDBusService::forward(QDBusConnection connection, const LaunchRequest& request, QString* error) {
    const QString service = QString::fromLatin1(kServiceName);
    const QString path = QString::fromLatin1(kObjectPath);
    const QString interface = QStringLiteral("org.freedesktop.Application");
    QDBusMessage call;
    switch (request.kind) {
    case LaunchRequest::Kind::activate:
        call = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Activate"));
        call << QVariantMap();
        break;
    case LaunchRequest::Kind::open: {
        QStringList uris = request.links;
        if (uris.isEmpty()) {
            for (const QUrl& url : request.urls)
                uris << url.toString(QUrl::FullyEncoded);
        }
        call = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Open"));
        call << uris << QVariantMap();
        break;
    }
    case LaunchRequest::Kind::action: {
        QVariantList parameter;
        for (const QString& text : request.parameters)
            parameter << QVariant::fromValue(QDBusVariant(text));
        call = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("ActivateAction"));
        call << request.action << QVariant::fromValue(parameter) << QVariantMap();
        break;
    }
    }
    const QDBusMessage reply = connection.call(call, QDBus::Block, kForwardTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        if (error)
            *error = reply.errorMessage();
        return false;
    }
    return true;
}

} // namespace tavrel
