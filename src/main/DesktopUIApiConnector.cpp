#include "DesktopUIApiConnector.h"

#include "MainWindow.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFileInfo>
#include <QGuiApplication>
#include <QProcess>
#include <QStandardPaths>

namespace {

// The proxy panels of the desktops that have one, tried in this order.
const QList<QStringList> ProxySettingsCommands {
    { "gnome-control-center", "network" },
    { "systemsettings", "kcm_proxy" },
    { "systemsettings5", "proxy" },
};

} // namespace

void DesktopUIApiConnector::hideWindow()
{
    if (m_window)
        m_window->hide();
}

void DesktopUIApiConnector::quit()
{
    QCoreApplication::quit();
}

void DesktopUIApiConnector::showUninstallFeebackPrompt(const QJsonObject &uninstallFeedback)
{
    if (m_events)
        m_events(QStringLiteral("showUninstallFeedbackPrompt"),
            QJsonObject { { "uninstallFeedback", uninstallFeedback } });
}

Result<void> DesktopUIApiConnector::openUrl(const QUrl &url)
{
    if (!url.isValid() || url.isRelative())
        return Error("Not a link: " + url.toString());
    if (!QDesktopServices::openUrl(url))
        return Error("No application on this desktop opens " + url.toString());
    return {};
}

Result<void> DesktopUIApiConnector::openFile(const QString &path)
{
    if (!QFileInfo::exists(path))
        return Error("File not found: " + path);
    return openUrl(QUrl::fromLocalFile(path));
}

Result<void> DesktopUIApiConnector::showDirectory(const QString &path)
{
    if (!QFileInfo(path).isDir())
        return Error("Folder not found: " + path);
    return openUrl(QUrl::fromLocalFile(path));
}

Result<void> DesktopUIApiConnector::openSystemProxySettings()
{
    for (const QStringList &command : ProxySettingsCommands) {
        if (QStandardPaths::findExecutable(command.first()).isEmpty())
            continue;
        if (QProcess::startDetached(command.first(), command.mid(1)))
            return {};
    }
    return Error(QStringLiteral("This desktop has no proxy settings panel that Hangar knows"));
}

QString DesktopUIApiConnector::fileManagerName() const
{
    const QString desktop = qEnvironmentVariable("XDG_CURRENT_DESKTOP").toUpper();
    if (desktop.contains(QLatin1String("KDE")))
        return QStringLiteral("Dolphin");
    if (desktop.contains(QLatin1String("XFCE")))
        return QStringLiteral("Thunar");
    if (desktop.contains(QLatin1String("GNOME")) || desktop.contains(QLatin1String("UNITY")))
        return QStringLiteral("Files");
    return QStringLiteral("File Manager");
}

Result<QString> DesktopUIApiConnector::readClipboard() const
{
    return QGuiApplication::clipboard()->text();
}

void DesktopUIApiConnector::selectDirectory(const QString &caption, std::function<void(Result<QString>)> done)
{
    auto *dialog = new QFileDialog(m_window, caption);
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    // Exactly one answer, whichever way the dialog ends.
    auto answer = std::make_shared<std::function<void(Result<QString>)>>(std::move(done));
    QObject::connect(dialog, &QFileDialog::fileSelected, dialog, [answer](const QString &path) {
        if (*answer)
            std::exchange(*answer, nullptr)(path);
    });
    QObject::connect(dialog, &QDialog::finished, dialog, [answer](int) {
        if (*answer)
            std::exchange(*answer, nullptr)(Error(QStringLiteral("No folder chosen")));
    });
    dialog->open();
}

bool DesktopUIApiConnector::isGlobalHotkeyAvailable() const
{
    return qEnvironmentVariable("XDG_SESSION_TYPE") != QLatin1String("wayland");
}
