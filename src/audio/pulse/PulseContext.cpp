#include "audio/pulse/PulseContext.h"

#include <QByteArray>
#include <thread>

namespace tavrel {

void PaMainloopDeleter::operator()(pa_threaded_mainloop* loop) const {
    pa_threaded_mainloop_stop(loop);
    pa_threaded_mainloop_free(loop);
}

void PaContextDeleter::operator()(pa_context* context) const {
    pa_context_set_state_callback(context, nullptr, nullptr);
    pa_context_set_subscribe_callback(context, nullptr, nullptr);
    pa_context_disconnect(context);
    pa_context_unref(context);
}

void PaStreamDeleter::operator()(pa_stream* stream) const {
    pa_stream_unref(stream);
}

void PaOperationDeleter::operator()(pa_operation* operation) const {
    pa_operation_unref(operation);
}

void PaProplistDeleter::operator()(pa_proplist* proplist) const {
    pa_proplist_free(proplist);
}

void PulseQuery::finish() {
    {
        std::lock_guard lock(m_mutex);
        m_finished = true;
    }
    m_done.notify_all();
}

void PulseQuery::fail(int paError) {
    {
        std::lock_guard lock(m_mutex);
        m_paError = paError;
        m_finished = true;
    }
    m_done.notify_all();
}

bool PulseQuery::waitFor(std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_done.wait_for(lock, timeout, [this] { return m_finished; });
}

namespace {

std::mutex g_instanceMutex;
std::shared_ptr<PulseContext> g_instance;

QString currentServerAddress() {
    return qEnvironmentVariable("PULSE_SERVER");
}

QString fromUtf8(const char* text) {
    return text ? QString::fromUtf8(text) : QString();
}

} // namespace

std::shared_ptr<PulseContext> PulseContext::instance(std::chrono::milliseconds timeout) {
    std::lock_guard lock(g_instanceMutex);
    const QString address = currentServerAddress();
    if (g_instance && g_instance->isReady() && g_instance->serverAddress() == address)
        return g_instance;
    // A failed or outdated connection stays alive for whoever still holds it; new users get a fresh one.
    auto fresh = std::make_shared<PulseContext>(Token{});
    fresh->connect(address, timeout);
    g_instance = fresh;
    return fresh;
}

void PulseContext::connect(const QString& serverAddress, std::chrono::milliseconds timeout) {
    m_serverAddress = serverAddress;
    m_mainloop.reset(pa_threaded_mainloop_new());
    if (!m_mainloop)
        throw PulseError(QStringLiteral("Impossible de créer la boucle du serveur audio."));
    pa_threaded_mainloop_set_name(m_mainloop.get(), "tavrel-pulse");

    PaProplistPtr props(pa_proplist_new());
    pa_proplist_sets(props.get(), PA_PROP_APPLICATION_NAME, "TaVREL Recorder");
    pa_proplist_sets(props.get(), PA_PROP_APPLICATION_ID, "fr.tavrel.Recorder");
    pa_proplist_sets(props.get(), PA_PROP_APPLICATION_ICON_NAME, "tavrel-icon");
    m_context.reset(
        pa_context_new_with_proplist(pa_threaded_mainloop_get_api(m_mainloop.get()), "TaVREL Recorder", props.get()));
    if (!m_context)
        throw PulseError(QStringLiteral("Impossible de créer le contexte du serveur audio."));
    pa_context_set_state_callback(m_context.get(), &PulseContext::onStateChanged, this);
    pa_context_set_subscribe_callback(m_context.get(), &PulseContext::onEvent, this);

    // A null server lets libpulse read PULSE_SERVER, client.conf and X11 properties, as every client does.
    const QByteArray server = serverAddress.toUtf8();
    if (pa_context_connect(m_context.get(), serverAddress.isEmpty() ? nullptr : server.constData(),
                           PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        const int error = pa_context_errno(m_context.get());
        throw PulseError(QStringLiteral("Aucun serveur audio ne répond : %1").arg(pulseErrorText(error)), error);
    }
    if (pa_threaded_mainloop_start(m_mainloop.get()) < 0)
        throw PulseError(QStringLiteral("Impossible de démarrer la boucle du serveur audio."));

    const bool settled =
        waitUntil([this] { return !PA_CONTEXT_IS_GOOD(pa_context_get_state(m_context.get())) || isReady(); }, timeout);
    Lock lock(*this);
    const pa_context_state_t state = pa_context_get_state(m_context.get());
    if (!settled || state != PA_CONTEXT_READY) {
        const int error = settled ? pa_context_errno(m_context.get()) : PA_ERR_TIMEOUT;
        throw PulseError(QStringLiteral("Aucun serveur audio ne répond (%1) : %2")
                             .arg(serverAddress.isEmpty() ? QStringLiteral("serveur par défaut") : serverAddress,
                                  pulseErrorText(error)),
                         error);
    }
}

PulseContext::~PulseContext() {
    // Stop the loop first so that no callback runs while the context goes away.
    if (m_mainloop)
        pa_threaded_mainloop_stop(m_mainloop.get());
    m_context.reset();
    m_mainloop.reset();
}

void PulseContext::onStateChanged(pa_context* /*context*/, void* userdata) {
    auto* self = static_cast<PulseContext*>(userdata);
    pa_threaded_mainloop_signal(self->m_mainloop.get(), 0);
}

bool PulseContext::isReady() const {
    if (!m_context || !m_mainloop)
        return false;
    if (pa_threaded_mainloop_in_thread(m_mainloop.get()))
        return pa_context_get_state(m_context.get()) == PA_CONTEXT_READY;
    Lock lock(*this);
    return pa_context_get_state(m_context.get()) == PA_CONTEXT_READY;
}

QString PulseContext::lastErrorText() const {
    return pulseErrorText(lastError());
}

int PulseContext::lastError() const {
    return m_context ? pa_context_errno(m_context.get()) : PA_ERR_CONNECTIONREFUSED;
}

bool PulseContext::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        {
            Lock lock(*this);
            if (condition())
                return true;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void PulseContext::run(const std::function<pa_operation*(pa_context*, PulseQuery&)>& issue,
                       std::chrono::milliseconds timeout) {
    if (pa_threaded_mainloop_in_thread(m_mainloop.get()))
        throw PulseError(QStringLiteral("Requête synchrone impossible depuis la boucle du serveur audio."));
    PulseQuery query;
    PaOperationPtr operation;
    {
        Lock lock(*this);
        if (pa_context_get_state(m_context.get()) != PA_CONTEXT_READY)
            throw PulseError(QStringLiteral("Connexion au serveur audio perdue : %1").arg(lastErrorText()),
                             lastError());
        operation.reset(issue(m_context.get(), query));
        if (!operation)
            throw PulseError(QStringLiteral("Requête refusée par le serveur audio : %1").arg(lastErrorText()),
                             lastError());
    }
    if (!query.waitFor(timeout)) {
        Lock lock(*this);
        pa_operation_cancel(operation.get());
        // The callback may have finished just before the cancel took the lock.
        if (!query.waitFor(std::chrono::milliseconds(0)))
            throw PulseError(QStringLiteral("Le serveur audio ne répond pas à temps."), PA_ERR_TIMEOUT);
    }
    Lock lock(*this);
    operation.reset();
    if (query.paError() != 0)
        throw PulseError(
            QStringLiteral("Le serveur audio a refusé la requête : %1").arg(pulseErrorText(query.paError())),
            query.paError());
}

namespace {

struct ServerInfoRequest {
    PulseQuery* query = nullptr;
    PulseServerInfo info;
};

PulseDeviceInfo toItem(const pa_source_info* source) {
    PulseDeviceInfo device;
    device.index = source->index;
    device.name = fromUtf8(source->name);
    device.description = fromUtf8(source->description);
    device.ownerModule = source->owner_module;
    device.sampleRateHz = source->sample_spec.rate;
    device.channels = source->sample_spec.channels;
    device.monitorOfSink = source->monitor_of_sink;
    device.muted = source->mute != 0;
    return device;
}

PulseDeviceInfo toItem(const pa_sink_info* sink) {
    PulseDeviceInfo device;
    device.index = sink->index;
    device.name = fromUtf8(sink->name);
    device.description = fromUtf8(sink->description);
    device.ownerModule = sink->owner_module;
    device.sampleRateHz = sink->sample_spec.rate;
    device.channels = sink->sample_spec.channels;
    device.monitorSourceName = fromUtf8(sink->monitor_source_name);
    device.masterDevice = pulseProperty(sink->proplist, PA_PROP_DEVICE_MASTER_DEVICE);
    device.linkGroup = pulseProperty(sink->proplist, "node.link-group");
    device.muted = sink->mute != 0;
    return device;
}

PulseSinkInputInfo toItem(const pa_sink_input_info* input) {
    PulseSinkInputInfo stream;
    stream.index = input->index;
    stream.sink = input->sink;
    stream.linkGroup = pulseProperty(input->proplist, "node.link-group");
    stream.corked = input->corked != 0;
    return stream;
}

} // namespace

PulseServerInfo PulseContext::serverInfo(std::chrono::milliseconds timeout) {
    ServerInfoRequest request;
    run(
        [&](pa_context* context, PulseQuery& query) {
            request.query = &query;
            return pa_context_get_server_info(
                context,
                [](pa_context*, const pa_server_info* info, void* userdata) {
                    auto* req = static_cast<ServerInfoRequest*>(userdata);
                    if (info) {
                        req->info.serverName = fromUtf8(info->server_name);
                        req->info.serverVersion = fromUtf8(info->server_version);
                        req->info.defaultSinkName = fromUtf8(info->default_sink_name);
                        req->info.defaultSourceName = fromUtf8(info->default_source_name);
                    }
                    req->query->finish();
                },
                &request);
        },
        timeout);
    return request.info;
}

bool PulseContext::runsOnPipeWire() {
    int known = m_onPipeWire.load();
    if (known < 0) {
        // "PulseAudio (on PipeWire 0.3.65)"
        known = serverInfo().serverName.contains(QLatin1String("PipeWire")) ? 1 : 0;
        m_onPipeWire.store(known);
    }
    return known == 1;
}

std::vector<PulseDeviceInfo> PulseContext::sources(std::chrono::milliseconds timeout) {
    return list<pa_source_info>(&pa_context_get_source_info_list, &toItem, timeout);
}

std::vector<PulseDeviceInfo> PulseContext::sinks(std::chrono::milliseconds timeout) {
    return list<pa_sink_info>(&pa_context_get_sink_info_list, &toItem, timeout);
}

std::vector<PulseSinkInputInfo> PulseContext::sinkInputs(std::chrono::milliseconds timeout) {
    return list<pa_sink_input_info>(&pa_context_get_sink_input_info_list, &toItem, timeout);
}

PulseDeviceInfo PulseContext::sourceInfo(const QString& name, std::chrono::milliseconds timeout) {
    const QByteArray utf8 = name.toUtf8();
    const auto found = list<pa_source_info>(
        [&](pa_context* c, auto callback, void* userdata) {
            return pa_context_get_source_info_by_name(c, utf8.constData(), callback, userdata);
        },
        &toItem, timeout);
    if (found.empty())
        throw PulseError(QStringLiteral("Source audio introuvable : %1").arg(name), PA_ERR_NOENTITY);
    return found.front();
}

PulseSubscription PulseContext::subscribe(pa_subscription_mask_t mask, EventHandler handler) {
    Lock lock(*this);
    if (pa_context_get_state(m_context.get()) != PA_CONTEXT_READY)
        throw PulseError(QStringLiteral("Connexion au serveur audio perdue : %1").arg(lastErrorText()), lastError());
    const int id = m_nextSubscriberId++;
    m_subscribers.push_back(Subscriber{id, mask, std::move(handler)});
    updateSubscriptionMask();
    return PulseSubscription(shared_from_this(), id);
}

void PulseContext::unsubscribe(int id) {
    Lock lock(*this);
    std::erase_if(m_subscribers, [id](const Subscriber& s) { return s.id == id; });
    updateSubscriptionMask();
}

void PulseContext::updateSubscriptionMask() {
    unsigned wanted = 0;
    for (const Subscriber& subscriber : m_subscribers)
        wanted |= subscriber.mask;
    if (wanted == m_subscribedMask || pa_context_get_state(m_context.get()) != PA_CONTEXT_READY)
        return;
    m_subscribedMask = wanted;
    // Nobody waits for the answer: events flow (or stop) once the server has it.
    PaOperationPtr(
        pa_context_subscribe(m_context.get(), static_cast<pa_subscription_mask_t>(wanted), nullptr, nullptr));
}

void PulseContext::onEvent(pa_context*, pa_subscription_event_type_t event, uint32_t index, void* userdata) {
    auto* self = static_cast<PulseContext*>(userdata);
    const unsigned facilityBit = 1u << (event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK);
    for (const Subscriber& subscriber : self->m_subscribers)
        if (subscriber.mask & facilityBit)
            subscriber.handler(event, index);
}

PulseSubscription::~PulseSubscription() {
    if (m_pulse)
        m_pulse->unsubscribe(m_id);
}

PulseSubscription::PulseSubscription(PulseSubscription&& other) noexcept
    : m_pulse(std::move(other.m_pulse)), m_id(other.m_id) {}

PulseSubscription& PulseSubscription::operator=(PulseSubscription&& other) noexcept {
    if (this != &other) {
        if (m_pulse)
            m_pulse->unsubscribe(m_id);
        m_pulse = std::move(other.m_pulse);
        m_id = other.m_id;
    }
    return *this;
}

QString pulseProperty(const pa_proplist* props, const char* key) {
    return props ? fromUtf8(pa_proplist_gets(props, key)) : QString();
}

QString pulseErrorText(int paError) {
    switch (paError) {
    case PA_OK:
        return QStringLiteral("aucune erreur");
    case PA_ERR_ACCESS:
        return QStringLiteral("accès refusé par le serveur audio");
    case PA_ERR_INVALID:
        return QStringLiteral("paramètre refusé par le serveur audio");
    case PA_ERR_EXIST:
        return QStringLiteral("l'élément existe déjà");
    case PA_ERR_NOENTITY:
        return QStringLiteral("périphérique audio introuvable");
    case PA_ERR_CONNECTIONREFUSED:
        return QStringLiteral("connexion refusée par le serveur audio");
    case PA_ERR_PROTOCOL:
    case PA_ERR_VERSION:
        return QStringLiteral("dialogue impossible avec le serveur audio");
    case PA_ERR_TIMEOUT:
        return QStringLiteral("le serveur audio ne répond pas");
    case PA_ERR_AUTHKEY:
        return QStringLiteral("clé d'authentification du serveur audio manquante");
    case PA_ERR_CONNECTIONTERMINATED:
        return QStringLiteral("connexion au serveur audio interrompue");
    case PA_ERR_KILLED:
        return QStringLiteral("flux audio arrêté par le serveur ou son périphérique retiré");
    case PA_ERR_INVALIDSERVER:
        return QStringLiteral("adresse du serveur audio invalide");
    case PA_ERR_BADSTATE:
        return QStringLiteral("opération impossible dans l'état actuel du serveur audio");
    case PA_ERR_NODATA:
        return QStringLiteral("aucune donnée audio");
    case PA_ERR_NOTSUPPORTED:
    case PA_ERR_NOTIMPLEMENTED:
    case PA_ERR_NOEXTENSION:
    case PA_ERR_OBSOLETE:
        return QStringLiteral("opération non prise en charge par le serveur audio");
    case PA_ERR_IO:
        return QStringLiteral("erreur d'entrée-sortie audio");
    case PA_ERR_BUSY:
        return QStringLiteral("périphérique audio occupé");
    default:
        return QStringLiteral("erreur du serveur audio (%1)").arg(paError);
    }
}

} // namespace tavrel
