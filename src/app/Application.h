#pragma once

#include "ui/Alert.h"

#include <functional>
#include <memory>

namespace tavrel {

/// Makes the program's alert presenter, once the application object exists.
using AlertPresenterFactory = std::function<std::unique_ptr<AlertPresenter>()>;

/// The whole program: crash hooks, the tray application, one running instance on the session bus, the
/// delegate. The shipped program passes the Qt dialogs; test builds of the program pass their own answers.
int runApplication(int argc, char** argv, const AlertPresenterFactory& makeAlerts);

} // namespace tavrel
