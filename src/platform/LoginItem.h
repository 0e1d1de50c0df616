#pragma once

#include <memory>

namespace tavrel {

/// Starting the program when the user logs in. `setEnabled` throws an `Error` whose description says
/// why the change failed.
class LoginItem {
public:
    virtual ~LoginItem() = default;
    virtual bool isEnabled() const = 0;
    virtual void setEnabled(bool enabled) = 0;
};

std::unique_ptr<LoginItem> makeLoginItem();

} // namespace tavrel
