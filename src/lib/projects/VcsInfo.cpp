#include "projects/VcsInfo.h"

#include "projects/Project.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTextStream>

#ifndef HANGAR_GIT_HOSTING_HOST
#define HANGAR_GIT_HOSTING_HOST "github.com"
#endif

namespace {

// Splits a remote link into protocol, user, password, host, port, path and query. It accepts URLs
// ("https://host/owner/repo.git", "ssh://git@host:22/owner/repo") as well as the scp-like form
// ("git@host:owner/repo"), where the ":" before the path cannot be read as a port.
const QRegularExpression &remotePattern()
{
    static const QRegularExpression pattern(QStringLiteral(
        R"(((?<protocol>\w+)(?:://)){0,1}((?<username>[\w\-\.]+)((?::)(?<password>[^@\s]+)){0,1}(?:@)){0,1}(?<host>[^/:\s]+)((?::)(?<port>[0-9]+)){0,1}((?:[:/])(?<path>([^\s/]+/)*([^\s/]+/|[^\s\?/]+)){0,1}){0,1}((?:\?)(?<query>[^\s\?]+)){0,1})"));
    return pattern;
}

struct RemoteParts
{
    QString protocol;
    QString host;
    QString path;
};

Option<RemoteParts> parseRemote(const QString &url)
{
    const QRegularExpressionMatch match = remotePattern().match(url);
    if (!match.hasMatch())
        return None;
    RemoteParts parts;
    parts.protocol = match.captured(QStringLiteral("protocol"));
    parts.host = match.captured(QStringLiteral("host"));
    parts.path = match.captured(QStringLiteral("path"));
    if (!parts.path.endsWith(QLatin1Char('/')))
        parts.path += QLatin1Char('/');
    return parts;
}

bool isWebOrSshProtocol(const QString &protocol)
{
    return protocol.isEmpty() || protocol == QLatin1String("http") || protocol == QLatin1String("https")
        || protocol == QLatin1String("ssh");
}

} // namespace

VcsInfo::VcsInfo(VcsType type, const QString &remoteUrl)
    : m_type(type)
    , m_remoteUrl(remoteUrl)
{
}

QString VcsInfo::gitHostingHost()
{
    return QStringLiteral(HANGAR_GIT_HOSTING_HOST);
}

QString VcsInfo::typeString(VcsType type)
{
    switch (type) {
    case VcsType::Git:
        return QStringLiteral("git");
    }
    return QString();
}

bool VcsInfo::isSimilar(const VcsInfo &other) const
{
    if (m_type != other.m_type)
        return false;
    const Option<RemoteParts> a = parseRemote(m_remoteUrl);
    const Option<RemoteParts> b = parseRemote(other.m_remoteUrl);
    if (!a || !b)
        return m_remoteUrl == other.m_remoteUrl;
    if (a->host != b->host)
        return false;

    QString pathA = a->path;
    QString pathB = b->path;
    if (!gitHostingHost().isEmpty() && a->host == gitHostingHost()) {
        static const QString gitSuffix = QStringLiteral(".git/");
        if (pathA.endsWith(gitSuffix))
            pathA = pathA.left(pathA.size() - gitSuffix.size()) + QLatin1Char('/');
        if (pathB.endsWith(gitSuffix))
            pathB = pathB.left(pathB.size() - gitSuffix.size()) + QLatin1Char('/');
    }
    if (pathA != pathB)
        return false;

    if (a->protocol == b->protocol)
        return true;
    return isWebOrSshProtocol(a->protocol) && isWebOrSshProtocol(b->protocol);
}

QJsonObject VcsInfo::toJson() const
{
    return QJsonObject { { QStringLiteral("type"), typeString(m_type) },
        { QStringLiteral("remote_url"), m_remoteUrl } };
}

Option<VcsInfo> VcsInfo::fromJson(const QJsonObject &json)
{
    if (json.value(QStringLiteral("type")).toString() != typeString(VcsType::Git))
        return None;
    const QString url = json.value(QStringLiteral("remote_url")).toString();
    if (url.isEmpty())
        return None;
    return VcsInfo(VcsType::Git, url);
}

Option<QString> findGitOriginUrl(const QString &gitConfigText)
{
    static const QRegularExpression separators(QStringLiteral(R"([=\s]+)"));
    bool inOrigin = false;
    const QStringList lines = gitConfigText.split(QLatin1Char('\n'));
    for (const QString &rawLine : lines) {
        const QString line = rawLine.trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            // Sections are written flush left; tolerate indentation anyway.
            inOrigin = line.startsWith(QLatin1String("[remote \"origin\"]"));
            continue;
        }
        if (!inOrigin)
            continue;
        const QStringList parts = line.split(separators, Qt::SkipEmptyParts);
        if (parts.size() >= 2 && parts.first() == QLatin1String("url"))
            return parts.at(1);
    }
    return None;
}

void addExistingGitVcs(Project &project)
{
    const QString gitDir = QDir(project.getProjectDirectory()).filePath(QStringLiteral(".git"));
    if (!QFileInfo(gitDir).isDir())
        return;
    const QString configPath = QDir(gitDir).filePath(QStringLiteral("config"));
    QFile file(configPath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qWarning().noquote() << "Git configuration file for " + configPath + " is not accessible";
        return;
    }
    const Option<QString> url = findGitOriginUrl(QString::fromUtf8(file.readAll()));
    if (!url) {
        qDebug().noquote() << "No origin remote in" << configPath;
        return;
    }
    project.addVcsInfo(VcsInfo(VcsType::Git, *url));
}
