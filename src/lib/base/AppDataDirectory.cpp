#include "base/AppDataDirectory.h"

#include <QDir>
#include <QStandardPaths>

QString appDataDirectory()
{
    // Built from the generic location rather than the application one so that the
    // folder does not depend on the application object's names being set yet.
    const QString dataHome = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return QDir::cleanPath(dataHome + QStringLiteral("/Vantrel/Hangar"));
}

QString settingsFilePath()
{
    return QDir::cleanPath(appDataDirectory() + QStringLiteral("/.settings.json"));
}
