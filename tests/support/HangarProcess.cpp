#include "HangarProcess.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <csignal>

HangarProcess::HangarProcess(const QString &homePath)
    : m_home(homePath)
    , m_environment(environmentFor(homePath))
{
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
}

HangarProcess::~HangarProcess()
{
    if (isRunning() && !stop(10000))
        kill();
}

QString HangarProcess::executable()
{
    QString binaryDir = qEnvironmentVariable("HANGAR_BINARY_DIR");
    if (binaryDir.isEmpty())
        binaryDir = QStringLiteral(HANGAR_BINARY_DIR);
    return binaryDir + "/src/main/hangar";
}

QProcessEnvironment HangarProcess::environmentFor(const QString &homePath)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("HOME", homePath);
    environment.insert("XDG_CONFIG_HOME", homePath + "/.config");
    environment.insert("XDG_DATA_HOME", homePath + "/.local/share");
    environment.insert("XDG_CACHE_HOME", homePath + "/.cache");
    environment.insert("TMPDIR", homePath + "/tmp");
    QDir().mkpath(homePath + "/tmp");
    environment.insert("XDG_RUNTIME_DIR", homePath + "/runtime");
    QDir().mkpath(homePath + "/runtime");
    QFile::setPermissions(homePath + "/runtime", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    environment.remove("DBUS_SESSION_BUS_ADDRESS");
    // In a sanitizer build a leak report changes the exit code the tests check;
    // the platform plugin's own leaks are not ours to report.
    if (!environment.contains("LSAN_OPTIONS"))
        environment.insert("LSAN_OPTIONS",
            "suppressions=" HANGAR_SOURCE_DIR "/tests/support/lsan-qt-platform.supp:print_suppressions=0");
    // Tests reach no host but loopback: the feeds are a file that does not exist
    // unless a test writes it (or sets the variable itself).
    if (!environment.contains("VANTREL_HANGAR_FEED_URLS"))
        environment.insert("VANTREL_HANGAR_FEED_URLS", "file://" + homePath + "/feeds/root.feed.xz.signed");
    if (!environment.contains("DISPLAY") && !environment.contains("WAYLAND_DISPLAY"))
        environment.insert("QT_QPA_PLATFORM", "offscreen");
    return environment;
}

QString HangarProcess::appDataDirFor(const QString &homePath)
{
    return homePath + "/.local/share/Vantrel/Hangar";
}

HangarProcess::Finished HangarProcess::run(const QString &homePath, const QStringList &arguments,
    int timeoutMs, const QProcessEnvironment &environment)
{
    Finished finished;
    QProcess process;
    process.setProcessEnvironment(environment.isEmpty() ? environmentFor(homePath) : environment);
    process.start(executable(), arguments);
    if (!process.waitForStarted(10000))
        return finished;
    finished.started = true;
    if (!process.waitForFinished(timeoutMs)) {
        finished.timedOut = true;
        process.kill();
        process.waitForFinished(5000);
    }
    finished.exitStatus = process.exitStatus();
    finished.exitCode = process.exitCode();
    finished.standardOutput = process.readAllStandardOutput();
    finished.standardError = process.readAllStandardError();
    return finished;
}

bool HangarProcess::start(const QStringList &arguments)
{
    const int logPathIndex = arguments.indexOf(QStringLiteral("--log-path"));
    m_logDir = logPathIndex >= 0 && logPathIndex + 1 < arguments.size() ? arguments.at(logPathIndex + 1)
                                                                        : QString();
    m_process.setProcessEnvironment(m_environment);
    m_process.start(executable(), arguments);
    return m_process.waitForStarted(10000);
}

QString HangarProcess::logFilePath() const
{
    const QString dir = m_logDir.isEmpty() ? appDataDirFor(m_home) + "/logs" : m_logDir;
    return dir + "/log.txt";
}

QString HangarProcess::logText() const
{
    QFile file(logFilePath());
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

bool HangarProcess::waitForLog(const QString &text, int timeoutMs) const
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (logText().contains(text))
            return true;
        if (m_process.state() == QProcess::NotRunning || timer.elapsed() > timeoutMs)
            return logText().contains(text);
        // Lets QProcess notice a child that ended.
        m_process.waitForFinished(50);
    }
}

bool HangarProcess::stop(int timeoutMs)
{
    if (!isRunning())
        return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
    m_process.terminate();
    if (!m_process.waitForFinished(timeoutMs))
        return false;
    return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
}

void HangarProcess::kill()
{
    if (!isRunning())
        return;
    m_process.kill();
    m_process.waitForFinished(10000);
}

QUrl HangarProcess::readApiAddress(int timeoutMs)
{
    static const QByteArray prefix("Hangar API: ");
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        while (m_process.canReadLine()) {
            const QByteArray line = m_process.readLine().trimmed();
            if (line.startsWith(prefix))
                return QUrl(QString::fromUtf8(line.mid(prefix.size())));
        }
        if (m_process.state() == QProcess::NotRunning)
            return QUrl();
        m_process.waitForReadyRead(50);
    }
    return QUrl();
}
