// Crash safety as a figure: the crash-safety test with 200 SIGKILLs at random moments of
// installs, updates, rollbacks, reinstalls, uninstalls and settings saves; prints how many
// kills the manager survived with every invariant intact (the test stops at the first
// broken one). CRASH_KILLS changes the number.

#include "BenchSupport.h"

#include <QCoreApplication>
#include <QProcess>
#include <QRegularExpression>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int kills = qEnvironmentVariableIntValue("CRASH_KILLS") > 0 ? qEnvironmentVariableIntValue("CRASH_KILLS") : 200;
    QProcess test;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("HANGAR_CRASH_KILLS", QString::number(kills));
    environment.insert("HANGAR_BINARY_DIR", HANGAR_BINARY_DIR);
    test.setProcessEnvironment(environment);
    test.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    test.start(HANGAR_BINARY_DIR "/tests/hardening/test_hardening_crash", { "-silent" });
    test.waitForFinished(-1);
    const QString output = QString::fromUtf8(test.readAllStandardOutput());
    int survived = 0;
    auto matches = QRegularExpression("^SURVIVED (\\d+)$", QRegularExpression::MultilineOption).globalMatch(output);
    while (matches.hasNext())
        survived = matches.next().captured(1).toInt();
    const std::string unit = "/" + std::to_string(kills);
    report("crash_kills_survived", survived, unit.c_str());
    return test.exitCode() == 0 ? 0 : 1;
}
