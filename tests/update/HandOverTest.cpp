#include "UpdateFixtures.h"
#include "support/HangarProcess.h"
#include "update/InstallationSwap.h"
#include "update/SelfInstallation.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>

using namespace UpdateFixtures;

namespace {

// A tree that looks like an installed manager (a script stands in for the executable).
void makeTree(const QString &root, const QByteArray &marker = R"({"id": "Hangar", "version": "1"})")
{
    QDir().mkpath(root + "/bin");
    QDir().mkpath(root + "/share/hangar");
    QFile executable(root + "/bin/hangar");
    executable.open(QIODevice::WriteOnly);
    executable.write("#!/bin/sh\necho " + root.toUtf8() + "\n");
    executable.close();
    executable.setPermissions(executable.permissions() | QFile::ExeOwner);
    QFile file(root + "/share/hangar/installation.json");
    file.open(QIODevice::WriteOnly);
    file.write(marker);
}

QString readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool waitForText(const QString &path, const QString &text, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!readAll(path).contains(text)) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QThread::msleep(50);
    }
    return true;
}

// The older manager installed in <home>/opt/hangar (the installation to replace) and the
// newer one unpacked where a download would put it.
struct Installations
{
    QTemporaryDir dir;
    QString home() const { return dir.path(); }
    QString target() const { return dir.path() + "/opt/hangar"; }
    QString source() const { return dir.path() + "/apps/Hangar/self/new"; }
    QString log() const { return dir.path() + "/logs/log.txt"; }
    QString prepare() const
    {
        const QString installed = installOlderManager(target());
        return installed.isEmpty() ? unpackNewerManager(source()) : installed;
    }
    // The new build, started as the manager it replaces would start it.
    void startHandOver(QProcess &process, int stepDelayMs) const
    {
        QProcessEnvironment environment = HangarProcess::environmentFor(home());
        environment.insert("HANGAR_HANDOVER_STEP_DELAY_MS", QString::number(stepDelayMs));
        process.setProcessEnvironment(environment);
        process.start(source() + "/bin/hangar", { "--install-target", target(), "--log-path", home() + "/logs" });
    }
    // Stops every manager that logged into our log except `exclude`.
    void stopStartedManagers() const
    {
        for (qint64 pid : pidsInLog(log()))
            killAndReap(pid);
    }
};

} // namespace

class HandOverTest : public QObject
{
    Q_OBJECT

private slots:
    void refusesSwapsThatWouldLoseAnInstallation_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("error");
        QTest::newRow("target without our executable") << "no-executable" << "has no executable bin/hangar";
        QTest::newRow("target of another application") << "other-id" << "marker names another application";
        QTest::newRow("source that is no manager") << "bad-source" << "is not a Hangar installation";
        QTest::newRow("target that cannot be renamed") << "mounted" << "Unable to exchange";
    }
    void refusesSwapsThatWouldLoseAnInstallation()
    {
        QFETCH(QString, setup);
        QFETCH(QString, error);
        QTemporaryDir dir;
        const QString source = dir.path() + "/source", target = dir.path() + "/target";
        makeTree(source);
        makeTree(target);
        if (setup == "no-executable")
            QFile::remove(target + "/bin/hangar");
        if (setup == "other-id")
            makeTree(target, R"({"id": "Other"})");
        if (setup == "bad-source")
            QDir(source + "/share").removeRecursively();
        if (setup == "mounted" && !bindMount(target, false))
            QSKIP("mounting needs a privilege this machine does not give");
        const QByteArray before = readAll(target + "/bin/hangar").toUtf8();

        const Result<void> swapped = InstallationSwap(source, target).run();
        if (setup == "mounted")
            unmount(target);
        QVERIFY(swapped.isError());
        QVERIFY2(swapped.error().contains(error), qPrintable(swapped.error()));
        QCOMPARE(readAll(target + "/bin/hangar").toUtf8(), before);
        QCOMPARE(InstallationSwap::leftovers(target), QStringList());
    }

    void selfUpdateIsOffWhereTheInstallationIsNotOurs_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("managedBy"); // empty: self-update allowed
        QTest::newRow("own folder") << "own" << "";
        QTest::newRow("build folder") << "none" << SelfInstallation::BuildFolder;
        QTest::newRow("installed by the .deb") << "deb" << SelfInstallation::SystemPackageManager;
        QTest::newRow("shared prefix") << "shared" << SelfInstallation::SystemPackageManager;
        QTest::newRow("read-only prefix") << "read-only" << SelfInstallation::SystemPackageManager;
    }
    void selfUpdateIsOffWhereTheInstallationIsNotOurs()
    {
        QFETCH(QString, setup);
        QFETCH(QString, managedBy);
        QTemporaryDir dir;
        const QString root = dir.path() + "/hangar";
        makeTree(root, setup == "deb" ? R"({"id": "Hangar", "managed_by": "system package manager"})"
                                      : R"({"id": "Hangar"})");
        if (setup == "shared")
            QDir().mkpath(root + "/lib/other-tool");
        if (setup == "read-only" && !bindMount(root, true))
            QSKIP("mounting needs a privilege this machine does not give");
        const SelfInstallation installation
            = setup == "none" ? SelfInstallation() : SelfInstallation::forExecutable(root + "/bin/hangar");
        const Option<SelfInstallation::Blocker> blocker = installation.selfUpdateBlocker();
        if (setup == "read-only")
            unmount(root);
        QCOMPARE(blocker ? blocker->managedBy : QString(), managedBy);
    }

    // The new build is killed after each step of its hand-over: the installed folder always
    // holds a manager that starts, and the next hand-over completes and tidies up.
    void survivesAKillAtEachStep_data()
    {
        QTest::addColumn<QString>("step");
        QTest::addColumn<QString>("versionAfterKill");
        QTest::newRow("copy") << "copy" << HANGAR_VERSION;
        QTest::newRow("exchange") << "exchange" << HANGAR_NEWER_VERSION;
        QTest::newRow("cleanup") << "cleanup" << HANGAR_NEWER_VERSION;
    }
    void survivesAKillAtEachStep()
    {
        QFETCH(QString, step);
        QFETCH(QString, versionAfterKill);
        Installations installations;
        const QString prepared = installations.prepare();
        QVERIFY2(prepared.isEmpty(), qPrintable(prepared));

        QProcess handOver;
        installations.startHandOver(handOver, 5000);
        QVERIFY2(waitForText(installations.log(), "Hand-over step done: " + step, 60000),
            qPrintable(readAll(installations.log())));
        ::kill(pid_t(handOver.processId()), SIGKILL);
        handOver.waitForFinished();
        QCOMPARE(versionOf(installations.target(), installations.home()), versionAfterKill);

        QProcess again;
        installations.startHandOver(again, 0);
        QVERIFY(again.waitForFinished(60000));
        QCOMPARE(again.exitCode(), 0);
        QVERIFY(waitForText(installations.log(), "Default configuration:", 60000));
        installations.stopStartedManagers();
        QCOMPARE(versionOf(installations.target(), installations.home()), QString(HANGAR_NEWER_VERSION));
        QCOMPARE(InstallationSwap::leftovers(installations.target()), QStringList());
    }

    // While the new build copies itself, the installation's own manager is started again:
    // it finds the hand-over holding the key, passes its command line on and quits, and the
    // manager started after the swap runs the new version.
    void secondInstanceDuringHandOverDoesNotTakeTheKey()
    {
        Installations installations;
        const QString prepared = installations.prepare();
        QVERIFY2(prepared.isEmpty(), qPrintable(prepared));
        QProcess handOver;
        installations.startHandOver(handOver, 2000);
        QVERIFY(waitForText(installations.log(), "Hand-over step done: copy", 60000));
        QByteArray output;
        const int code = run(installations.target() + "/bin/hangar", { "--log-path", installations.home() + "/logs" },
            &output, 30000, HangarProcess::environmentFor(installations.home()));
        QCOMPARE(code, 0);
        QVERIFY(readAll(installations.log()).contains("This is not master instance"));
        QVERIFY(handOver.waitForFinished(60000));
        QCOMPARE(handOver.exitCode(), 0);
        QVERIFY(waitForText(installations.log(), "Default configuration:", 60000));
        installations.stopStartedManagers();
        QCOMPARE(versionOf(installations.target(), installations.home()), QString(HANGAR_NEWER_VERSION));
    }

    // A swap that fails (the installation is a mount point and cannot be renamed) leaves the
    // old build in place and starts it again with "--update-failed".
    void failedSwapRestartsTheOldBuild()
    {
        Installations installations;
        const QString prepared = installations.prepare();
        QVERIFY2(prepared.isEmpty(), qPrintable(prepared));
        if (!bindMount(installations.target(), false))
            QSKIP("mounting needs a privilege this machine does not give");
        QProcess handOver;
        installations.startHandOver(handOver, 0);
        const bool finished = handOver.waitForFinished(60000);
        const bool restarted = waitForText(installations.log(), "Older version is re-started", 60000);
        installations.stopStartedManagers();
        unmount(installations.target());
        QVERIFY(finished);
        QCOMPARE(handOver.exitCode(), 1);
        QVERIFY2(restarted, qPrintable(readAll(installations.log())));
        QVERIFY(readAll(installations.log()).contains("Failed to install update into"));
        QCOMPARE(versionOf(installations.target(), installations.home()), QString(HANGAR_VERSION));
    }
};

QTEST_GUILESS_MAIN(HandOverTest)
#include "HandOverTest.moc"
