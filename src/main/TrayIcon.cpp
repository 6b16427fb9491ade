#include "TrayIcon.h"

#include "MainWindow.h"
#include "api/SelfApi.h"

#include <QCoreApplication>
#include <QDebug>
#include <QJsonObject>
#include <QPainter>
#include <QPainterPath>

namespace {

constexpr int FrameCount = 12;
constexpr int FrameIntervalMs = 100;
constexpr int IconSize = 64;
const QColor Accent(0x3b, 0x6f, 0xd8);

} // namespace

TrayIcon::TrayIcon(SelfApi *api, MainWindow *window, bool animated, QObject *parent)
    : QObject(parent)
    , m_api(api)
    , m_window(window)
    , m_animated(animated)
{
    m_menu.addAction(QStringLiteral("Show Hangar"), this, [this]() {
        if (m_window)
            m_window->bringForward();
    });
    m_menu.addAction(
        QStringLiteral("Check for updates"), this, [this]() { request(QStringLiteral("updateFeed")); });
    m_updateAll = m_menu.addAction(
        QString(), this, [this]() { request(QStringLiteral("updateAllInstalledApplications")); });
    m_updateAll->setVisible(false);
    m_menu.addSeparator();
    m_menu.addAction(QStringLiteral("Quit Hangar"), qApp, &QCoreApplication::quit);

    m_icon.setIcon(paintIcon(-1));
    m_icon.setToolTip(QStringLiteral("Hangar"));
    m_icon.setContextMenu(&m_menu);
    connect(&m_icon, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && m_window)
            m_window->isVisible() && m_window->isActiveWindow() ? m_window->hide() : m_window->bringForward();
    });
    m_animation.setInterval(FrameIntervalMs);
    connect(&m_animation, &QTimer::timeout, this, [this]() {
        m_frame = (m_frame + 1) % FrameCount;
        m_icon.setIcon(paintIcon(m_frame));
    });
    connect(api, &SelfApi::apiSignal, this, &TrayIcon::onApiSignal);
    m_icon.show();
}

void TrayIcon::onApiSignal(const QString &name, const QJsonObject &payload)
{
    if (name == QLatin1String("refreshApplicationsList")) {
        const int count = payload.value("default_updates").toObject().value("count").toInt();
        m_updateAll->setText(QStringLiteral("Update all (%1)").arg(count));
        m_updateAll->setVisible(count > 0);
        m_icon.setToolTip(
            count > 0 ? QStringLiteral("Hangar: %1 updates").arg(count) : QStringLiteral("Hangar"));
    } else if (name == QLatin1String("totalProgress")) {
        const bool running = !payload.value("name").toString().isEmpty()
            || payload.value("current").toDouble() < payload.value("all").toDouble();
        setBusy(running);
    }
}

void TrayIcon::setBusy(bool busy)
{
    if (!m_animated || busy == m_animation.isActive())
        return;
    if (busy) {
        m_animation.start();
    } else {
        m_animation.stop();
        m_icon.setIcon(paintIcon(-1));
    }
}

void TrayIcon::request(const QString &method)
{
    m_api->apiCall(QJsonObject { { "method", method } }, [method](const Result<QString> &answer) {
        if (answer.isError())
            qWarning().noquote() << "Tray request" << method << "failed:" << answer.error();
    });
}

void TrayIcon::showMessage(const QString &title, const QString &body, bool isError)
{
    m_icon.showMessage(title, body, isError ? QSystemTrayIcon::Warning : QSystemTrayIcon::Information);
}

// Drawn rather than shipped, so it is sharp at any size the tray asks for: a rounded
// square in the accent colour with a white "H"; while busy, an arc runs around it.
QIcon TrayIcon::paintIcon(int frame)
{
    QPixmap pixmap(IconSize, IconSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(Accent);
    painter.drawRoundedRect(QRectF(6, 6, IconSize - 12, IconSize - 12), 12, 12);
    painter.setPen(QPen(Qt::white, 7, Qt::SolidLine, Qt::RoundCap));
    painter.drawLine(QPointF(22, 20), QPointF(22, 44));
    painter.drawLine(QPointF(42, 20), QPointF(42, 44));
    painter.drawLine(QPointF(22, 32), QPointF(42, 32));
    if (frame >= 0) {
        painter.setPen(QPen(QColor(0xff, 0xb3, 0x00), 5, Qt::SolidLine, Qt::RoundCap));
        painter.drawArc(QRectF(3, 3, IconSize - 6, IconSize - 6), -frame * 360 * 16 / FrameCount, 90 * 16);
    }
    painter.end();
    return QIcon(pixmap);
}
