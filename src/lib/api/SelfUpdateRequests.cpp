#include "api/SelfUpdateRequests.h"

#include "api/ApiArguments.h"
#include "api/SelfApi.h"
#include "manager/ApplicationManager.h"
#include "update/UpdateManager.h"

#include <QJsonDocument>

namespace {

QString toText(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

SelfUpdateRequests::SelfUpdateRequests(
    SelfApi *api, UpdateManager *updateManager, ApplicationManager *applicationManager)
    : QObject(api)
{
    api->addImmediateMethod(QStringLiteral("getSelfUpdateStatus"),
        [updateManager](const QJsonObject &) -> Result<QString> { return toText(updateManager->getStatus()); });
    api->addImmediateMethod(QStringLiteral("updateSelf"), [updateManager](const QJsonObject &) -> Result<QString> {
        const Result<void> started = updateManager->update(true);
        if (started.isError())
            return started.toError();
        return QString();
    });
    api->addMethod(QStringLiteral("setAutoUpdateAllTools"),
        [applicationManager](const QJsonObject &request, const SelfApi::Reply &reply) {
            const Result<bool> enabled = ApiArguments(request).boolean(QStringLiteral("enabled"));
            if (enabled.isError()) {
                reply(enabled.toError());
                return;
            }
            applicationManager->setAutoUpdateAllTools(*enabled, [reply](const Result<void> &result) {
                reply(result.isError() ? Result<QString>(result.toError()) : Result<QString>(QString()));
            });
        });

    // The status is recomputed on the worker that refreshed the feed; events may be raised
    // from any thread.
    connect(updateManager, &UpdateManager::statusChanged, this,
        [api](const QJsonObject &status) { api->apiSignalInternal(QStringLiteral("onSelfUpdateStatusChange"), status); },
        Qt::DirectConnection);
    connect(updateManager, &UpdateManager::updateError, api, &SelfApi::notifyOnHandleApiError);
}
