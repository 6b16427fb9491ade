#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QJsonObject>
#include <QWebSocket>
#include <memory>

// Manager installations for the self-update tests: this build installed with `cmake --install`
// (the older manager) and the newer manager's release package, unpacked.
namespace UpdateFixtures {

QString binaryDir();
QString newerPackage();
// `cmake --install` of this build's manager into `prefix`; empty on success, else the reason.
QString installOlderManager(const QString &prefix);
// The newer package unpacked into `root` as the installer would (its top folder stripped).
QString unpackNewerManager(const QString &root);
// "<version>" as `<root>/bin/hangar --version` prints it; empty when it does not start.
QString versionOf(const QString &root, const QString &home);

// Runs a program to its end; the exit code, or -1 when it could not start or timed out.
int run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr,
    int timeoutMs = 120000, const QProcessEnvironment &environment = QProcessEnvironment());

// A bind mount of `path` onto itself (read-only when asked), so that the folder cannot be
// renamed or written. False when this machine does not let us mount (no privilege).
bool bindMount(const QString &path, bool readOnly);
void unmount(const QString &path);

// The process ids found in the log lines of `logFile` ("<version> <pid> ..."), in order.
QList<qint64> pidsInLog(const QString &logFile);
void killAndReap(qint64 pid);

// The feed entry of a manager build whose package is `packagePath`, served at `url`.
QJsonObject selfEntry(const QString &version, const QString &url, const QString &packagePath, int quality = 1,
    const QString &branch = QString());

// A client of a headless manager's API, found through its "hangar-api.json".
class ApiClient
{
public:
    // Reads {"port", "token", "pid"} from `runtimeFile`; false when it is missing or from `notPid`.
    bool connectTo(const QString &runtimeFile, qint64 notPid = 0, int timeoutMs = 60000);
    qint64 pid() const { return m_pid; }
    // The answer text of one request ({"method": ..., ...}); empty with `error` set on failure.
    QString query(const QJsonObject &request, QString *error = nullptr, int timeoutMs = 60000);

private:
    std::unique_ptr<QWebSocket> m_socket;
    qint64 m_pid = 0;
    int m_nextId = 1;
};

} // namespace UpdateFixtures
