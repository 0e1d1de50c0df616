#pragma once

#include "ui/Alert.h"

#include <QPointer>
#include <functional>
#include <vector>

class QDialog;

namespace tavrel {

/// Runs alerts as modal dialogs: the application's icon (or a warning sign), the message in bold, the
/// informative text, the accessory below it, and the buttons right-aligned with the first, default one
/// rightmost. The dialog opens ready for the keyboard: the accessory's field has the focus (the widget's
/// focus proxy, when it has one). Return and Enter choose the first button; Escape chooses the cancelling
/// one: "Annuler" when there is one, else the last of two or more buttons ("Plus tard", "Revenir au
/// formulaire"...); a lone button's alert is closed without a button (a response below kFirstButton).
class QtAlertPresenter : public AlertPresenter {
public:
    int run(const AlertSpec& alertSpec) override;
    bool isAlertUp() const override { return !m_running.empty(); }
    void raiseAlert() override;

    /// Called with the dialog once it is built and shown, before it waits for the user (tests answer it
    /// from here; screenshots grab it). Optional.
    std::function<void(QDialog&)> onShown;

private:
    /// The dialogs waiting for the user, the newest last (an alert may open from another's event loop).
    std::vector<QPointer<QDialog>> m_running;
};

} // namespace tavrel
