#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "net/DownloadResult.h"

#include <QJsonObject>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QVector>
#include <functional>

class ActionProgress;
class DownloadAccessManagerHolder;
class QIODevice;
class QNetworkReply;
class QNetworkRequest;
class SettingsManager;

// The one HTTP client of the program. Every method blocks the calling worker thread until the
// transfer ends (calling from the UI thread works but is logged at critical level) and may be called
// from several threads at once; each thread gets its own network access manager.
//
// `expectedSize` is always a limit on how many bytes may be written: more fails with "File size
// exceeds limit %1 bytes". A negative size means no limit. Every method accepts a null progress.
//
// The download time-out ("network" → "download_timeout", milliseconds) is applied to each request as
// a transfer inactivity time-out: a transfer that receives nothing for that long fails, and getFile
// resumes it like a broken connection.
class DownloadSession : public QObject
{
    Q_OBJECT
public:
    using ChunkObserver = std::function<void(const QByteArray &chunk)>;

    // Pauses between resumption attempts, chosen by the count of attempts without progress
    // (the last one repeats), and the slice in which they are slept while polling cancellation.
    static QVector<int> defaultBackoffSchedule(); // 500, 2000, 7000, 22000, 22000, 82000 ms
    static constexpr int kDefaultSleepSliceMs = 300;
    static constexpr int kMaxAttemptsWithoutProgress = 20;

    explicit DownloadSession(SettingsManager *settings, QObject *parent = nullptr);
    ~DownloadSession() override;

    // Tests shorten the back-off: `scheduleMs` indexed by attempts without progress.
    void setBackoffSchedule(const QVector<int> &scheduleMs, int sliceMs = kDefaultSleepSliceMs);
    // Every pause actually slept by getFile (planned length, ms), in order; for tests.
    QVector<int> pausesTaken() const;
    // Whether the last back-off pause was cut short by a cancellation.
    bool lastPauseInterrupted() const;

    // `contentType`, when given, is sent as "Accept". With `ifModifiedSince` (an HTTP date) the
    // request is conditional: a 304 answer is a successful result with isNotModified() and nothing
    // written.
    DownloadResult get(const QUrl &url, const Option<QString> &contentType, QIODevice *out,
        qint64 expectedSize, ActionProgress *progress, const Option<QString> &ifModifiedSince = None);
    // Sends `body` as "application/json".
    DownloadResult post(const QUrl &url, const Option<QString> &contentType, QIODevice *out,
        qint64 expectedSize, ActionProgress *progress, const QJsonObject &body);
    // Sends `form` as "application/x-www-form-urlencoded".
    DownloadResult post(const QUrl &url, const Option<QString> &contentType, QIODevice *out,
        qint64 expectedSize, ActionProgress *progress, const QMap<QString, QString> &form);
    // Requests the bytes from `offset` on and appends them to `out`. The response must carry a
    // "Content-Range" starting with "bytes <offset>-"; otherwise nothing is written.
    DownloadResult getFromOffset(const QUrl &url, qint64 offset, QIODevice *out, qint64 remainingSize,
        ActionProgress *progress, const ChunkObserver &onWritten = {});

    // Downloads `url` into the file at `path` (created or truncated), resuming with range requests
    // after broken or stalled connections. `onWritten` sees every chunk right after it is written,
    // in file order. On failure the partial file stays where it is.
    Result<void> getFile(const QUrl &url, const QString &path, qint64 expectedSize, ActionProgress *progress,
        ChunkObserver onWritten = {});

    Option<int> downloadTimeoutMs() const { return m_timeoutMs; }

    DownloadAccessManagerHolder *accessManagerHolder() const { return m_holder; }

signals:
    void proxyCredentialsRequired(const QString &proxyHostAndPort);

private:
    QNetworkRequest makeRequest(const QUrl &url, const Option<QString> &contentType) const;
    DownloadResult run(const QUrl &url, QIODevice *out, qint64 expectedSize, ActionProgress *progress,
        QNetworkReply *reply, const ChunkObserver &onWritten,
        const std::function<QString(QNetworkReply *)> &headerCheck = {});
    DownloadResult getInternal(const QUrl &url, const Option<QString> &contentType, QIODevice *out,
        qint64 expectedSize, ActionProgress *progress, const Option<QString> &ifModifiedSince,
        const ChunkObserver &onWritten);
    DownloadResult getFromOffsetChecked(const QUrl &url, qint64 offset, QIODevice *out, qint64 remainingSize,
        ActionProgress *progress, const ChunkObserver &onWritten,
        const std::function<QString(QNetworkReply *)> &extraCheck);
    bool sleepPolling(int pauseMs, ActionProgress *progress);

    SettingsManager *m_settings;
    DownloadAccessManagerHolder *m_holder;
    Option<int> m_timeoutMs;
    QVector<int> m_schedule;
    int m_sliceMs = kDefaultSleepSliceMs;
    mutable QMutex m_pauseMutex;
    QVector<int> m_pausesTaken;
    bool m_lastPauseInterrupted = false;
};
