#include "TempHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

static const char *const kVariables[] = {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"};

TempHome::TempHome()
{
    for (const char *name : kVariables) {
        m_wasSet[name] = qEnvironmentVariableIsSet(name);
        m_saved[name] = qgetenv(name);
    }
    QDir().mkpath(configHome());
    QDir().mkpath(dataHome());
    QDir().mkpath(cacheHome());
    qputenv("HOME", path().toUtf8());
    qputenv("XDG_CONFIG_HOME", configHome().toUtf8());
    qputenv("XDG_DATA_HOME", dataHome().toUtf8());
    qputenv("XDG_CACHE_HOME", cacheHome().toUtf8());
}

TempHome::~TempHome()
{
    for (const char *name : kVariables) {
        if (m_wasSet.value(name))
            qputenv(name, m_saved.value(name));
        else
            qunsetenv(name);
    }
}

QString TempHome::writeFile(const QString &relativePath, const QByteArray &content) const
{
    const QString full = QDir(path()).filePath(relativePath);
    QDir().mkpath(QFileInfo(full).absolutePath());
    QFile file(full);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(content);
    return full;
}
