#include "platform/fake/FakePlatform.h"

namespace tavrel {

std::unique_ptr<Notifier> makeNotifier() {
    return std::make_unique<FakeNotifier>();
}
std::unique_ptr<LoginItem> makeLoginItem() {
    return std::make_unique<FakeLoginItem>();
}
std::unique_ptr<Desktop> makeDesktop() {
    return std::make_unique<FakeDesktop>();
}
std::unique_ptr<PowerEvents> makePowerEvents() {
    return std::make_unique<FakePowerEvents>();
}
std::unique_ptr<StatusItem> makeStatusItem(const QIcon&) {
    return std::make_unique<FakeStatusItem>();
}

} // namespace tavrel
