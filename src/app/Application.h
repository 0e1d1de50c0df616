#pragma once

#include "ui/Alert.h"

#include <functional>
#include <memory>

namespace tavrel {

struct AppServices;

/// Makes the program's alert presenter, once the application object exists.
using AlertPresenterFactory = std::function<std::unique_ptr<AlertPresenter>()>;

/// The whole program: crash hooks, the tray application, one running instance on the session bus, the
/// delegate. The shipped program passes the Qt dialogs; test builds of the program pass their own answers
/// and may change the services (`adjustServices`, called last) before the delegate is made.
int runApplication(int argc, char** argv, const AlertPresenterFactory& makeAlerts,
                   const std::function<void(AppServices&)>& adjustServices = {});

} // namespace tavrel
