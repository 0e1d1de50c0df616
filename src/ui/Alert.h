#pragma once

#include <QString>
#include <QStringList>
#include <functional>

class QWidget;

namespace tavrel {

enum class AlertStyle { informational, warning };

/// A modal alert: message, informative text, optional accessory widget, buttons in order.
/// The first button is the affirmative one.
struct AlertSpec {
    QString message;
    QString informativeText;
    QStringList buttons; ///< empty means one "OK" button
    AlertStyle style = AlertStyle::informational;
    QWidget* accessory = nullptr; ///< not owned; stays alive while the alert runs
    /// The window's title; empty: the program's name. Says which recording a dialog is about.
    QString windowTitle;
    /// What the system said of a failure (an HTTP status and body, a TLS verdict, an errno), shown in
    /// small type under the informative text, selectable so that it can be copied into a report.
    QString details;
};

/// Response of the first button; the n-th button answers kFirstButton + n.
inline constexpr int kFirstButton = 1000;

/// Runs alerts. The application raises and activates the alert before it runs; tests install a
/// scripted presenter that answers (and may fill the accessory's fields) without showing anything.
class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    /// Runs the alert modally and returns kFirstButton + index of the chosen button (or a value
    /// below kFirstButton when the alert was closed without a button).
    virtual int run(const AlertSpec& alertSpec) = 0;

    /// Whether an alert waits for the user. Its event loop keeps serving the tray, D-Bus and timers
    /// meanwhile; what the user starts from there must wait for the alert.
    virtual bool isAlertUp() const { return false; }
    /// Brings the alert that waits for the user back to the front; nothing when none does.
    virtual void raiseAlert() {}
    /// Called as an alert comes up, before it waits for the user. Optional.
    std::function<void()> onAlertUp;
};

} // namespace tavrel
