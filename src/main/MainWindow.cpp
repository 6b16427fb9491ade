#include "MainWindow.h"

#include "ExternalLinksPage.h"
#include "UiSchemeHandler.h"
#include "WebChannelBridge.h"
#include "api/SelfApi.h"
#include "base/JsonEditor.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QDebug>
#include <QFileInfo>
#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>
#include <QWebChannel>
#include <QWebEngineProfile>
#include <QWebEngineView>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int DefaultWidth = 460;
constexpr int DefaultHeight = 720;
constexpr int SaveDelayMs = 500;

} // namespace

void MainWindow::prepareWebEngine(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--internal-headless") == 0)
            return;
    UiSchemeHandler::registerScheme();
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    if (::geteuid() == 0 && qEnvironmentVariableIsEmpty("QTWEBENGINE_DISABLE_SANDBOX"))
        qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
}

MainWindow::MainWindow(SelfApi *api, Options options, QWidget *parent)
    : QWidget(parent)
    , m_api(api)
    , m_options(std::move(options))
    // Off the record: the page keeps nothing on disk, and nothing from another run.
    , m_profile(new QWebEngineProfile(this))
    , m_view(new QWebEngineView(this))
{
    setWindowTitle(QStringLiteral("Hangar"));
    m_profile->installUrlSchemeHandler(UiSchemeHandler::Scheme, new UiSchemeHandler(m_profile));
    auto *page = new ExternalLinksPage(m_profile, m_options.pageUrl, m_view);
    auto *channel = new QWebChannel(page);
    channel->registerObject(QStringLiteral("hangar"), new WebChannelBridge(api, channel));
    page->setWebChannel(channel);
    m_view->setPage(page);
    connect(page, &QWebEnginePage::loadFinished, this, [this](bool ok) {
        if (!ok)
            qWarning().noquote() << "The page did not load:" << m_options.pageUrl.toString();
        m_view->setZoomFactor(m_options.zoomFactor);
    });

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_view);
    restoreGeometry();

    m_saveTimer.setSingleShot(true);
    m_saveTimer.setInterval(SaveDelayMs);
    connect(&m_saveTimer, &QTimer::timeout, this, &MainWindow::saveGeometry);

    qInfo().noquote() << "Loading page" << m_options.pageUrl.toString();
    m_view->load(m_options.pageUrl);
}

MainWindow::~MainWindow()
{
    if (m_saveTimer.isActive())
        saveGeometry();
    // The page must go before the profile it was made with.
    delete m_view;
}

void MainWindow::bringForward()
{
    setWindowState((windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    show();
    raise();
    activateWindow();
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    if (!m_options.closeHides) {
        event->accept();
        return;
    }
    event->ignore();
    hide();
}

void MainWindow::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    m_api->apiSignalInternal(QStringLiteral("onWindowShown"), QJsonObject());
}

void MainWindow::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    if (m_saveTimer.isActive())
        saveGeometry();
    m_api->apiSignalInternal(QStringLiteral("onWindowHidden"), QJsonObject());
}

void MainWindow::moveEvent(QMoveEvent *event)
{
    QWidget::moveEvent(event);
    if (isVisible())
        m_saveTimer.start();
}

void MainWindow::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    if (isVisible())
        m_saveTimer.start();
}

// A remembered place that no screen shows any more (a monitor unplugged) is ignored.
void MainWindow::restoreGeometry()
{
    resize(DefaultWidth, DefaultHeight);
    if (!QFileInfo::exists(m_options.geometryFile))
        return;
    const Result<QJsonObject> loaded = JsonEditor::loadJsonFile(m_options.geometryFile);
    if (loaded.isError()) {
        qWarning().noquote() << "Window place not restored:" << loaded.error();
        return;
    }
    const QRect saved(loaded->value("x").toInt(), loaded->value("y").toInt(), loaded->value("width").toInt(),
        loaded->value("height").toInt());
    if (saved.width() < 200 || saved.height() < 200)
        return;
    for (const QScreen *screen : QGuiApplication::screens()) {
        if (screen->availableGeometry().intersects(saved)) {
            resize(saved.size());
            move(saved.topLeft());
            return;
        }
    }
    resize(saved.size());
}

void MainWindow::saveGeometry()
{
    m_saveTimer.stop();
    const QRect place = frameGeometry();
    const QJsonObject json { { "x", place.x() }, { "y", place.y() }, { "width", width() },
        { "height", height() } };
    const Result<void> saved = JsonEditor::saveJsonFile(m_options.geometryFile, json);
    if (saved.isError())
        qWarning().noquote() << "Window place not saved:" << saved.error();
}
