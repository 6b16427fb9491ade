#pragma once

#include "base/Result.h"

#include <QAtomicInteger>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QRecursiveMutex>
#include <QString>
#include <QStringList>
#include <functional>

class UIApiConnector;

// The one API the page talks to, independent of the transport that carries it
// (the window's channel, or the headless WebSocket). Two directions:
//
//  - requests: a JSON object with "method" and the method's arguments. Each
//    method is one entry of a table (name -> handler); handlers are registered by
//    the request groups (SelfApiMethods, ApplicationRequests). A request is
//    answered exactly once, with a text (usually JSON) or an error. Requests that
//    start long work (install, update, purge...) answer when that work has ended,
//    so a client learns the outcome from the answer as well as from the events;
//    all others answer at once.
//  - events: apiSignal(name, payload). Until the page has said "apiReady" every
//    event is kept in a pending store that holds only the latest payload of each
//    name; "apiReady" sends them all, in alphabetical order of their names, and
//    from then on events go out at once.
//
// Requests run on the main thread and never block it. Events may be raised from
// any thread (the pending store is guarded by one mutex).
class SelfApi : public QObject
{
    Q_OBJECT
public:
    using Reply = std::function<void(const Result<QString> &answer)>;
    // Must call `reply` exactly once, now or later on the main thread.
    using Handler = std::function<void(const QJsonObject &request, const Reply &reply)>;
    using ImmediateHandler = std::function<Result<QString>(const QJsonObject &request)>;

    // The names of the events the page understands; raising another is a bug, logged and dropped.
    static const QStringList &eventNames();
    // The events that describe state rather than a moment: a client that joins
    // after "apiReady" is sent their latest payloads.
    static const QStringList &stateEventNames();

    explicit SelfApi(UIApiConnector *connector, QObject *parent = nullptr);
    ~SelfApi() override;

    void addMethod(const QString &name, Handler handler);
    void addImmediateMethod(const QString &name, ImmediateHandler handler);
    QStringList methodNames() const;

    // One query as the page sends it: JSON text of a request object.
    void handleQuery(const QString &text, const Reply &reply);
    // One request: looks the method up and runs it. An unknown name fails with
    // "API method '<name>' not found".
    void apiCall(const QJsonObject &request, const Reply &reply);

    // The page is loaded and listening: pending events are sent.
    void apiReady();
    bool isReady() const { return m_ready.loadAcquire() != 0; }

    // The page's start-up facts (operating system, limits, desktop abilities).
    QJsonObject config() const;

    // Raises an event (any thread).
    void apiSignalInternal(const QString &name, const QJsonObject &payload);
    // The latest payloads of the state events sent so far, by name.
    QJsonObject latestStatePayloads() const;

    // A request failed: the window shows the text as a notification.
    void notifyOnHandleApiError(const QString &error);

    UIApiConnector *connector() const { return m_connector; }

signals:
    void apiSignal(const QString &name, const QJsonObject &payload);
    void errorNotify(const QString &error);

private:
    UIApiConnector *m_connector;
    QHash<QString, Handler> m_methods;

    mutable QRecursiveMutex m_mutex; // guards the two stores below
    QAtomicInteger<int> m_ready { 0 };
    QJsonObject m_pending;
    QJsonObject m_latestState;
};
