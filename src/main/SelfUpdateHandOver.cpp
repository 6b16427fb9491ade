#include "SelfUpdateHandOver.h"

#include "SingleApplicationInstanceController.h"
#include "settings/CommandLine.h"
#include "update/HandOverArguments.h"
#include "update/InstallationSwap.h"
#include "update/SelfInstallation.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QThread>
#include <cerrno>
#include <csignal>
#include <limits>
#include <memory>

namespace {

constexpr int WaitForOldProcessMs = 60000;
constexpr int WaitPollMs = 50;
// Pauses after each swap step, so that a person (or a test) can watch the steps and
// interrupt the hand-over at any of them.
constexpr const char *StepDelayVariable = "HANGAR_HANDOVER_STEP_DELAY_MS";

bool waitForProcessEnd(qint64 pid)
{
    if (pid <= 0 || pid > std::numeric_limits<pid_t>::max())
        return true;
    QElapsedTimer timer;
    timer.start();
    while (!(::kill(pid_t(pid), 0) != 0 && errno == ESRCH)) {
        if (timer.elapsed() >= WaitForOldProcessMs)
            return false;
        QThread::msleep(WaitPollMs);
    }
    return true;
}

bool startManager(const QString &root, const QStringList &arguments)
{
    const QString program = SelfInstallation::executableIn(root);
    qInfo().noquote() << "Starting" << program << arguments.join(' ');
    if (QProcess::startDetached(program, arguments))
        return true;
    qCritical().noquote() << "Failed to start" << program;
    return false;
}

} // namespace

int runSelfUpdateHandOver(CommandLine *commandLine)
{
    const QString target = QDir::cleanPath(QDir(commandLine->getInstallTarget()).absolutePath());
    const qint64 oldPid = commandLine->getWaitForPid();
    qInfo().noquote() << "Self-update hand-over into" << target;

    if (oldPid > 0) {
        qInfo().noquote() << "Waiting for pid to exit: " + QString::number(oldPid);
        QElapsedTimer waited;
        waited.start();
        if (!waitForProcessEnd(oldPid)) {
            qWarning().noquote() << "Error waiting for pid"
                                 << ":" << QStringLiteral("process %1 still runs after %2 ms").arg(oldPid).arg(WaitForOldProcessMs)
                                 << "- giving the update up, the running manager stays as it is";
            return 1;
        }
        qInfo().noquote() << QStringLiteral("Waited for the old manager to end: %1 ms").arg(waited.elapsed());
    }

    std::unique_ptr<SingleApplicationInstanceController> instance(new SingleApplicationInstanceController(
        SingleApplicationInstanceController::uniqueApplicationKey(QDir::homePath())));
    if (!instance->isMasterInstance()) {
        qCritical().noquote() << "Another Hangar started while the update waited; leaving" << target << "as it is";
        return 1;
    }

    const Result<void> isManager = SelfInstallation::checkIsManagerInstallation(target);
    if (isManager.isError()) {
        qCritical().noquote() << "Update refused:" << isManager.error();
        return 1;
    }

    const QStringList passThrough = handOverPassThroughArguments(*commandLine);
    const QStringList waitForMe = { QStringLiteral("--wait-for-pid"), QString::number(QCoreApplication::applicationPid()) };
    const SelfInstallation own = SelfInstallation::forRunningProgram();
    if (!own.isInstalled()) {
        qCritical().noquote() << "Update refused: this build does not run from an installed copy"
                              << QCoreApplication::applicationDirPath();
        startManager(target, QStringList { QStringLiteral("--update-failed") } + waitForMe + passThrough);
        return 1;
    }

    const int stepDelayMs = qEnvironmentVariableIntValue(StepDelayVariable);
    InstallationSwap swap(own.root(), target, [stepDelayMs](const QString &step) {
        qInfo().noquote() << "Hand-over step done:" << step;
        if (stepDelayMs > 0)
            QThread::msleep(ulong(stepDelayMs));
    });
    const Result<void> swapped = swap.run();
    if (swapped.isError()) {
        qCritical().noquote() << "Failed to install update into" << target + ":" << swapped.error();
        startManager(target, QStringList { QStringLiteral("--update-failed") } + waitForMe + passThrough);
        return 1;
    }
    qInfo().noquote() << "Update installed into" << target;
    return startManager(target, QStringList { QStringLiteral("--minimize") } + waitForMe + passThrough) ? 0 : 1;
}
