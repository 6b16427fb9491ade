#include "model/OperatingSystemApplicationFilter.h"

#include <QJsonObject>
#include <QSysInfo>

OperatingSystemApplicationFilter::OperatingSystemApplicationFilter(QString operatingSystem)
    : m_operatingSystem(operatingSystem.isEmpty() ? currentOperatingSystem() : std::move(operatingSystem))
{
}

QString OperatingSystemApplicationFilter::currentOperatingSystem()
{
    // The feed's names for the kernels Qt reports.
    const QString kernel = QSysInfo::kernelType();
    if (kernel == QLatin1String("darwin"))
        return QStringLiteral("macos");
    if (kernel == QLatin1String("winnt"))
        return QStringLiteral("windows");
    return kernel;
}

bool OperatingSystemApplicationFilter::accept(const RemoteFeedItem &item) const
{
    const QString os = item.toJson().value(QLatin1String("package")).toObject().value(QLatin1String("os")).toString();
    return os.isEmpty() || os.compare(m_operatingSystem, Qt::CaseInsensitive) == 0;
}
