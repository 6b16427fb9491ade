#include "api/ApiEnvelope.h"

#include "api/SelfApi.h"
#include "model/ApplicationManagerModelJSON.h"

#include <QJsonDocument>

namespace {

QString compact(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

// The method named by a query text, when it is a request object at all.
QString queryMethod(const QString &query)
{
    const QJsonDocument document = QJsonDocument::fromJson(query.toUtf8());
    return document.isObject() ? document.object().value(QStringLiteral("method")).toString() : QString();
}

} // namespace

void ApiEnvelope::handleFrame(SelfApi *api, const QString &frame, const Send &send)
{
    const QJsonDocument document = QJsonDocument::fromJson(frame.toUtf8());
    const QJsonObject envelope = document.object();
    const QJsonValue id = envelope.value(QStringLiteral("id"));
    const QJsonValue query = envelope.value(QStringLiteral("query"));
    const bool idReadable = id.isDouble() || id.isString();
    if (!document.isObject() || !idReadable || !query.isString()) {
        send(compact(QJsonObject { { "id", idReadable ? id : QJsonValue() }, { "ok", false },
            { "error", "Expected {\"id\": N, \"query\": \"<request JSON text>\"}" } }));
        return;
    }

    const bool lateReady = api->isReady() && queryMethod(query.toString()) == QLatin1String("apiReady");
    api->handleQuery(query.toString(), [api, send, id, lateReady](const Result<QString> &answer) {
        if (lateReady) {
            const QJsonObject latest = api->latestStatePayloads();
            for (auto it = latest.begin(); it != latest.end(); ++it)
                send(eventFrame(it.key(), it.value().toObject()));
        }
        QJsonObject reply { { "id", id }, { "ok", answer.isSuccessful() } };
        if (answer)
            reply.insert(QStringLiteral("answer"), *answer);
        else
            reply.insert(QStringLiteral("error"), answer.error());
        send(compact(reply));
    });
}

QString ApiEnvelope::eventFrame(const QString &name, const QJsonObject &payload)
{
    QJsonObject event = payload;
    event.insert(QStringLiteral("signal"), name);
    // In the model document's own key order, which the page may rely on.
    return QString::fromUtf8(ApplicationManagerModelJSON::toOrderedJson(event));
}
