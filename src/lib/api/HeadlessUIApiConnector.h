#pragma once

#include "api/UIApiConnector.h"

#include <QJsonObject>
#include <functional>

// The connector when the manager runs without a window (`--internal-headless`):
// there is no window to hide and no desktop to open things on. Quitting quits the
// process; the uninstall-feedback prompt becomes the page's event so that a
// browser client can still show it; everything that needs a desktop answers
// with a clear error naming what was asked.
class HeadlessUIApiConnector : public UIApiConnector
{
public:
    using EventSink = std::function<void(const QString &name, const QJsonObject &payload)>;

    explicit HeadlessUIApiConnector(EventSink events = {});
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
    bool isGlobalHotkeyAvailable() const override { return false; }

private:
    EventSink m_events;
};
