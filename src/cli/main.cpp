#include "CliOptions.h"
#include "CliRunner.h"
#include "ManagerLink.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

} // namespace

int main(int argc, char *argv[])
{
    // Qt's own warnings (a missing XDG_RUNTIME_DIR, for one) are noise on a terminal.
    if (qEnvironmentVariableIsEmpty("HANGARCTL_DEBUG"))
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("hangarctl"));
    QTextStream out(stdout);
    QTextStream err(stderr);

    const auto options = CliOptions::parse(app.arguments().mid(1));
    if (!options) {
        err << "hangarctl: " << options.error() << "\nTry `hangarctl --help`.\n";
        return CliRunner::Usage;
    }
    if (options->help) {
        out << CliOptions::helpText(options->command);
        return CliRunner::Done;
    }

    ManagerLink link;
    if (const auto opened = link.open(); !opened) {
        err << "hangarctl: " << opened.error() << '\n';
        return CliRunner::Unreachable;
    }
    CliRunner runner(*options, &link, out, err);

    // Ctrl-C cancels the running action through the manager instead of killing us mid-way.
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) == 0) {
        auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(notifier, &QSocketNotifier::activated, &runner, [&runner] {
            char byte;
            [[maybe_unused]] const ssize_t got = ::read(signalPipe[0], &byte, 1);
            runner.interrupt();
        });
        struct sigaction action {};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGINT, &action, nullptr);
        ::sigaction(SIGTERM, &action, nullptr);
    }
    const int code = runner.interrupted() ? CliRunner::Interrupted : runner.run();
    out.flush();
    err.flush();
    return runner.interrupted() ? int(CliRunner::Interrupted) : code;
}
