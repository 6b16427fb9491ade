#include "install/PostInstallStepsRunner.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>

PostInstallStepsRunner::PostInstallStepsRunner(RemoteFeedItem item, QString installDir, int timeoutMs)
    : m_item(std::move(item))
    , m_installDir(std::move(installDir))
    , m_timeoutMs(timeoutMs)
{
}

Result<void> PostInstallStepsRunner::run(const std::function<bool()> &isCancelled)
{
    const QList<PostInstallStep> steps = m_item.getPostInstallSteps();
    int index = 0;
    for (const PostInstallStep &step : steps) {
        ++index;
        const QString id = step.getId().isEmpty() ? QString::number(index) : step.getId();
        if (!step.getEnabled()) {
            qInfo().noquote() << "Skipping disabled post-install step" << id;
            continue;
        }
        // "$TEMP" lives inside the version folder: an install writes nowhere else.
        const QString temp = m_installDir + "/.post-install-" + QString::number(index);
        QDir(temp).removeRecursively();
        if (!QDir().mkpath(temp))
            return Error("Post-install step " + id + " failed: unable to create " + temp);

        QString failure;
        for (const PostInstallStep::Command &command : step.getCommands()) {
            if (isCancelled && isCancelled()) {
                QDir(temp).removeRecursively();
                return Error(QStringLiteral("Canceled"));
            }
            const Result<QString> resolved = Processes::resolveProgram(command.getExecutable(), m_installDir);
            if (!resolved) {
                failure = resolved.error();
                break;
            }
            const QString program = *resolved;
            qInfo().noquote() << "Post-install step" << id << "runs" << program;
            const ProcessResult result = Processes::executeProcessAndWait(
                program, command.getArguments(temp), m_installDir,
                [&id](const QString &line) { qInfo().noquote() << "post-install" << id + ":" << line; },
                [&id](const QString &line) { qWarning().noquote() << "post-install" << id + ":" << line; },
                m_timeoutMs, isCancelled);
            if (!result.isSuccessful()) {
                failure = result.reason;
                break;
            }
        }
        QDir(temp).removeRecursively();
        if (failure.isEmpty())
            continue;
        if (step.isRequired())
            return Error("Post-install step " + id + " failed: " + failure);
        qWarning().noquote() << "Optional post-install step" << id << "failed:" << failure;
    }
    return {};
}
