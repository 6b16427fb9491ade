#include "api/SelfApiMethods.h"

#include "api/ApiArguments.h"
#include "api/SelfApi.h"
#include "api/UIApiConnector.h"
#include "api/UsageEventLog.h"
#include "feed/FeedletManager.h"
#include "net/ProgressManager.h"
#include "projects/ProjectsManager.h"
#include "settings/SettingsManager.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>

namespace {

using Answer = Result<QString>;

// The keys getSettingsJson() adds for the page; they are not settings.
const QStringList ComputedSettingsKeys { "defaults", "accounts" };

QString json(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

Answer done(const Result<void> &result)
{
    if (!result)
        return result.toError();
    return QString();
}

// The path of the project a request names: the page sends the project as the
// model gave it ("path"), or the whole project entry ("project" -> "path").
Result<QString> projectPath(const ApiArguments &arguments, ProjectsManager *projects)
{
    if (!projects)
        return Error(QStringLiteral("Projects are not available"));
    const Result<QJsonObject> project = arguments.object(QStringLiteral("project"));
    if (!project)
        return project.toError();
    QJsonValue path = project->value(QStringLiteral("path"));
    if (!path.isString())
        path = project->value(QStringLiteral("project")).toObject().value(QStringLiteral("path"));
    if (!path.isString() || path.toString().isEmpty())
        return Error(QStringLiteral("Argument \"project\" names no project path"));
    for (const Project &known : projects->getProjects())
        if (known.getFullPath() == path.toString())
            return path.toString();
    return Error("Unknown project: " + path.toString());
}

Error unavailable(const QString &what)
{
    return Error(what + " not available in this build");
}

} // namespace

SelfApiMethods::SelfApiMethods(SelfApi *api, Dependencies dependencies)
    : QObject(api)
    , m_api(api)
    , m_deps(std::move(dependencies))
{
    registerSettingsMethods();
    registerProjectMethods();
    registerAccountAndStatisticsMethods();
    registerDesktopMethods();
    registerProgressMethods();
}

void SelfApiMethods::registerSettingsMethods()
{
    SettingsManager *settings = m_deps.settingsManager;
    m_api->addImmediateMethod("getSettings",
        [settings](const QJsonObject &) -> Answer { return json(settings->getSettingsJson()); });
    m_api->addImmediateMethod("saveSettings", [settings](const QJsonObject &request) -> Answer {
        Result<QJsonObject> page = ApiArguments(request).object("settings");
        if (!page)
            return page.toError();
        for (const QString &key : ComputedSettingsKeys)
            page->remove(key);
        const SelfSettings candidate(*page);
        const QStringList wrong = candidate.findWrongTypedKeys();
        if (!wrong.isEmpty())
            return Error("Settings not saved: " + joinErrors(wrong));
        return done(settings->updateSettings([&](SelfSettings &current) { current.setSettings(*page); }));
    });
    m_api->addImmediateMethod("saveInstallLocation", [settings](const QJsonObject &request) -> Answer {
        const Result<QString> location = ApiArguments(request).nonEmptyString("location");
        if (!location)
            return location.toError();
        const QString path = QDir::fromNativeSeparators(location->trimmed());
        if (!QDir::isAbsolutePath(path))
            return Error("The installation folder must be an absolute path: " + path);
        return done(settings->updateSettings(
            [&](SelfSettings &current) { current.setApplicationInstallDirectory(QDir::cleanPath(path)); }));
    });
    m_api->addImmediateMethod("orvPrivacyPolicyAccepted", [settings](const QJsonObject &request) -> Answer {
        const ApiArguments arguments(request);
        const Result<bool> accepted = arguments.boolean("accepted");
        const Result<bool> statistics = arguments.boolean("statistics");
        if (!accepted || !statistics)
            return Error(joinErrors(collectErrors(accepted, statistics)));
        return done(settings->updateSettings([&](SelfSettings &current) {
            current.setPrivacyPolicyAccepted(*accepted, QString::fromLatin1(PrivacyPolicyVersion));
            current.setAllowAnonymousStatistics(*accepted && *statistics);
        }));
    });
    QObject::connect(settings, &SettingsManager::settingsChanged, this,
        [this, settings]() { m_api->apiSignalInternal("settingsChanged", settings->getSettingsJson()); });
    QObject::connect(
        settings, &SettingsManager::proxyCredentialsRequired, this, [this](const QString &proxy) {
            m_api->apiSignalInternal("showProxyCredentialsDialog", QJsonObject { { "proxyUrl", proxy } });
        });
}

void SelfApiMethods::registerProjectMethods()
{
    ProjectsManager *projects = m_deps.projectsManager;
    SettingsManager *settings = m_deps.settingsManager;
    m_api->addImmediateMethod("projects:refresh", [projects](const QJsonObject &) -> Answer {
        if (!projects)
            return Error(QStringLiteral("Projects are not available"));
        projects->forcedUpdatePrjects();
        return QString();
    });
    // Marks change the settings; the projects manager looks again on its own when they do.
    const auto markMethod = [=](auto mark) {
        return [=](const QJsonObject &request) -> Answer {
            const ApiArguments arguments(request);
            const Result<QString> path = projectPath(arguments, projects);
            const Result<bool> value = arguments.boolean("value");
            if (!path || !value)
                return Error(joinErrors(collectErrors(path, value)));
            return done(settings->updateSettings([&](SelfSettings &s) { mark(s, *path, *value); }));
        };
    };
    m_api->addImmediateMethod(
        "projects:markHidden", markMethod([](SelfSettings &s, const QString &path, bool on) {
            if (on)
                s.setHiddenProject(path, QDateTime::currentDateTimeUtc());
            else
                s.removeHiddenProject(path);
        }));
    m_api->addImmediateMethod(
        "projects:markFavorite", markMethod([](SelfSettings &s, const QString &path, bool on) {
            s.setSpecialProject(path, "favorite", on);
        }));
    m_api->addImmediateMethod("projects:setDefaultOpenItem", [=](const QJsonObject &request) -> Answer {
        const ApiArguments arguments(request);
        const Result<QString> path = projectPath(arguments, projects);
        const Result<QJsonObject> item = arguments.object("item");
        if (!path || !item)
            return Error(joinErrors(collectErrors(path, item)));
        const ApiArguments itemArguments(*item);
        const Result<QString> application = itemArguments.nonEmptyString("application_id");
        const Result<QString> channel = itemArguments.nonEmptyString("channel_id");
        if (!application || !channel)
            return Error(
                "Argument \"item\" names no tool: " + joinErrors(collectErrors(application, channel)));
        return done(settings->updateSettings(
            [&](SelfSettings &s) { s.setDefaultOpenItem(*path, *application, *channel); }));
    });
    m_api->addImmediateMethod("projects:removeDefaultOpenItem", [=](const QJsonObject &request) -> Answer {
        const Result<QString> path = projectPath(ApiArguments(request), projects);
        if (!path)
            return path.toError();
        return done(settings->updateSettings([&](SelfSettings &s) { s.removeDefaultOpenItem(*path); }));
    });
}

void SelfApiMethods::registerAccountAndStatisticsMethods()
{
    for (const char *method : { "orvAccountLogin", "orvAccountSwitch", "orvAccountLogout" })
        m_api->addImmediateMethod(
            method, [](const QJsonObject &) -> Answer { return unavailable("Accounts are"); });
    m_api->addImmediateMethod("forceSubmitStatistics", [](const QJsonObject &) -> Answer {
        return Error(
            QStringLiteral("Usage statistics are kept on this computer and never sent in this build"));
    });
    UsageEventLog *usage = m_deps.usageEventLog;
    m_api->addImmediateMethod("fusEvent", [usage](const QJsonObject &request) -> Answer {
        const Result<QJsonObject> data = ApiArguments(request).object("data");
        if (!data)
            return data.toError();
        return done(usage->record(*data));
    });
    m_api->addImmediateMethod("openEventLog", [this, usage](const QJsonObject &) -> Answer {
        return done(m_api->connector()->openFile(usage->path()));
    });
    // "getSelfUpdateStatus" and "updateSelf" are SelfUpdateRequests'.

    FeedletManager *feedlets = m_deps.feedletManager;
    m_api->addImmediateMethod("installFeedlet", [feedlets](const QJsonObject &request) -> Answer {
        if (!feedlets)
            return unavailable("Single-tool feed links are");
        const Result<QJsonObject> tool = ApiArguments(request).object("tool");
        if (!tool)
            return tool.toError();
        return done(feedlets->installFeedlet(*tool));
    });
    if (feedlets) {
        connect(feedlets, &FeedletManager::confirmationRequested, this, [this](const QJsonObject &item) {
            m_api->apiSignalInternal("proposeInstallItem", QJsonObject { { "feed_item", item } });
        });
        connect(feedlets, &FeedletManager::feedletFailed, m_api, &SelfApi::notifyOnHandleApiError);
    }
}

void SelfApiMethods::registerDesktopMethods()
{
    UIApiConnector *connector = m_api->connector();
    m_api->addMethod(
        "selectDirectoryDialog", [connector](const QJsonObject &request, const SelfApi::Reply &reply) {
            const QJsonValue caption = request.value("caption");
            if (!caption.isUndefined() && !caption.isString()) {
                reply(Error(QStringLiteral("Argument \"caption\" must be a string")));
                return;
            }
            connector->selectDirectory(caption.toString(), reply);
        });
    m_api->addImmediateMethod(
        "readClipboard", [connector](const QJsonObject &) { return connector->readClipboard(); });
    m_api->addImmediateMethod("openLink", [connector](const QJsonObject &request) -> Answer {
        const Result<QString> link = ApiArguments(request).nonEmptyString("link");
        if (!link)
            return link.toError();
        const QUrl url(*link, QUrl::StrictMode);
        if (!url.isValid() || !QStringList { "http", "https", "mailto" }.contains(url.scheme()))
            return Error("Not a web link: " + *link);
        qInfo().noquote() << "Opening" << url.toString();
        return done(connector->openUrl(url));
    });
    m_api->addImmediateMethod("sendFeedback", [connector](const QJsonObject &) -> Answer {
        return done(connector->openUrl(QUrl(QString::fromLatin1(SupportPageUrl))));
    });
    const QString logFile = m_deps.logFilePath;
    m_api->addImmediateMethod("showLogFile", [connector, logFile](const QJsonObject &) -> Answer {
        if (logFile.isEmpty())
            return Error(QStringLiteral("Logging is switched off (--no-log)"));
        return done(connector->openFile(logFile));
    });
    m_api->addImmediateMethod("showDirectory", [connector](const QJsonObject &request) -> Answer {
        const Result<QString> path = ApiArguments(request).nonEmptyString("path");
        if (!path)
            return path.toError();
        if (!QFileInfo(*path).isDir())
            return Error("No such folder: " + *path);
        return done(connector->showDirectory(*path));
    });
    m_api->addImmediateMethod("getFileManagerName",
        [connector](const QJsonObject &) -> Answer { return connector->fileManagerName(); });
    m_api->addImmediateMethod("openSystemProxySettings",
        [connector](const QJsonObject &) -> Answer { return done(connector->openSystemProxySettings()); });
    m_api->addImmediateMethod("hideWindow", [connector](const QJsonObject &) -> Answer {
        connector->hideWindow();
        return QString();
    });
    m_api->addImmediateMethod("quitApplication", [connector](const QJsonObject &) -> Answer {
        qInfo().noquote() << "Quit requested by the page";
        connector->quit();
        return QString();
    });
    m_api->addImmediateMethod("askCloseRunning", [this](const QJsonObject &request) -> Answer {
        QJsonObject payload = request;
        payload.remove("method");
        m_api->apiSignalInternal("askCloseRunning", payload);
        return QString();
    });
}

void SelfApiMethods::registerProgressMethods()
{
    ProgressManager *progress = m_deps.progressManager;
    connect(
        progress, &ProgressManager::actionProgressCreated, this,
        [this](ActionProgress *created) { trackProgress(created); }, Qt::DirectConnection);
    connect(progress, &ProgressManager::progressUpdate, this,
        [this](const QJsonObject &total) { m_api->apiSignalInternal("totalProgress", total); });
    m_api->addImmediateMethod("stopAction", [this, progress](const QJsonObject &request) -> Answer {
        const Result<QString> id = ApiArguments(request).nonEmptyString("id");
        if (!id)
            return id.toError();
        if (*id != ProgressManager::KILL_ALL) {
            QMutexLocker lock(&m_progressMutex);
            const std::shared_ptr<ActionProgress::State> state = m_progresses.value(*id).lock();
            if (!state || state->finished.load())
                return Error("No running action with id " + *id);
            if (!state->cancelable)
                return Error("The action " + *id + " cannot be stopped");
        }
        qInfo().noquote() << "Stopping action" << *id;
        progress->cancelProgress(*id);
        return QString();
    });
}

void SelfApiMethods::trackProgress(ActionProgress *progress)
{
    QMutexLocker lock(&m_progressMutex);
    for (auto it = m_progresses.begin(); it != m_progresses.end();) {
        const auto state = it.value().lock();
        it = (!state || state->finished.load()) ? m_progresses.erase(it) : std::next(it);
    }
    m_progresses.insert(progress->id(), progress->state());
}
