#include "api/ApplicationRequests.h"

#include "api/ApiArguments.h"
#include "api/SelfApi.h"
#include "manager/ApplicationManager.h"
#include "model/ApplicationManagerModelJSON.h"

#include <QJsonDocument>
#include <QUrlQuery>

namespace {

using Reply = SelfApi::Reply;
using Done = ApplicationManager::Done;

Done answerWhenDone(const Reply &reply)
{
    return [reply](const Result<void> &result) {
        if (result)
            reply(QString());
        else
            reply(result.toError());
    };
}

// The entry the request names ("tool"), checked to be an object with the model's "key".
Result<QJsonObject> tool(const ApiArguments &arguments)
{
    const Result<QJsonObject> entry = arguments.object(QStringLiteral("tool"));
    if (entry && !entry->value(QStringLiteral("key")).isString())
        return Error(QStringLiteral("Argument \"tool\" names no entry of the model (no \"key\")"));
    return entry;
}

// An optional object argument: absent (or null) is an empty object.
Result<QJsonObject> optionalObject(const ApiArguments &arguments, const QString &key)
{
    const QJsonValue value = arguments.request().value(key);
    if (value.isUndefined() || value.isNull())
        return QJsonObject();
    return arguments.object(key);
}

// An optional string argument: absent (or null) is empty.
Result<QString> optionalString(const ApiArguments &arguments, const QString &key)
{
    const QJsonValue value = arguments.request().value(key);
    if (value.isUndefined() || value.isNull())
        return QString();
    return arguments.string(key);
}

// A request whose only argument is the tool.
template <typename Action> SelfApi::Handler onTool(ApplicationManager *manager, Action action)
{
    return [manager, action](const QJsonObject &request, const Reply &reply) {
        const Result<QJsonObject> entry = tool(ApiArguments(request));
        if (!entry) {
            reply(entry.toError());
            return;
        }
        (manager->*action)(*entry, answerWhenDone(reply));
    };
}

// A request with the tool and one more argument, read by `read`.
template <typename Value, typename Read, typename Action>
SelfApi::Handler onToolWith(ApplicationManager *manager, Read read, Action action)
{
    return [manager, read, action](const QJsonObject &request, const Reply &reply) {
        const ApiArguments arguments(request);
        const Result<QJsonObject> entry = tool(arguments);
        const Result<Value> value = read(arguments);
        if (!entry || !value) {
            reply(Error(joinErrors(collectErrors(entry, value))));
            return;
        }
        (manager->*action)(*entry, *value, answerWhenDone(reply));
    };
}

SelfApi::Handler reorder(ApplicationManager *manager, bool manual)
{
    return [manager, manual](const QJsonObject &request, const Reply &reply) {
        const Result<QJsonArray> tools = ApiArguments(request).array(QStringLiteral("tools"));
        if (!tools) {
            reply(tools.toError());
            return;
        }
        for (const QJsonValue &entry : *tools)
            if (!entry.isObject()) {
                reply(Error(QStringLiteral("Argument \"tools\" must hold entry objects only")));
                return;
            }
        manager->reorderTools(*tools, manual, answerWhenDone(reply));
    };
}

} // namespace

void ApplicationRequests::registerInto(SelfApi *api, ApplicationManager *manager)
{
    using M = ApplicationManager;
    api->addMethod("installApplication", [manager](const QJsonObject &request, const Reply &reply) {
        const ApiArguments arguments(request);
        const Result<QJsonObject> item = arguments.object("item");
        const Result<QJsonObject> entry = optionalObject(arguments, "tool");
        const Result<QJsonObject> options = optionalObject(arguments, "options");
        if (!item || !entry || !options) {
            reply(Error(joinErrors(collectErrors(item, entry, options))));
            return;
        }
        // The version the page picked travels with the install options; the page
        // sends it as the model wrote it ({"feed_item": ...}) or as the bare record.
        // An item that is not a valid feed record is refused here: the manager
        // would take the tool's default build in its place.
        const QJsonValue feedItem
            = item->contains("feed_item") ? item->value("feed_item") : QJsonValue(*item);
        if (!ApplicationManagerModelJSON::readRemoteFeedItemJSON(QJsonObject { { "feed_item", feedItem } })
                 .isValid()) {
            reply(Error(QStringLiteral("Argument \"item\" holds no valid feed item")));
            return;
        }
        QJsonObject installOptions = *options;
        installOptions.insert("item", QJsonObject { { "feed_item", feedItem } });
        manager->installApplication(*entry, installOptions, answerWhenDone(reply));
    });
    api->addMethod("uninstallApplication", onTool(manager, &M::uninstallApplication));
    api->addMethod("updateApplication", onTool(manager, &M::updateApplication));
    api->addMethod("updateLocalApplication", onTool(manager, &M::updateLocalApplication));
    api->addMethod("rollbackApplication", onTool(manager, &M::rollbackApplication));
    api->addMethod("downgradeApplication", onTool(manager, &M::downgradeApplication));
    api->addMethod("skipUpdate", onTool(manager, &M::skipDefaultUpdateItem));
    api->addMethod("openUserVmOptionsFile", onTool(manager, &M::openUserVmOptionsFile));

    const auto item = [](const ApiArguments &arguments) { return optionalObject(arguments, "item"); };
    const auto settings = [](const ApiArguments &arguments) { return arguments.object("settings"); };
    api->addMethod("activateApplication", [manager, item](const QJsonObject &request, const Reply &reply) {
        // "project_path" (optional) opens that folder with the tool, known to the recent projects or not.
        const ApiArguments arguments(request);
        const Result<QString> project = optionalString(arguments, "project_path");
        const Result<QJsonObject> entry = tool(arguments);
        if (!project || !entry || project->isEmpty()) {
            if (!project)
                reply(project.toError());
            else
                onToolWith<QJsonObject>(manager, item, &M::activateApplication)(request, reply);
            return;
        }
        // An installed entry's key is "local-<application type>-<channel id>".
        const QString type = entry->value(QStringLiteral("feed_item")).toObject().value(QStringLiteral("id")).toString();
        const QString prefix = QStringLiteral("local-") + type + QLatin1Char('-');
        const QString key = entry->value(QStringLiteral("key")).toString();
        if (type.isEmpty() || !key.startsWith(prefix)) {
            reply(Error(QStringLiteral("Argument \"tool\" names no installed tool")));
            return;
        }
        QUrlQuery query;
        query.addQueryItem(QStringLiteral("tool"), type);
        query.addQueryItem(QStringLiteral("channel"), key.mid(prefix.size()));
        query.addQueryItem(QStringLiteral("project"), *project);
        QUrl url(QStringLiteral("hangar://activate"));
        url.setQuery(query);
        manager->activateProtocol(url, answerWhenDone(reply));
    });
    api->addMethod("renameApplication",
        onToolWith<QString>(
            manager, [](const ApiArguments &arguments) { return arguments.string("name"); },
            &M::renameApplication));
    api->addMethod("applySettingsModel", onToolWith<QJsonObject>(manager, settings, &M::applySettingsModel));
    api->addMethod(
        "saveChannelSettings", onToolWith<QJsonObject>(manager, settings, &M::saveChannelSettings));
    api->addMethod("reorderSubitems",
        onToolWith<QJsonArray>(
            manager, [](const ApiArguments &arguments) { return arguments.array("subitems"); },
            &M::reorderSubitems));
    api->addMethod("reorderLocalTools", reorder(manager, false));
    api->addMethod("reorderManuallyInstalledTools", reorder(manager, true));

    api->addMethod("updateAllInstalledApplications", [manager](const QJsonObject &, const Reply &reply) {
        manager->updateAllInstalledApplications(answerWhenDone(reply));
    });
    api->addMethod("purgeOldVersions", [manager](const QJsonObject &, const Reply &reply) {
        manager->purgeOldVersions(true, answerWhenDone(reply));
    });
    api->addMethod("projects:open", [manager](const QJsonObject &request, const Reply &reply) {
        const ApiArguments arguments(request);
        const Result<QJsonObject> project = arguments.object("project");
        const Result<QJsonObject> openItem = optionalObject(arguments, "item");
        if (!project || !openItem) {
            reply(Error(joinErrors(collectErrors(project, openItem))));
            return;
        }
        manager->openProject(*project, *openItem, answerWhenDone(reply));
    });
    api->addImmediateMethod("getApplicationStatuses", [manager](const QJsonObject &) -> Result<QString> {
        return QString::fromUtf8(
            QJsonDocument(manager->getApplicationStatuses()).toJson(QJsonDocument::Compact));
    });
    // Answered once the download has ended and the model is rebuilt, so that a client (the
    // command line, a Retry button) knows the list it reads next is the fresh one.
    api->addMethod("updateFeed", [manager](const QJsonObject &, const Reply &reply) {
        auto connection = std::make_shared<QMetaObject::Connection>();
        *connection = QObject::connect(manager, &ApplicationManager::feedRefreshFinished, manager, [reply, connection] {
            QObject::disconnect(*connection);
            reply(QString());
        });
        manager->scheduleApplicationsListRefresh(ModelUpdateReason::UserRequest);
    });

    QObject::connect(manager, &ApplicationManager::refreshApplicationsList, api,
        [api](const QJsonObject &model) { api->apiSignalInternal("refreshApplicationsList", model); });
    QObject::connect(manager, &ApplicationManager::firstLaunchFailed, api,
        [api](const QJsonObject &failure) { api->apiSignalInternal("firstLaunchFailed", failure); });
}
