// A meeting client for tests: holds a record stream on a microphone as a conferencing application does
// (its application.id, executable and source given on the command line), corks it on SIGUSR1 (the user
// mutes), uncorks it on SIGUSR2, closes it and exits on SIGTERM. Like real clients it reconnects when the
// audio server goes away and comes back (same PULSE_SERVER), keeping its cork, and tries again while its
// source is not there yet. It prints "ready" each time its stream runs, "corked" and "uncorked" once the
// server has done it.
//
//   fake_meeting_client us.zoom.xos zoom vmic
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <pulse/pulseaudio.h>

namespace {

struct Client {
    pa_mainloop* loop = nullptr;
    pa_mainloop_api* api = nullptr;
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;
    const char* applicationId = nullptr;
    const char* binary = nullptr;
    const char* source = nullptr;
    bool corked = false;
};

void say(const char* line) {
    std::printf("%s\n", line);
    std::fflush(stdout);
}

void connect(Client& client);
void reconnectSoon(Client& client);

void dropConnection(Client& client) {
    if (client.stream) {
        pa_stream_set_state_callback(client.stream, nullptr, nullptr);
        pa_stream_set_read_callback(client.stream, nullptr, nullptr);
        pa_stream_unref(client.stream);
        client.stream = nullptr;
    }
    if (client.context) {
        pa_context_set_state_callback(client.context, nullptr, nullptr);
        pa_context_disconnect(client.context);
        pa_context_unref(client.context);
        client.context = nullptr;
    }
}

void onRead(pa_stream* stream, size_t /*bytes*/, void* /*userdata*/) {
    const void* data = nullptr;
    size_t size = 0;
    while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &data, &size) == 0 && size > 0)
        pa_stream_drop(stream);
}

void onStreamState(pa_stream* stream, void* userdata) {
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY:
        say("ready");
        break;
    case PA_STREAM_FAILED:
        // A server still starting may not have the source yet.
        reconnectSoon(*static_cast<Client*>(userdata));
        break;
    default:
        break;
    }
}

void openStream(Client& client) {
    const pa_sample_spec format{PA_SAMPLE_S16LE, 48000, 1};
    client.stream = pa_stream_new(client.context, "Microphone", &format, nullptr);
    pa_stream_set_state_callback(client.stream, &onStreamState, &client);
    pa_stream_set_read_callback(client.stream, &onRead, &client);
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(20000, &format));
    const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY |
                                                      (client.corked ? PA_STREAM_START_CORKED : PA_STREAM_NOFLAGS));
    pa_stream_connect_record(client.stream, client.source, &attr, flags);
}

void onReconnectTimer(pa_mainloop_api* api, pa_time_event* event, const struct timeval*, void* userdata) {
    api->time_free(event);
    connect(*static_cast<Client*>(userdata));
}

/// The server went away (or is not there yet): try again shortly, as meeting clients do.
void reconnectSoon(Client& client) {
    dropConnection(client);
    timeval when{};
    pa_timeval_add(pa_gettimeofday(&when), 200 * 1000);
    client.api->time_new(client.api, &when, &onReconnectTimer, &client);
}

void onContextState(pa_context* context, void* userdata) {
    auto& client = *static_cast<Client*>(userdata);
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY:
        openStream(client);
        break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
        reconnectSoon(client);
        break;
    default:
        break;
    }
}

void connect(Client& client) {
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, client.applicationId);
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Fake meeting");
    pa_proplist_sets(props, PA_PROP_APPLICATION_PROCESS_BINARY, client.binary);
    client.context = pa_context_new_with_proplist(client.api, "Fake meeting", props);
    pa_proplist_free(props);
    pa_context_set_state_callback(client.context, &onContextState, &client);
    if (pa_context_connect(client.context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        reconnectSoon(client);
}

void onCorked(pa_stream* /*stream*/, int success, void* userdata) {
    if (success)
        say(*static_cast<bool*>(userdata) ? "corked" : "uncorked");
}

void onSignal(pa_mainloop_api* api, pa_signal_event* /*event*/, int signal, void* userdata) {
    auto& client = *static_cast<Client*>(userdata);
    if (signal == SIGTERM) {
        dropConnection(client);
        api->quit(api, 0);
        return;
    }
    client.corked = signal == SIGUSR1;
    if (client.stream && pa_stream_get_state(client.stream) == PA_STREAM_READY) {
        if (pa_operation* op = pa_stream_cork(client.stream, client.corked ? 1 : 0, &onCorked, &client.corked))
            pa_operation_unref(op);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s <application.id> <executable> <source>\n", argv[0]);
        return 2;
    }
    Client client;
    client.applicationId = argv[1];
    client.binary = argv[2];
    client.source = argv[3];
    client.loop = pa_mainloop_new();
    client.api = pa_mainloop_get_api(client.loop);
    pa_signal_init(client.api);
    for (int signal : {SIGUSR1, SIGUSR2, SIGTERM})
        pa_signal_new(signal, &onSignal, &client);
    connect(client);
    int result = 0;
    pa_mainloop_run(client.loop, &result);
    pa_signal_done();
    pa_mainloop_free(client.loop);
    return result;
}
