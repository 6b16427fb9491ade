#pragma once

#include "base/Option.h"
#include "net/DownloadResult.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QSslError>
#include <QUrl>
#include <functional>

class ActionProgress;
class QEventLoop;
class QIODevice;
class QNetworkReply;
class QTimer;

// One HTTP request in flight. exec() blocks the calling (worker) thread in a local event loop until
// the reply finishes, streaming the body straight into the output device as it arrives: nothing is
// buffered beyond the reply's read buffer. Cancellation is polled on every data arrival and every
// 300 ms while waiting.
class DownloadAction : public QObject
{
    Q_OBJECT
public:
    // Runs once, before the first byte is written, with the reply's headers available. A non-empty
    // return fails the request with that text and nothing is written (used by range requests to
    // refuse a response that would not continue the file).
    using HeaderCheck = std::function<QString(QNetworkReply *)>;
    // Sees every chunk right after it is written, in order.
    using ChunkObserver = std::function<void(const QByteArray &)>;

    // `expectedSize` is a limit on how many bytes may be written (negative: no limit).
    // `expectedStatus`, when given, is the only HTTP status accepted. `description` names the
    // request in the log in place of the URL (e.g. to keep query secrets out of it).
    DownloadAction(const QUrl &url, QIODevice *out, qint64 expectedSize, ActionProgress *progress,
        QNetworkReply *reply, const Option<int> &expectedStatus = None,
        const Option<QString> &description = None);
    ~DownloadAction() override;

    void setHeaderCheck(HeaderCheck check) { m_headerCheck = std::move(check); }
    void setChunkObserver(ChunkObserver observer) { m_onWritten = std::move(observer); }

    DownloadResult exec();

signals:
    void downloadCompleted();

private slots:
    void replyError(int code);
    void replySslErrors(const QList<QSslError> &errors);
    void replyReadyRead();
    void replyFinished();
    void pollCancellation();

private:
    void readToEnd();
    void fail(const QString &message, bool retriable = false);
    void abortReply();
    bool checkCancelled();
    bool bodyIsPayload();
    bool isTruncated(int status) const;

    QUrl m_url;
    QString m_name;
    QIODevice *m_out;
    qint64 m_expectedSize;
    ActionProgress *m_progress;
    QNetworkReply *m_reply;
    Option<int> m_expectedStatus;
    HeaderCheck m_headerCheck;
    ChunkObserver m_onWritten;
    bool m_headersChecked = false;
    bool m_finished = false;
    QByteArray m_errorBody; // the first part of a non-payload response body, for the log
    DownloadResult m_result;
    QEventLoop *m_loop = nullptr;
    QTimer *m_pollTimer = nullptr;
};
