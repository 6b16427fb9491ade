#pragma once

#include <QUrl>
#include <QWebEnginePage>

// The window's web page, which never navigates away from the manager's own page:
// a link to anywhere else (clicked, or opened in a new window) goes to the desktop's
// browser instead, and the view stays where it is.
class ExternalLinksPage : public QWebEnginePage
{
    Q_OBJECT
public:
    ExternalLinksPage(QWebEngineProfile *profile, QUrl home, QObject *parent = nullptr);

protected:
    bool acceptNavigationRequest(const QUrl &url, NavigationType type, bool isMainFrame) override;
    QWebEnginePage *createWindow(WebWindowType type) override;
    void javaScriptConsoleMessage(JavaScriptConsoleMessageLevel level, const QString &message, int line,
        const QString &source) override;

private:
    bool isHome(const QUrl &url) const;

    QUrl m_home;
};
