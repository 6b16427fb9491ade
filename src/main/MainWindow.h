#pragma once

#include <QTimer>
#include <QUrl>
#include <QWidget>

class QWebEngineProfile;
class QWebEngineView;
class SelfApi;

// The manager's window: the page in a QtWebEngine view, talking to the API through a
// QWebChannel (WebChannelBridge). It remembers its size and place in "window.json"
// beside the settings; with a tray, closing it only hides it. Showing and hiding
// are told to the page ("onWindowShown", "onWindowHidden").
class MainWindow : public QWidget
{
    Q_OBJECT
public:
    struct Options
    {
        QUrl pageUrl;
        QString geometryFile;
        double zoomFactor = 1.0;
        bool closeHides = true;
    };

    // What has to happen before the application object exists: our page scheme,
    // shared GL contexts, and (only for root, which Chromium refuses to sandbox) the
    // sandbox switched off. Skipped in headless mode, which starts no browser engine.
    static void prepareWebEngine(int argc, char **argv);

    MainWindow(SelfApi *api, Options options, QWidget *parent = nullptr);
    ~MainWindow() override;

    // Shows the window in front, restored from minimised.
    void bringForward();

protected:
    void closeEvent(QCloseEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;
    void moveEvent(QMoveEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void restoreGeometry();
    void saveGeometry();

    SelfApi *m_api;
    Options m_options;
    QWebEngineProfile *m_profile;
    QWebEngineView *m_view;
    QTimer m_saveTimer;
};
