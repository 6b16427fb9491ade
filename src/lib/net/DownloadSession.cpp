#include "net/DownloadSession.h"

#include "net/ActionProgress.h"
#include "net/DownloadAccessManagerHolder.h"
#include "net/DownloadAction.h"
#include "settings/SettingsManager.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkProxyFactory>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QUrlQuery>

namespace {
// How much the network layer may hold for us before it stops reading the socket: large enough
// to keep loopback transfers at full speed, small enough that nothing big is ever held in memory.
constexpr qint64 kReadBufferSize = 4 * 1024 * 1024;

QString formEncode(const QMap<QString, QString> &form)
{
    QUrlQuery query;
    for (auto it = form.begin(); it != form.end(); ++it)
        query.addQueryItem(QString::fromLatin1(QUrl::toPercentEncoding(it.key())),
            QString::fromLatin1(QUrl::toPercentEncoding(it.value())));
    return query.query(QUrl::FullyEncoded);
}
} // namespace

QVector<int> DownloadSession::defaultBackoffSchedule()
{
    return { 500, 2000, 7000, 22000, 22000, 82000 };
}

DownloadSession::DownloadSession(SettingsManager *settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_holder(new DownloadAccessManagerHolder(settings, this))
    , m_schedule(defaultBackoffSchedule())
{
    // Without a proxy in the settings, requests follow the desktop's proxy configuration.
    QNetworkProxyFactory::setUseSystemConfiguration(true);
    connect(m_holder, &DownloadAccessManagerHolder::proxyCredentialsRequired, this,
        &DownloadSession::proxyCredentialsRequired);
    // The settings' default (five minutes) applies when the key is absent, so a server that
    // stalls without closing can never hang a worker for good.
    if (m_settings)
        m_timeoutMs = m_settings->getSettings().getNetworkDownloadTimeout();
    qInfo().noquote() << "Download timeout is set to"
                      << (m_timeoutMs ? QString::number(*m_timeoutMs) + " ms" : QStringLiteral("none"));
    if (m_settings) {
        connect(m_settings, &SettingsManager::settingsChanged, this,
            [this](const SelfSettings &, const SelfSettings &now) {
                const Option<int> timeout = now.getNetworkDownloadTimeout();
                QMutexLocker lock(&m_pauseMutex);
                if (timeout != m_timeoutMs) {
                    m_timeoutMs = timeout;
                    qInfo().noquote()
                        << "Download timeout is set to"
                        << (timeout ? QString::number(*timeout) + " ms" : QStringLiteral("none"));
                }
            });
    }
}

DownloadSession::~DownloadSession() = default;

void DownloadSession::setBackoffSchedule(const QVector<int> &scheduleMs, int sliceMs)
{
    QMutexLocker lock(&m_pauseMutex);
    m_schedule = scheduleMs.isEmpty() ? defaultBackoffSchedule() : scheduleMs;
    m_sliceMs = qMax(1, sliceMs);
}

QVector<int> DownloadSession::pausesTaken() const
{
    QMutexLocker lock(&m_pauseMutex);
    return m_pausesTaken;
}

bool DownloadSession::lastPauseInterrupted() const
{
    QMutexLocker lock(&m_pauseMutex);
    return m_lastPauseInterrupted;
}

QNetworkRequest DownloadSession::makeRequest(const QUrl &url, const Option<QString> &contentType) const
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::UserAgentHeader,
        QStringLiteral("Hangar/%1").arg(QStringLiteral(HANGAR_BUILD_VERSION)));
    if (contentType)
        request.setRawHeader("Accept", contentType->toUtf8());
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    // Packages are already compressed; a transparent gzip layer would only defeat byte ranges.
    request.setRawHeader("Accept-Encoding", "identity");
    Option<int> timeout;
    {
        QMutexLocker lock(&m_pauseMutex);
        timeout = m_timeoutMs;
    }
    if (timeout && *timeout > 0)
        request.setTransferTimeout(*timeout);
    return request;
}

DownloadResult DownloadSession::run(const QUrl &url, QIODevice *out, qint64 expectedSize,
    ActionProgress *progress, QNetworkReply *reply, const ChunkObserver &onWritten,
    const std::function<QString(QNetworkReply *)> &headerCheck)
{
    reply->setReadBufferSize(kReadBufferSize);
    DownloadAction action(url, out, expectedSize, progress, reply);
    action.setChunkObserver(onWritten);
    action.setHeaderCheck(headerCheck);
    return action.exec();
}

DownloadResult DownloadSession::getInternal(const QUrl &url, const Option<QString> &contentType,
    QIODevice *out, qint64 expectedSize, ActionProgress *progress, const Option<QString> &ifModifiedSince,
    const ChunkObserver &onWritten)
{
    if (progress && progress->isCancelled())
        return DownloadResult::cancelled();
    QNetworkRequest request = makeRequest(url, contentType);
    if (ifModifiedSince && !ifModifiedSince->isEmpty())
        request.setRawHeader("If-Modified-Since", ifModifiedSince->toLatin1());
    QNetworkReply *reply = m_holder->networkManager()->get(request);
    return run(url, out, expectedSize, progress, reply, onWritten);
}

DownloadResult DownloadSession::get(const QUrl &url, const Option<QString> &contentType, QIODevice *out,
    qint64 expectedSize, ActionProgress *progress, const Option<QString> &ifModifiedSince)
{
    return getInternal(url, contentType, out, expectedSize, progress, ifModifiedSince, {});
}

DownloadResult DownloadSession::post(const QUrl &url, const Option<QString> &contentType, QIODevice *out,
    qint64 expectedSize, ActionProgress *progress, const QJsonObject &body)
{
    if (progress && progress->isCancelled())
        return DownloadResult::cancelled();
    QNetworkRequest request = makeRequest(url, contentType);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    const QByteArray data = QJsonDocument(body).toJson(QJsonDocument::Compact);
    QNetworkReply *reply = m_holder->networkManager()->post(request, data);
    return run(url, out, expectedSize, progress, reply, {});
}

DownloadResult DownloadSession::post(const QUrl &url, const Option<QString> &contentType, QIODevice *out,
    qint64 expectedSize, ActionProgress *progress, const QMap<QString, QString> &form)
{
    if (progress && progress->isCancelled())
        return DownloadResult::cancelled();
    QNetworkRequest request = makeRequest(url, contentType);
    request.setHeader(
        QNetworkRequest::ContentTypeHeader, QStringLiteral("application/x-www-form-urlencoded"));
    QNetworkReply *reply = m_holder->networkManager()->post(request, formEncode(form).toUtf8());
    return run(url, out, expectedSize, progress, reply, {});
}

DownloadResult DownloadSession::getFromOffset(const QUrl &url, qint64 offset, QIODevice *out,
    qint64 remainingSize, ActionProgress *progress, const ChunkObserver &onWritten)
{
    return getFromOffsetChecked(url, offset, out, remainingSize, progress, onWritten, {});
}

DownloadResult DownloadSession::getFromOffsetChecked(const QUrl &url, qint64 offset, QIODevice *out,
    qint64 remainingSize, ActionProgress *progress, const ChunkObserver &onWritten,
    const std::function<QString(QNetworkReply *)> &extraCheck)
{
    if (progress && progress->isCancelled())
        return DownloadResult::cancelled();
    QNetworkRequest request = makeRequest(url, None);
    request.setRawHeader("Range", "bytes=" + QByteArray::number(offset) + "-");
    QNetworkReply *reply = m_holder->networkManager()->get(request);

    const QByteArray expectedPrefix = "bytes " + QByteArray::number(offset) + "-";
    // Checked before the first byte is written, so a server that ignores the range (and sends the
    // whole file from its start) cannot corrupt what is already on disk.
    auto check = [expectedPrefix, extraCheck](QNetworkReply *r) -> QString {
        if (extraCheck) {
            const QString problem = extraCheck(r);
            if (!problem.isEmpty())
                return problem;
        }
        const QByteArray range = r->rawHeader("Content-Range").trimmed();
        if (range.isEmpty())
            return QStringLiteral("Content-Range was not returned");
        if (!range.startsWith(expectedPrefix))
            return "Content-Range is " + QString::fromLatin1(range) + ", expected to start with "
                + QString::fromLatin1(expectedPrefix);
        // "bytes <first>-<last>/<length or *>"
        const QByteArray rest = range.mid(6);
        const int dash = rest.indexOf('-');
        const int slash = rest.indexOf('/');
        bool okFirst = false, okLast = false;
        const qint64 first = rest.left(dash).toLongLong(&okFirst);
        const qint64 last = rest.mid(dash + 1, slash - dash - 1).toLongLong(&okLast);
        bool okLength = true;
        const QByteArray lengthText = slash < 0 ? QByteArray() : rest.mid(slash + 1);
        const qint64 length = lengthText == "*" ? -1 : lengthText.toLongLong(&okLength);
        if (dash < 0 || slash < dash || !okFirst || !okLast || !okLength || last < first
            || (length >= 0 && last >= length))
            return QStringLiteral("Invalid Content-Range returned");
        return QString();
    };
    DownloadResult result = run(url, out, remainingSize, progress, reply, onWritten, check);
    if (result.isSuccessful() && result.httpStatus() != 206 && result.bytesWritten() == 0
        && result.contentRange().isEmpty())
        result.tryFail(QStringLiteral("Content-Range was not returned"));
    return result;
}

bool DownloadSession::sleepPolling(int pauseMs, ActionProgress *progress)
{
    int slice;
    {
        QMutexLocker lock(&m_pauseMutex);
        slice = m_sliceMs;
        m_pausesTaken.append(pauseMs);
        m_lastPauseInterrupted = false;
    }
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (progress && progress->isCancelled()) {
            QMutexLocker lock(&m_pauseMutex);
            m_lastPauseInterrupted = timer.elapsed() < pauseMs;
            return false;
        }
        const qint64 left = pauseMs - timer.elapsed();
        if (left <= 0)
            return true;
        QThread::msleep(static_cast<unsigned long>(qMin<qint64>(left, slice)));
    }
}

Result<void> DownloadSession::getFile(const QUrl &url, const QString &path, qint64 expectedSize,
    ActionProgress *progress, ChunkObserver onWritten)
{
    QFile file(path);
    const bool opened = file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    qInfo().noquote() << "Temporary file at" << path << "open:" << file.isOpen()
                      << "writable:" << file.isWritable();
    if (!opened)
        return Error("Could not open temporary file: " + file.errorString());

    DownloadResult result = getInternal(url, None, &file, expectedSize, progress, None, onWritten);
    // The headers of the first response that carried them: every later piece must match them.
    QString contentType, eTag, lastModified, acceptRanges;

    int attempts = 0;
    qint64 previousPosition = 0;
    QVector<int> schedule;
    {
        QMutexLocker lock(&m_pauseMutex);
        schedule = m_schedule;
    }
    for (;;) {
        // Only the headers of an answer carrying the file count: an error page from a proxy or an
        // overloaded server describes itself, not the file.
        const bool describesFile = result.httpStatus() >= 200 && result.httpStatus() < 300;
        auto compare = [describesFile](QString &known, const QString &now, const char *refusal) -> QString {
            if (!describesFile || now.isEmpty())
                return QString(); // no response this time (e.g. the connection was refused)
            if (known.isEmpty()) {
                known = now;
                return QString();
            }
            return known == now ? QString() : QString::fromLatin1(refusal);
        };
        for (const QString &refusal :
            { compare(contentType, result.contentType(), "Content-Type changed. Download cannot be resumed"),
                compare(eTag, result.eTag(), "ETag changed. Download cannot be resumed"),
                compare(lastModified, result.lastModified(),
                    "Last-Modified changed. Download cannot be resumed") }) {
            if (!refusal.isEmpty()) {
                qWarning().noquote() << "DownloadSession:" << refusal << url.toDisplayString();
                return Error(refusal);
            }
        }
        if (acceptRanges.isEmpty() && describesFile)
            acceptRanges = result.acceptRanges();

        if (result.isSuccessful()) {
            if (!file.flush())
                return Error("Unable to write to disk: " + file.errorString());
            file.close();
            if (file.error() != QFileDevice::NoError)
                return Error("Unable to write to disk: " + file.errorString());
            return Result<void>::success();
        }
        // Only a broken, stalled or refused connection (or a server error) may be cured by trying
        // again; a refusal, a full disk or a cancellation is final.
        if (!result.isRetriable())
            return result.toResult();

        const qint64 position = file.pos();
        const bool anyResponse
            = !contentType.isEmpty() || !eTag.isEmpty() || !lastModified.isEmpty() || !acceptRanges.isEmpty();
        if (position > 0 || anyResponse) {
            if (!acceptRanges.contains(QLatin1String("bytes"), Qt::CaseInsensitive)) {
                qWarning().noquote() << "Cannot resume download. SupportRanges: " + acceptRanges;
                return Error("HTTP Ranges are not supported");
            }
            if (eTag.isEmpty() && lastModified.isEmpty()) {
                qWarning().noquote() << "Cannot resume download. No ETag and Last-Modified headers";
                return Error("HTTP Range headers are missing");
            }
        }

        int pause;
        if (position != previousPosition) {
            attempts = 0;
            pause = schedule.value(0, 500);
        } else {
            pause = schedule.value(qMin(attempts, schedule.size() - 1), 82000);
        }
        previousPosition = position;
        if (!sleepPolling(pause, progress)) {
            qInfo().noquote() << "Downloader: download cancelled for" << url.toDisplayString();
            return Error(DownloadResult::CANCELLED_MESSAGE);
        }
        qInfo().noquote() << "DownloadSession: resuming download of"
                          << url.toDisplayString() + ", pos=" + QString::number(position) + ", Content-Type:"
                          << contentType + ", ETag: " + eTag + ", Last-Modified:" << lastModified;
        const qint64 remaining = expectedSize < 0 ? -1 : expectedSize - position;
        // The validators are compared before the first byte is appended: a changed file on the
        // server must not be spliced onto the start of the old one.
        auto sameFile = [contentType, eTag, lastModified](QNetworkReply *r) -> QString {
            auto differs = [](const QString &known, const QByteArray &now) {
                return !known.isEmpty() && !now.isEmpty() && known != QString::fromLatin1(now);
            };
            if (differs(contentType, r->rawHeader("Content-Type")))
                return QStringLiteral("Content-Type changed. Download cannot be resumed");
            if (differs(eTag, r->rawHeader("ETag")))
                return QStringLiteral("ETag changed. Download cannot be resumed");
            if (differs(lastModified, r->rawHeader("Last-Modified")))
                return QStringLiteral("Last-Modified changed. Download cannot be resumed");
            return QString();
        };
        result = getFromOffsetChecked(url, position, &file, remaining, progress, onWritten, sameFile);
        ++attempts;
        if (attempts >= kMaxAttemptsWithoutProgress && result.isError()) {
            qWarning().noquote() << "DownloadSession: giving up on" << url.toDisplayString() << "after"
                                 << attempts << "attempts without progress:" << result.error();
            return result.toResult();
        }
    }
}
