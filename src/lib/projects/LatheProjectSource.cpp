#include "projects/LatheProjectSource.h"

#include "base/WorkerThread.h"
#include "feed/records/LatheConfiguration.h"
#include "feed/records/LathePlatformData.h"
#include "local/LocalFeedItem.h"
#include "projects/ProjectCache.h"

#include <QDebug>
#include <QDir>
#include <QDomDocument>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QSet>
#include <QThread>
#include <QTimer>

namespace {

const QString kUserHomeMacro = QStringLiteral("$USER_HOME$");
const QString kConfigDirMacro = QStringLiteral("$APPLICATION_CONFIG_DIR$");
const QString kProjectFolder = QStringLiteral(".quern");
const QString kPngDataUrlPrefix = QStringLiteral("data:image/png;base64,");
// Tools rewrite their lists in several steps; one search after the burst is enough.
constexpr int kFileChangeDelayMs = 200;
constexpr qint64 kMaxRecentProjectsFileSize = 16 * 1024 * 1024;

QString userConfigHome()
{
    const QString xdg = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (!xdg.isEmpty())
        return QDir::cleanPath(xdg);
    return QDir::cleanPath(QDir::homePath() + QStringLiteral("/.config"));
}

// Lists folders once per search: twenty tools would otherwise list the home folder twenty times.
class SubdirectoryLister
{
public:
    // Sub-folders of `dir` (hidden ones included) whose names match the shell wildcard `pattern`,
    // case-sensitively, in name order.
    QStringList matching(const QString &dir, const QString &pattern)
    {
        auto listed = m_listings.constFind(dir);
        if (listed == m_listings.constEnd()) {
            listed = m_listings.insert(
                dir, QDir(dir).entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name));
        }
        auto regex = m_patterns.constFind(pattern);
        if (regex == m_patterns.constEnd())
            regex = m_patterns.insert(
                pattern, QRegularExpression(QRegularExpression::wildcardToRegularExpression(pattern)));
        QStringList names;
        for (const QString &name : *listed) {
            if (regex->match(name).hasMatch())
                names << name;
        }
        return names;
    }

private:
    QHash<QString, QStringList> m_listings;
    QHash<QString, QRegularExpression> m_patterns;
};

QStringList configPaths(const LatheProjectSource::ConfigSpec &configuration, SubdirectoryLister &lister)
{
    QStringList paths;
    if (configuration.directoryPattern.isEmpty() || configuration.recentProjectsFilename.isEmpty())
        return paths;
    const QString home = QDir::homePath();
    for (const QString &name : lister.matching(home, QLatin1Char('.') + configuration.directoryPattern)) {
        paths << QDir::cleanPath(home + QLatin1Char('/') + name + QStringLiteral("/config/options/")
            + configuration.recentProjectsFilename);
    }
    const QString vendorConfig = userConfigHome() + QStringLiteral("/Vantrel");
    for (const QString &name : lister.matching(vendorConfig, configuration.directoryPattern)) {
        paths << QDir::cleanPath(vendorConfig + QLatin1Char('/') + name + QStringLiteral("/options/")
            + configuration.recentProjectsFilename);
    }
    return paths;
}

QString expandDataLocation(const QString &location);

QStringList recentFiles(const LatheProjectSource::Tool &tool, SubdirectoryLister &lister)
{
    QStringList candidates;
    for (const LatheProjectSource::ConfigSpec &configuration : tool.configurations) {
        candidates << configPaths(configuration, lister);
        const QString dataLocation = expandDataLocation(tool.dataLocation);
        if (!dataLocation.isEmpty() && !configuration.recentProjectsFilename.isEmpty())
            candidates << QDir::cleanPath(
                dataLocation + QStringLiteral("/options/") + configuration.recentProjectsFilename);
    }
    QStringList files;
    for (const QString &candidate : qAsConst(candidates)) {
        if (!files.contains(candidate) && QFileInfo(candidate).isFile())
            files << candidate;
    }
    return files;
}

QDomElement findOptionNamed(const QDomDocument &document, const QString &name)
{
    const QDomNodeList options = document.elementsByTagName(QStringLiteral("option"));
    for (int i = 0; i < options.size(); ++i) {
        const QDomElement option = options.at(i).toElement();
        if (option.attribute(QStringLiteral("name")) == name)
            return option;
    }
    return QDomElement();
}

// The "projectOpenTimestamp" of every entry of "additionalInfo", keyed by the path as written.
QHash<QString, QDateTime> readOpenTimestamps(const QDomDocument &document)
{
    QHash<QString, QDateTime> timestamps;
    const QDomElement map = findOptionNamed(document, QStringLiteral("additionalInfo"))
                                .firstChildElement(QStringLiteral("map"));
    for (QDomElement entry = map.firstChildElement(QStringLiteral("entry")); !entry.isNull();
         entry = entry.nextSiblingElement(QStringLiteral("entry"))) {
        const QDomElement info = entry.firstChildElement(QStringLiteral("value"))
                                     .firstChildElement(QStringLiteral("RecentProjectMetaInfo"));
        for (QDomElement option = info.firstChildElement(QStringLiteral("option")); !option.isNull();
             option = option.nextSiblingElement(QStringLiteral("option"))) {
            if (option.attribute(QStringLiteral("name")) != QLatin1String("projectOpenTimestamp"))
                continue;
            const QString value = option.attribute(QStringLiteral("value"));
            bool ok = false;
            const qint64 msecs = value.toLongLong(&ok, 10);
            if (!ok) {
                qWarning().noquote() << "Failed to parse project open timestamp" << value << "for"
                                     << entry.attribute(QStringLiteral("key"));
                break;
            }
            timestamps.insert(
                entry.attribute(QStringLiteral("key")), QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC));
            break;
        }
    }
    return timestamps;
}

QString readPngAsDataUrl(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning().noquote() << "Cannot open" << path;
        return QString();
    }
    return kPngDataUrlPrefix + QString::fromLatin1(file.readAll().toBase64());
}

// Builds the project found at `canonicalPath` (name, time, icons); None when it is to be dropped.
Option<Project> readProject(const QString &canonicalPath, const Option<QDateTime> &openTime)
{
    const QFileInfo info(canonicalPath);
    Project project(canonicalPath);
    const QString projectDir = info.isDir() ? canonicalPath : info.absolutePath();
    project.setProjectDirectory(projectDir);
    const QDir quern(QDir(projectDir).filePath(kProjectFolder));
    const bool hasQuern = quern.exists();

    if (info.isDir() && !hasQuern
        && QDir(canonicalPath)
               .isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)) {
        qInfo().noquote() << canonicalPath << "is empty";
        return None;
    }

    if (openTime) {
        project.setLastModified(openTime);
    } else {
        const QFileInfo workspace(quern.filePath(QStringLiteral("workspace.xml")));
        if (hasQuern && workspace.exists())
            project.setLastModified(workspace.lastModified().toUTC());
        else
            qInfo().noquote() << "Cannot detect last modified time for" << canonicalPath;
    }

    QString name;
    if (hasQuern) {
        QFile nameFile(quern.filePath(QStringLiteral(".name")));
        if (nameFile.exists() && nameFile.open(QIODevice::ReadOnly))
            name = QString::fromUtf8(nameFile.readAll()).trimmed();
    }
    project.setName(name.isEmpty() ? QFileInfo(projectDir).fileName() : name);

    if (hasQuern) {
        const QString icon = quern.filePath(QStringLiteral("icon.png"));
        if (QFileInfo(icon).isFile()) {
            qDebug().noquote() << "Default icon found at" << icon;
            project.setIcon(readPngAsDataUrl(icon));
        }
        const QString darkIcon = quern.filePath(QStringLiteral("icon_dark.png"));
        if (QFileInfo(darkIcon).isFile()) {
            qDebug().noquote() << "Dark icon found at" << darkIcon;
            project.setDarkIcon(readPngAsDataUrl(darkIcon));
        }
    }
    return project;
}

QString expandDataLocation(const QString &location)
{
    if (location.isEmpty())
        return QString();
    QString expanded = LathePlatformData::expandDirectoryTemplate(location);
    if (expanded == QLatin1String("~") || expanded.startsWith(QLatin1String("~/")))
        expanded = QDir::homePath() + expanded.mid(1);
    if (QDir::isRelativePath(expanded))
        expanded = userConfigHome() + QStringLiteral("/Vantrel/") + expanded;
    return QDir::cleanPath(expanded);
}

} // namespace

QString LatheProjectSource::Tool::key() const
{
    return openItem.applicationId() + QLatin1Char('/') + openItem.channelId() + QLatin1Char('/') + build;
}

LatheProjectSource::LatheProjectSource(ProjectCache *cache, QObject *parent)
    : ProjectSource(parent)
    , m_cache(cache)
    , m_worker(new WorkerThread(QStringLiteral("LatheProjects"), this))
    , m_changeTimer(new QTimer(this))
{
    m_changeTimer->setSingleShot(true);
    m_changeTimer->setInterval(kFileChangeDelayMs);
    connect(m_changeTimer, &QTimer::timeout, this, [this] {
        const QStringList changed = m_changedFiles;
        m_changedFiles.clear();
        startSearch(ProjectsUpdateReason::RecentProjectsFileChanged, changed.join(QStringLiteral(", ")));
    });
}

LatheProjectSource::~LatheProjectSource()
{
    // The worker finishes its queued searches before the members they use go away.
    delete m_worker;
    m_worker = nullptr;
}

QStringList LatheProjectSource::getConfigPaths(const LatheConfiguration &configuration)
{
    return getConfigPaths(
        ConfigSpec { configuration.getConfigDirectoryPattern(), configuration.getRecentProjectsFilename() });
}

QStringList LatheProjectSource::getConfigPaths(const ConfigSpec &configuration)
{
    SubdirectoryLister lister;
    return configPaths(configuration, lister);
}

QList<Project> LatheProjectSource::detectProjectsFrom(
    const LatheConfiguration &configuration, const QString &path)
{
    Q_UNUSED(configuration)
    return detectProjectsFrom(path);
}

QList<Project> LatheProjectSource::detectProjectsFrom(const QString &path)
{
    qInfo().noquote() << "Reading recent projects from" << path;
    QList<Project> projects;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning().noquote() << "Cannot open" << path;
        return projects;
    }
    // The lists hold some dozens of entries; a huge file is not one of them and would only eat memory.
    if (file.size() > kMaxRecentProjectsFileSize) {
        qWarning().noquote() << "Cannot open" << path << "- the file is too big:" << file.size() << "bytes";
        return projects;
    }
    QDomDocument document;
    QString message;
    int line = 0;
    int column = 0;
    if (!document.setContent(&file, &message, &line, &column)) {
        qWarning().noquote() << "Failed to parse" << path << "Error at (line" << line << ", column" << column
                             << ":" << message;
        return projects;
    }

    const QString home = QDir::homePath();
    // The folder that holds "options", i.e. the tool's configuration folder.
    const QString configDir
        = QDir::cleanPath(QFileInfo(path).absoluteDir().absolutePath() + QStringLiteral("/.."));
    const QHash<QString, QDateTime> timestamps = readOpenTimestamps(document);

    const QDomElement list
        = findOptionNamed(document, QStringLiteral("recentPaths")).firstChildElement(QStringLiteral("list"));
    QSet<QString> seen;
    for (QDomElement option = list.firstChildElement(QStringLiteral("option")); !option.isNull();
         option = option.nextSiblingElement(QStringLiteral("option"))) {
        const QString written = option.attribute(QStringLiteral("value"));
        if (written.isEmpty())
            continue;
        QString expanded = written;
        expanded.replace(kUserHomeMacro, home);
        expanded.replace(kConfigDirMacro, configDir);
        const QString canonical = QFileInfo(expanded).canonicalFilePath();
        if (canonical.isEmpty()) {
            qInfo().noquote() << "Recent project" << expanded << "does not exist, skipped";
            continue;
        }
        if (seen.contains(canonical))
            continue;
        seen.insert(canonical);
        const auto time = timestamps.constFind(written);
        Option<Project> project = readProject(
            canonical, time == timestamps.constEnd() ? Option<QDateTime>() : Option<QDateTime>(*time));
        if (project)
            projects << *project;
    }
    return projects;
}

QStringList LatheProjectSource::recentProjectsFiles(const Tool &tool)
{
    SubdirectoryLister lister;
    return recentFiles(tool, lister);
}

QList<Project> LatheProjectSource::findToolProjects(const Tool &tool, const QStringList &files)
{
    QList<Project> projects;
    QSet<QString> seen;
    for (const QString &file : files) {
        for (Project project : detectProjectsFrom(file)) {
            if (seen.contains(project.getFullPath()))
                continue;
            seen.insert(project.getFullPath());
            project.addOpenItem(tool.openItem);
            projects << project;
        }
    }
    return projects;
}

QList<Project> LatheProjectSource::findToolProjects(const Tool &tool)
{
    return findToolProjects(tool, recentProjectsFiles(tool));
}

void LatheProjectSource::setInstalledItems(const QList<LocalFeedItem> &items)
{
    QList<Tool> tools;
    for (const LocalFeedItem &item : items) {
        const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
        if (!platform)
            continue;
        Tool tool;
        tool.openItem = ProjectOpenItem(item.getApplicationType(), item.getChannelId());
        tool.build = item.getBuild();
        for (const LatheConfiguration &configuration : platform->getConfigurations())
            tool.configurations << ConfigSpec { configuration.getConfigDirectoryPattern(),
                configuration.getRecentProjectsFilename() };
        tool.dataLocation = platform->getDataLocation();
        tools << tool;
    }
    setTools(tools);
}

void LatheProjectSource::setTools(const QList<Tool> &tools)
{
    QMutexLocker locker(&m_mutex);
    m_tools = tools;
}

QList<LatheProjectSource::Tool> LatheProjectSource::tools() const
{
    QMutexLocker locker(&m_mutex);
    return m_tools;
}

QList<Project> LatheProjectSource::findProjects(ProjectsUpdateReason reason, const QString &details)
{
    bool changed = false;
    return search(reason, details, &changed);
}

QList<Project> LatheProjectSource::search(ProjectsUpdateReason reason, const QString &details, bool *changed)
{
    QElapsedTimer timer;
    timer.start();
    if (details.isEmpty())
        qDebug().noquote() << "Looking for Lathe projects:" << reasonString(reason);
    else
        qDebug().noquote() << "Looking for Lathe projects:" << reasonString(reason) << details;

    const QList<Tool> tools = this->tools();
    if (m_cache && reason == ProjectsUpdateReason::Forced)
        m_cache->clear();

    QList<Project> projects;
    QStringList allFiles;
    QStringList toolKeys;
    SubdirectoryLister lister;
    for (const Tool &tool : tools) {
        const QStringList files = recentFiles(tool, lister);
        allFiles << files;
        toolKeys << tool.key();
        if (!m_cache) {
            projects << findToolProjects(tool, files);
            continue;
        }
        QList<ProjectCache::FileStamp> stamps;
        for (const QString &file : files)
            stamps << ProjectCache::stampOf(file);
        if (const Option<QList<Project>> cached = m_cache->lookup(tool.key(), stamps)) {
            projects << *cached;
            continue;
        }
        const QList<Project> found = findToolProjects(tool, files);
        m_cache->store(tool.key(), ProjectCache::Entry { stamps, found });
        projects << found;
    }
    if (m_cache)
        m_cache->retainOnly(toolKeys);

    qInfo().noquote() << "Lathe projects search took" << timer.elapsed() << "ms";
    {
        QMutexLocker locker(&m_mutex);
        *changed = !m_hasSearched || projects != m_lastResult;
        m_lastResult = projects;
        m_hasSearched = true;
    }
    if (!*changed)
        qInfo().noquote() << "no changes in projects";
    watchFiles(allFiles);
    return projects;
}

void LatheProjectSource::forcedSearch()
{
    startSearch(ProjectsUpdateReason::Forced, QString());
}

void LatheProjectSource::startSearch(ProjectsUpdateReason reason, const QString &details)
{
    m_worker->post([this, reason, details] {
        bool changed = false;
        search(reason, details, &changed);
        if (changed)
            emit projectsChanged(reason);
    });
}

void LatheProjectSource::watchRecentProjectsFileForChanges()
{
    if (m_watcher)
        return;
    m_watcher = new QFileSystemWatcher(this);
    connect(m_watcher, &QFileSystemWatcher::fileChanged, this, &LatheProjectSource::onFileChanged);
    QStringList known;
    {
        QMutexLocker locker(&m_mutex);
        known = m_filesRead;
    }
    watchFiles(known);
}

void LatheProjectSource::watchFiles(const QStringList &files)
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, files] { watchFiles(files); }, Qt::QueuedConnection);
        return;
    }
    {
        QMutexLocker locker(&m_mutex);
        m_filesRead = files;
    }
    if (!m_watcher)
        return;
    const QStringList watched = m_watcher->files();
    QStringList toAdd;
    for (const QString &file : files) {
        if (!watched.contains(file) && !toAdd.contains(file))
            toAdd << file;
    }
    // Files of tools that are gone (or that no longer exist) are not watched any longer.
    QStringList toRemove;
    for (const QString &file : watched) {
        if (!files.contains(file))
            toRemove << file;
    }
    if (!toRemove.isEmpty())
        m_watcher->removePaths(toRemove);
    if (!toAdd.isEmpty())
        m_watcher->addPaths(toAdd);
}

QStringList LatheProjectSource::watchedFiles() const
{
    if (!m_watcher)
        return QStringList();
    QStringList files = m_watcher->files();
    files.sort();
    return files;
}

void LatheProjectSource::onFileChanged(const QString &path)
{
    qInfo().noquote() << "Recent projects file changed:" << path;
    // Tools replace the file by renaming a new one over it, which ends the watch: watch it again.
    if (m_watcher && QFileInfo(path).isFile() && !m_watcher->files().contains(path))
        m_watcher->addPath(path);
    if (!m_changedFiles.contains(path))
        m_changedFiles << path;
    m_changeTimer->start();
}
