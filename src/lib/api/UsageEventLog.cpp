#include "api/UsageEventLog.h"

#include "base/WorkerThread.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSemaphore>

namespace {

void append(const QString &path, const QByteArray &line)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    if (QFileInfo(path).size() > UsageEventLog::SizeLimit) {
        QFile::remove(path + ".1");
        QFile::rename(path, path + ".1");
    }
    QFile file(path);
    if (!file.open(QIODevice::Append) || file.write(line) != line.size())
        qWarning().noquote() << "Failed to record usage event in" << path << ":" << file.errorString();
}

} // namespace

UsageEventLog::UsageEventLog(QString path, QObject *parent)
    : QObject(parent)
    , m_path(std::move(path))
    , m_worker(new WorkerThread(QStringLiteral("UsageEvents"), this))
{
}

UsageEventLog::~UsageEventLog() = default;

Result<void> UsageEventLog::record(const QJsonObject &data)
{
    for (const char *key : { "group", "event" }) {
        const QJsonValue value = data.value(QLatin1String(key));
        if (!value.isString() || value.toString().isEmpty())
            return Error(QStringLiteral("Usage event needs a non-empty \"%1\" text").arg(QLatin1String(key)));
    }
    QJsonObject line { { "time", QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs) } };
    for (auto it = data.begin(); it != data.end(); ++it)
        line.insert(it.key(), it.value());
    const QByteArray text = QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n';
    const QString path = m_path;
    m_worker->post([path, text]() { append(path, text); });
    return {};
}

void UsageEventLog::flush()
{
    QSemaphore done;
    m_worker->post([&done]() { done.release(); });
    done.acquire();
}
