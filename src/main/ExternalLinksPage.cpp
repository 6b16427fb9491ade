#include "ExternalLinksPage.h"

#include <QDebug>
#include <QDesktopServices>

namespace {

void openOutside(const QUrl &url)
{
    qInfo().noquote() << "Opening" << url.toString();
    if (!QDesktopServices::openUrl(url))
        qWarning().noquote() << "No desktop application opened" << url.toString();
}

// Stands in for a window the page asked to open: its first navigation goes to the
// desktop's browser, and it is gone.
class OutsideWindowPage : public QWebEnginePage
{
public:
    using QWebEnginePage::QWebEnginePage;

protected:
    bool acceptNavigationRequest(const QUrl &url, NavigationType, bool) override
    {
        openOutside(url);
        deleteLater();
        return false;
    }
};

} // namespace

ExternalLinksPage::ExternalLinksPage(QWebEngineProfile *profile, QUrl home, QObject *parent)
    : QWebEnginePage(profile, parent)
    , m_home(std::move(home))
{
}

bool ExternalLinksPage::isHome(const QUrl &url) const
{
    return url.scheme() == m_home.scheme() && url.host() == m_home.host() && url.port() == m_home.port();
}

bool ExternalLinksPage::acceptNavigationRequest(const QUrl &url, NavigationType type, bool isMainFrame)
{
    Q_UNUSED(type)
    if (!isMainFrame || isHome(url))
        return true;
    openOutside(url);
    return false;
}

QWebEnginePage *ExternalLinksPage::createWindow(WebWindowType type)
{
    Q_UNUSED(type)
    return new OutsideWindowPage(profile(), this);
}

void ExternalLinksPage::javaScriptConsoleMessage(
    JavaScriptConsoleMessageLevel level, const QString &message, int line, const QString &source)
{
    if (level == ErrorMessageLevel)
        qWarning().noquote() << "Page:" << message << source + ":" + QString::number(line);
    else
        qDebug().noquote() << "Page:" << message << source + ":" + QString::number(line);
}
