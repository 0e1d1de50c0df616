#pragma once

#include "platform/PowerEvents.h"

#include <QDBusConnection>

namespace tavrel {

/// logind's org.freedesktop.login1.Manager.PrepareForSleep on `bus` (the system bus in the program):
/// its "false" is sent once the machine is running again.
class LogindPowerEvents final : public PowerEvents {
    Q_OBJECT
public:
    explicit LogindPowerEvents(QDBusConnection bus);
    /// Whether the signal could be subscribed to (a bus is there).
    bool isListening() const { return m_listening; }

private slots:
    void onPrepareForSleep(bool sleeping);

private:
    QDBusConnection m_bus;
    bool m_listening = false;
};

} // namespace tavrel
