// Runs one command through Processes and waits: the test kills this process with
// SIGKILL and checks that the command died with it.
#include "base/Processes.h"

#include <QCoreApplication>
#include <QStringList>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList arguments = app.arguments().mid(1);
    if (arguments.isEmpty())
        return 2;
    const QString program = arguments.takeFirst();
    return Processes::executeProcessAndWait(program, arguments, QString()).exitCode;
}
