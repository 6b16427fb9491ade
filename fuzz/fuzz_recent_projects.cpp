// A tool's recent-projects XML file, as any tool version (or a damaged disk) may leave it.

#include "FuzzSupport.h"
#include "projects/LatheProjectSource.h"

#include <QFile>
#include <QTemporaryDir>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::quiet();
    static QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("recentProjects.xml"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 0;
    file.write(fuzz::bytes(data, size));
    file.close();
    (void)LatheProjectSource::detectProjectsFrom(path);
    return 0;
}
