#include "TerminationSignalHandler.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSocketNotifier>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalSockets[2] = { -1, -1 };

} // namespace

TerminationSignalHandler::TerminationSignalHandler(QObject *parent)
    : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalSockets) != 0) {
        qWarning().noquote() << "Cannot watch termination signals:" << std::strerror(errno);
        return;
    }
    m_notifier = new QSocketNotifier(signalSockets[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &TerminationSignalHandler::handle);

    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = &TerminationSignalHandler::onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

TerminationSignalHandler::~TerminationSignalHandler()
{
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    if (signalSockets[0] >= 0) {
        ::close(signalSockets[0]);
        ::close(signalSockets[1]);
        signalSockets[0] = signalSockets[1] = -1;
    }
}

void TerminationSignalHandler::onSignal(int sig)
{
    const char byte = char(sig);
    // Only async-signal-safe calls here.
    const ssize_t ignored = ::write(signalSockets[0], &byte, 1);
    (void)ignored;
}

void TerminationSignalHandler::handle()
{
    char byte = 0;
    if (::read(signalSockets[1], &byte, 1) != 1)
        return;
    qInfo().noquote() << "Received signal" << int(byte) << "- quitting";
    QCoreApplication::quit();
}
