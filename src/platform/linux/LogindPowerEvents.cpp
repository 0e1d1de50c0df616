#include "platform/linux/LogindPowerEvents.h"

#include "core/Log.h"

namespace tavrel {

LogindPowerEvents::LogindPowerEvents(QDBusConnection bus) : m_bus(std::move(bus)) {
    // Subscribed by match rule, whoever owns the name now or later: logind may start after us.
    m_listening = m_bus.isConnected() &&
                  m_bus.connect(QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
                                QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"),
                                this, SLOT(onPrepareForSleep(bool)));
}

void LogindPowerEvents::onPrepareForSleep(bool sleeping) {
    if (sleeping)
        return;
    logLine(QStringLiteral("[Power] Sortie de veille"));
    emit resumed();
}

std::unique_ptr<PowerEvents> makePowerEvents() {
    return std::make_unique<LogindPowerEvents>(QDBusConnection::systemBus());
}

} // namespace tavrel
