#pragma once

#include <QWebEngineUrlSchemeHandler>

// Serves the page inside the window from our own scheme. QtWebEngine keeps "qrc"
// for itself and refuses a handler for it, so the page lives at "hangar://ui/":
// "hangar://ui/<path>" is the compiled-in resource ":/<path>" (the same files and
// MIME rules as headless mode), and "hangar://icon/<name>" (any query cut off) is
// the icon ":/icons/<name>". Unknown paths fail as "not found".
class UiSchemeHandler : public QWebEngineUrlSchemeHandler
{
    Q_OBJECT
public:
    static constexpr const char *Scheme = "hangar";

    // Must run before the application object exists: schemes are fixed when
    // the browser engine starts.
    static void registerScheme();
    // The page's address: "hangar://ui/index.html".
    static QUrl pageUrl();

    explicit UiSchemeHandler(QObject *parent = nullptr);
    void requestStarted(QWebEngineUrlRequestJob *job) override;
};
