#include "model/OperatingSystemApplicationFilter.h"

#include <QJsonObject>

OperatingSystemApplicationFilter::OperatingSystemApplicationFilter(QString operatingSystem)
    : m_operatingSystem(operatingSystem.isEmpty() ? currentOperatingSystem() : std::move(operatingSystem))
{
}

QString OperatingSystemApplicationFilter::currentOperatingSystem()
{
#if defined(Q_OS_LINUX)
    return QStringLiteral("linux");
#elif defined(Q_OS_MACOS)
    return QStringLiteral("macos");
#elif defined(Q_OS_WIN)
    return QStringLiteral("windows");
#else
    return QStringLiteral("unknown");
#endif
}

bool OperatingSystemApplicationFilter::accept(const RemoteFeedItem &item) const
{
    const QString os = item.toJson().value(QLatin1String("package")).toObject().value(QLatin1String("os")).toString();
    return os.isEmpty() || os.compare(m_operatingSystem, Qt::CaseInsensitive) == 0;
}
