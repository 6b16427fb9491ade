#pragma once

#include "api/UIApiConnector.h"

#include <QJsonObject>
#include <QPointer>
#include <functional>

class MainWindow;

// The API's hands on the desktop when the manager has a window: it hides and shows
// the window, quits, opens links, files and folders with the desktop's programs,
// reads the clipboard and asks for a folder with the native chooser (without a
// nested event loop: the answer comes when the dialog closes). Made before the
// window exists; until then the window actions do nothing.
class DesktopUIApiConnector : public UIApiConnector
{
public:
    using EventSink = std::function<void(const QString &name, const QJsonObject &payload)>;

    void setWindow(MainWindow *window) { m_window = window; }
    void setEventSink(EventSink events) { m_events = std::move(events); }

    void hideWindow() override;
    void quit() override;
    void showUninstallFeebackPrompt(const QJsonObject &uninstallFeedback) override;
    Result<void> openUrl(const QUrl &url) override;
    Result<void> openFile(const QString &path) override;
    Result<void> showDirectory(const QString &path) override;
    Result<void> openSystemProxySettings() override;
    QString fileManagerName() const override;
    Result<QString> readClipboard() const override;
    void selectDirectory(const QString &caption, std::function<void(Result<QString>)> done) override;
    bool isGlobalHotkeyAvailable() const override;

private:
    QPointer<MainWindow> m_window;
    EventSink m_events;
};
