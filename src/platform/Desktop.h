#pragma once

#include <QStringList>
#include <QUrl>
#include <memory>

namespace tavrel {

/// What the desktop does for us with URLs and files.
class Desktop {
public:
    virtual ~Desktop() = default;
    /// Opens a URL with the user's default handler (browser, sound settings...). False when it could not.
    virtual bool openUrl(const QUrl& url) = 0;
    /// Shows the files selected in one file-manager window; opens their folder when no file manager
    /// answers.
    virtual void revealFiles(const QStringList& paths) = 0;
    /// Opens the desktop's sound settings (where output capture is allowed).
    virtual void openSoundSettings() = 0;
};

std::unique_ptr<Desktop> makeDesktop();

} // namespace tavrel
