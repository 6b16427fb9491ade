#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGTERM, SIGINT and SIGHUP into an orderly quit of the event loop, so that a
// manager stopped by its session, a service manager or `kill` still removes its
// single-instance socket instead of leaving it to the next start.
// The signal handler only writes one byte to a socket pair; the quit happens on
// the main thread when the notifier sees that byte.
class TerminationSignalHandler : public QObject
{
    Q_OBJECT
public:
    explicit TerminationSignalHandler(QObject *parent = nullptr);
    ~TerminationSignalHandler() override;

private:
    static void onSignal(int sig);
    void handle();

    QSocketNotifier *m_notifier = nullptr;
};
