#pragma once

#include <QObject>

class QSocketNotifier;

namespace tavrel {

/// Ends the program through its event loop on SIGTERM (session logout, systemd, `kill`), SIGINT (Ctrl+C) and
/// SIGHUP (its terminal closed), instead of the signals' default death: every capture thread then stops and
/// flushes its files, so the next launch rebuilds and offers the whole recording. A second signal while the
/// program winds down ends it at once. Create it once, after the application object.
class QuitSignals : public QObject {
    Q_OBJECT
public:
    explicit QuitSignals(QObject* parent = nullptr);
    ~QuitSignals() override;

private:
    void onSignalled();

    QSocketNotifier* m_notifier = nullptr;
};

} // namespace tavrel
