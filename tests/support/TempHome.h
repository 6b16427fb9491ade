#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QTemporaryDir>

// A throw-away home folder with its XDG folders, installed into the process
// environment (HOME, XDG_CONFIG_HOME, XDG_DATA_HOME, XDG_CACHE_HOME) for the
// lifetime of the object; the previous values come back on destruction.
class TempHome
{
public:
    TempHome();
    ~TempHome();

    bool isValid() const { return m_dir.isValid(); }
    QString path() const { return m_dir.path(); }
    QString configHome() const { return path() + "/.config"; }
    QString dataHome() const { return path() + "/.local/share"; }
    QString cacheHome() const { return path() + "/.cache"; }
    // Where the manager keeps its own settings and logs in this home.
    QString appDataDir() const { return dataHome() + "/Vantrel/Hangar"; }

    // Writes a file below the home (parents created); returns its absolute path.
    QString writeFile(const QString &relativePath, const QByteArray &content) const;

private:
    QTemporaryDir m_dir;
    QMap<QByteArray, QByteArray> m_saved;
    QMap<QByteArray, bool> m_wasSet;
};
