#include "base/Capabilities.h"

#include "base/Query.h"

#include <QDebug>
#include <QOperatingSystemVersion>
#include <QSysInfo>
#include <QVersionNumber>

#ifdef __GLIBC__
#include <gnu/libc-version.h>
#endif

namespace {

QString operatingSystemName()
{
#if defined(Q_OS_LINUX)
    return QStringLiteral("linux");
#elif defined(Q_OS_MACOS)
    return QStringLiteral("macos");
#elif defined(Q_OS_WIN)
    return QStringLiteral("windows");
#else
    return QSysInfo::kernelType();
#endif
}

// Major, minor and micro of the running system's release. Qt knows them on the
// platforms with one vendor; on Linux the distribution's release ("12", "22.04")
// is the closest thing. Unknown parts are -1 so that any "min" requirement fails.
QVector<int> operatingSystemVersion()
{
    const QOperatingSystemVersion current = QOperatingSystemVersion::current();
    if (current.majorVersion() >= 0)
        return { current.majorVersion(), qMax(current.minorVersion(), 0), qMax(current.microVersion(), 0) };
    const QVersionNumber release = QVersionNumber::fromString(QSysInfo::productVersion());
    if (release.isNull())
        return { -1, -1, -1 };
    return { release.majorVersion(), qMax(release.minorVersion(), 0), qMax(release.microVersion(), 0) };
}

QString cLibraryVersion()
{
#ifdef __GLIBC__
    return QString::fromLatin1(gnu_get_libc_version());
#else
    return QString();
#endif
}

} // namespace

Capabilities::Capabilities()
{
    const QVector<int> version = operatingSystemVersion();
    m_values.insert(QStringLiteral("os"), operatingSystemName());
    m_values.insert(QStringLiteral("os_kernel"), QSysInfo::kernelVersion());
    m_values.insert(QStringLiteral("os_version_major"), version.at(0));
    m_values.insert(QStringLiteral("os_version_minor"), version.at(1));
    m_values.insert(QStringLiteral("os_version_micro"), version.at(2));
    m_values.insert(QStringLiteral("cpu_arch"), QSysInfo::currentCpuArchitecture());
    m_values.insert(QStringLiteral("glibc"), cLibraryVersion());
}

Capabilities::Capabilities(QVariantMap values)
    : m_values(std::move(values))
{
}

void Capabilities::dump() const
{
    for (auto it = m_values.cbegin(); it != m_values.cend(); ++it)
        qInfo().noquote() << "Capability" << it.key() << "=" << it.value().toString();
}

QStringList Capabilities::checkCompatibilityIssues(const QJsonObject &requirements) const
{
    const Result<QStringList> unmet = Query(m_values).unmetRequirements(requirements);
    if (unmet.isError()) {
        qWarning().noquote() << "Cannot evaluate feed requirements:" << unmet.error();
        return QStringList(QString::fromLatin1(UnknownRequirements));
    }
    return *unmet;
}
