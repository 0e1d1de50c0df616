#pragma once

#include <QObject>
#include <memory>

namespace tavrel {

/// Tells when the computer has woken up from suspend or hibernation: connections opened before it went
/// to sleep are most likely dead, though nothing says so until their time-out.
class PowerEvents : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    ~PowerEvents() override = default;

signals:
    void resumed();
};

/// The system's power events (logind's PrepareForSleep on the system bus); silent where there is none.
std::unique_ptr<PowerEvents> makePowerEvents();

} // namespace tavrel
