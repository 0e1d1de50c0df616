#pragma once

#include "ui/Alert.h"

#include <functional>

class QDialog;

namespace tavrel {

/// Runs alerts as modal dialogs: the application's icon (or a warning sign), the message in bold, the
/// informative text, the accessory below it, and the buttons right-aligned with the first, default one
/// rightmost. Return and Enter choose the first button; Escape chooses a button titled "Annuler" when
/// there is one, else closes the alert (a response below kFirstButton).
class QtAlertPresenter : public AlertPresenter {
public:
    int run(const AlertSpec& alertSpec) override;

    /// Called with the dialog once it is built and shown, before it waits for the user (tests answer it
    /// from here; screenshots grab it). Optional.
    std::function<void(QDialog&)> onShown;
};

} // namespace tavrel
