#pragma once

#include "base/Result.h"

#include <QJsonObject>
#include <QObject>
#include <QProcess>
#include <QWebSocket>
#include <functional>

// The command line's connection to the manager's local API: the manager named by the runtime
// file "hangar-api.json" (port, token, pid) when one runs, else a headless manager started for
// the duration of the command. Everything the command does goes through that one API, so the
// manager's pending actions order it against the window and other commands.
class ManagerLink : public QObject
{
    Q_OBJECT
public:
    explicit ManagerLink(QObject *parent = nullptr);
    ~ManagerLink() override;

    // Finds or starts the manager and opens the WebSocket. Errors mean exit code 3.
    Result<void> open();

    // Sends one request and waits for its answer; the answer text on success, the manager's
    // error text on failure. Events that arrive meanwhile are delivered through `event`.
    Result<QString> query(const QJsonObject &request);
    // Sends one request without waiting; the answer goes to `done`.
    void queryAsync(const QJsonObject &request, std::function<void(Result<QString>)> done);

    // Runs the event loop until `until` returns true (checked after every event) or the time
    // limit passes (0: none) or the connection drops. Returns whether `until` became true.
    bool waitUntil(const std::function<bool()> &until, int timeoutMs);

    // Ends every wait at once (a second Ctrl-C, or one outside an action).
    void abortWaits();

    bool isConnected() const;
    // Whether this command started the manager it talks to (it then stops it at the end).
    bool startedManager() const { return m_process != nullptr; }
    QString lostReason() const { return m_lost; }

    // The runtime file the manager writes: "<runtime folder>/hangar-api.json".
    static QString runtimeFilePath();

signals:
    void event(const QString &name, const QJsonObject &payload);
    void connectionLost();
    void waitsAborted();

private:
    struct Endpoint
    {
        quint16 port = 0;
        QString token;
    };
    Result<Endpoint> readRuntimeFile() const;
    Result<Endpoint> startManager();
    Result<void> connectTo(const Endpoint &endpoint);
    void onMessage(const QString &text);
    void stopManager();

    QWebSocket m_socket;
    QProcess *m_process = nullptr;
    qint64 m_nextId = 1;
    QHash<qint64, std::function<void(Result<QString>)>> m_pending;
    QString m_lost;
    bool m_aborted = false;
};
