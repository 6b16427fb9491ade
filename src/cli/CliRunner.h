#pragma once

#include "CliOptions.h"
#include "ProgressLine.h"
#include "base/Option.h"

#include <QJsonObject>
#include <QObject>
#include <QTextStream>

class ManagerLink;

// Carries out one hangarctl command against the manager's API and turns the outcome into an
// exit code: 0 done, 1 the action failed, 2 usage error, 3 no manager, 130 interrupted.
class CliRunner : public QObject
{
    Q_OBJECT
public:
    enum ExitCode { Done = 0, Failed = 1, Usage = 2, Unreachable = 3, Interrupted = 130 };

    CliRunner(const CliOptions &options, ManagerLink *link, QTextStream &out, QTextStream &err);

    int run();
    // Ctrl-C: cancels the running action through "stopAction" and ends with 130.
    void interrupt();
    bool interrupted() const { return m_interrupted; }

private:
    struct Target
    {
        QJsonObject entry;
        QString name;
        QString channel;
    };

    void onEvent(const QString &name, const QJsonObject &payload);
    Result<QJsonObject> model();
    Result<Target> findTool(const QString &tool, bool installed);
    int fail(const QString &message, int code = Failed);
    // The progress id the model shows on the entry the running action works on.
    QString entryProgressId() const;
    void cancelOwnAction();

    int list();
    int listAvailable();
    int projects();
    int install();
    int toolAction(const QString &method);
    int update();
    int open();
    int refresh();
    int selfUpdate();
    int settings();
    // Sends an action request and follows its progress until it ends.
    int runAction(const QJsonObject &request, const QString &label, const QString &entryKey = QString());

    CliOptions m_options;
    ManagerLink *m_link;
    QTextStream &m_out;
    QTextStream &m_err;
    ProgressLine m_progress;

    Option<QJsonObject> m_model;
    int m_modelGeneration = 0;
    bool m_feedRefreshed = false;
    int m_lookupCode = Failed;
    QString m_actionKey;
    bool m_actionRunning = false;
    bool m_cancelWhenKnown = false;
    bool m_interrupted = false;
};
