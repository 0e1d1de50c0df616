#include "Log.h"

#include <cstdio>
#include <mutex>

namespace tavrel {
namespace {
std::mutex g_mutex;
std::function<void(const QString&)> g_sink;
} // namespace

void logLine(const QString& line) {
    const QByteArray bytes = line.toUtf8() + '\n';
    std::lock_guard lock(g_mutex);
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
    if (g_sink)
        g_sink(line);
}

LogCapture::LogCapture(std::function<void(const QString&)> sink) {
    std::lock_guard lock(g_mutex);
    g_sink = std::move(sink);
}

LogCapture::~LogCapture() {
    std::lock_guard lock(g_mutex);
    g_sink = nullptr;
}

} // namespace tavrel
