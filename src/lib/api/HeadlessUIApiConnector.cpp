#include "api/HeadlessUIApiConnector.h"

#include <QCoreApplication>
#include <QDebug>
#include <QMetaObject>

namespace {

Error needsDesktop(const QString &what)
{
    return Error(what + " needs a desktop; the manager runs headless");
}

} // namespace

HeadlessUIApiConnector::HeadlessUIApiConnector(EventSink events)
    : m_events(std::move(events))
{
}

void HeadlessUIApiConnector::hideWindow()
{
    qInfo().noquote() << "No window to hide in headless mode";
}

void HeadlessUIApiConnector::quit()
{
    // Queued, so that the request that asked for it is answered first.
    QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
}

void HeadlessUIApiConnector::showUninstallFeebackPrompt(const QJsonObject &uninstallFeedback)
{
    if (m_events)
        m_events(QStringLiteral("showUninstallFeedbackPrompt"),
            QJsonObject { { "uninstallFeedback", uninstallFeedback } });
}

Result<void> HeadlessUIApiConnector::openUrl(const QUrl &url)
{
    return needsDesktop("Opening " + url.toString());
}

Result<void> HeadlessUIApiConnector::openFile(const QString &path)
{
    return needsDesktop("Opening " + path);
}

Result<void> HeadlessUIApiConnector::showDirectory(const QString &path)
{
    return needsDesktop("Showing " + path);
}

Result<void> HeadlessUIApiConnector::openSystemProxySettings()
{
    return needsDesktop(QStringLiteral("Opening the proxy settings"));
}

QString HeadlessUIApiConnector::fileManagerName() const
{
    return QString();
}

Result<QString> HeadlessUIApiConnector::readClipboard() const
{
    return needsDesktop(QStringLiteral("Reading the clipboard"));
}

void HeadlessUIApiConnector::selectDirectory(
    const QString &caption, std::function<void(Result<QString>)> done)
{
    Q_UNUSED(caption)
    done(needsDesktop(QStringLiteral("Choosing a folder")));
}
