#pragma once

#include "base/Result.h"

#include <QJsonObject>
#include <QString>
#include <QUrl>
#include <functional>

// What the API needs from whoever shows the manager to the user: the window
// (QtWebEngine host) or, with no display at all, the headless front. Requests
// that act on the window or the desktop go through here, so the request table
// itself stays free of any display code.
//
// Called on the main thread only. Each call returns at once; a failure is a
// user-readable text that the page shows.
class UIApiConnector
{
public:
    virtual ~UIApiConnector() = default;

    virtual void hideWindow() = 0;
    virtual void quit() = 0;
    // The feedback form after an uninstall, with the removed tool's "uninstallFeedback" data.
    virtual void showUninstallFeebackPrompt(const QJsonObject &uninstallFeedback) = 0;

    // The desktop's browser, file manager and settings.
    virtual Result<void> openUrl(const QUrl &url) = 0;
    virtual Result<void> openFile(const QString &path) = 0;
    virtual Result<void> showDirectory(const QString &path) = 0;
    virtual Result<void> openSystemProxySettings() = 0;
    virtual QString fileManagerName() const = 0;
    virtual Result<QString> readClipboard() const = 0;
    // The native folder chooser; `done` gets the chosen path, or an error when
    // the user dismissed it. May answer later, on the main thread.
    virtual void selectDirectory(const QString &caption, std::function<void(Result<QString>)> done) = 0;
    // False on a Wayland session, where no global hotkey can be grabbed.
    virtual bool isGlobalHotkeyAvailable() const = 0;
};
