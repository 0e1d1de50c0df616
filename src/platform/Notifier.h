#pragma once

#include <QString>
#include <memory>

namespace tavrel {

/// Immediate desktop notifications. Every call shows a new notification (none replaces another).
class Notifier {
public:
    virtual ~Notifier() = default;
    virtual void notify(const QString& title, const QString& body) = 0;
};

std::unique_ptr<Notifier> makeNotifier();

} // namespace tavrel
