#include "net/DownloadAction.h"

#include "net/ActionProgress.h"

#include <QCoreApplication>
#include <QDebug>
#include <QEventLoop>
#include <QIODevice>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslCertificate>
#include <QThread>
#include <QTimer>

namespace {
constexpr int kCancellationPollMs = 300;
constexpr int kErrorBodyLogLimit = 1024;

bool isRetriableNetworkError(QNetworkReply::NetworkError code)
{
    switch (code) {
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::TimeoutError:
    case QNetworkReply::OperationCanceledError: // the transfer inactivity time-out ends this way
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::UnknownNetworkError:
    case QNetworkReply::ProxyConnectionClosedError:
    case QNetworkReply::ProxyTimeoutError:
    case QNetworkReply::InternalServerError:
    case QNetworkReply::ServiceUnavailableError:
    case QNetworkReply::UnknownServerError:
    case QNetworkReply::ProtocolFailure:
        return true;
    default:
        return false;
    }
}
} // namespace

DownloadAction::DownloadAction(const QUrl &url, QIODevice *out, qint64 expectedSize, ActionProgress *progress,
    QNetworkReply *reply, const Option<int> &expectedStatus, const Option<QString> &description)
    : m_url(url)
    , m_name(description ? *description : url.toDisplayString())
    , m_out(out)
    , m_expectedSize(expectedSize)
    , m_progress(progress)
    , m_reply(reply)
    , m_expectedStatus(expectedStatus)
{
    connect(m_reply, &QNetworkReply::errorOccurred, this,
        [this](QNetworkReply::NetworkError code) { replyError(int(code)); });
    connect(m_reply, &QNetworkReply::sslErrors, this, &DownloadAction::replySslErrors);
    connect(m_reply, &QNetworkReply::readyRead, this, &DownloadAction::replyReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &DownloadAction::replyFinished);
}

DownloadAction::~DownloadAction()
{
    if (m_reply) {
        m_reply->disconnect(this);
        if (!m_reply->isFinished())
            m_reply->abort();
        // Freed at once (its buffers can be large) when we are on its thread, as exec() leaves us.
        if (m_reply->thread() == QThread::currentThread())
            delete m_reply;
        else
            m_reply->deleteLater();
    }
}

DownloadResult DownloadAction::exec()
{
    if (m_progress && m_progress->isCancelled()) {
        abortReply();
        return DownloadResult::cancelled();
    }
    qInfo().noquote() << "Started request" << m_name;
    if (QCoreApplication::instance() && QThread::currentThread() == QCoreApplication::instance()->thread())
        qCritical().noquote() << "Downloading" << m_name << "from UI Thread!";

    if (!m_finished) {
        QEventLoop loop;
        m_loop = &loop;
        QTimer poll;
        m_pollTimer = &poll;
        connect(&poll, &QTimer::timeout, this, &DownloadAction::pollCancellation);
        if (m_progress)
            poll.start(kCancellationPollMs);
        loop.exec(QEventLoop::ExcludeUserInputEvents);
        m_pollTimer = nullptr;
        m_loop = nullptr;
    }
    qInfo().noquote() << "Finished request" << m_name << "size:" << m_result.bytesWritten()
                      << (m_result.isError() ? "error: " + m_result.error() : QString());
    emit downloadCompleted();
    return m_result;
}

void DownloadAction::fail(const QString &message, bool retriable)
{
    if (m_result.isError())
        return;
    m_result.tryFail(message);
    m_result.setRetriable(retriable);
}

void DownloadAction::abortReply()
{
    if (m_reply && !m_reply->isFinished())
        m_reply->abort();
}

bool DownloadAction::checkCancelled()
{
    if (!m_progress || !m_progress->isCancelled())
        return false;
    if (!m_result.isCancelled()) {
        qInfo().noquote() << "Downloader: download cancelled for" << m_name;
        // Cancellation wins over whatever else happened.
        DownloadResult cancelled = DownloadResult::cancelled();
        cancelled.setBytesWritten(m_result.bytesWritten());
        m_result = cancelled;
    }
    abortReply();
    return true;
}

void DownloadAction::pollCancellation()
{
    checkCancelled();
}

bool DownloadAction::bodyIsPayload()
{
    // Error pages and redirect bodies never reach the output device.
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return true; // not HTTP (e.g. file:// in tests)
    const int code = status.toInt();
    return code >= 200 && code < 300;
}

bool DownloadAction::isTruncated(int status) const
{
    if (status < 200 || status >= 300 || status == 204
        || m_reply->operation() == QNetworkAccessManager::HeadOperation)
        return false;
    bool ok = false;
    const qint64 announced = m_reply->rawHeader("Content-Length").trimmed().toLongLong(&ok);
    if (!ok || !m_reply->rawHeader("Content-Encoding").isEmpty())
        return false;
    return m_result.bytesWritten() < announced;
}

void DownloadAction::replyReadyRead()
{
    if (checkCancelled())
        return;
    readToEnd();
}

void DownloadAction::readToEnd()
{
    if (!m_reply || m_result.isError())
        return;
    if (!bodyIsPayload()) {
        const QByteArray body = m_reply->readAll();
        if (m_errorBody.size() < kErrorBodyLogLimit)
            m_errorBody += body.left(kErrorBodyLogLimit - m_errorBody.size());
        return;
    }
    if (!m_headersChecked) {
        m_headersChecked = true;
        if (m_headerCheck) {
            const QString problem = m_headerCheck(m_reply);
            if (!problem.isEmpty()) {
                fail(problem);
                abortReply();
                return;
            }
        }
    }
    for (;;) {
        const qint64 available = m_reply->bytesAvailable();
        if (available <= 0)
            return;
        const QByteArray chunk = m_reply->read(available);
        if (chunk.isEmpty())
            return;
        const qint64 written = m_result.bytesWritten();
        if (m_expectedSize >= 0 && written + chunk.size() > m_expectedSize) {
            fail(QStringLiteral("File size exceeds limit %1 bytes").arg(m_expectedSize));
            abortReply();
            return;
        }
        if (m_out->write(chunk) != chunk.size()) {
            fail("Unable to write to disk: " + m_out->errorString());
            abortReply();
            return;
        }
        m_result.setBytesWritten(written + chunk.size());
        if (m_progress)
            m_progress->advance(chunk.size());
        if (m_onWritten)
            m_onWritten(chunk);
        if (checkCancelled())
            return;
    }
}

void DownloadAction::replyError(int code)
{
    const auto error = QNetworkReply::NetworkError(code);
    qWarning().noquote() << "DownloadAction::replyError:" << m_reply->errorString() << "error code:" << code
                         << "from:" << m_name;
    if (error == QNetworkReply::OperationCanceledError && m_progress && m_progress->isCancelled())
        return; // our own abort after a cancellation
    if (m_result.isError())
        return; // our own abort after a failure
    QString text = m_reply->errorString();
    if (error == QNetworkReply::OperationCanceledError)
        text = "Transfer timed out: " + m_name;
    fail(text, isRetriableNetworkError(error));
}

void DownloadAction::replySslErrors(const QList<QSslError> &errors)
{
    for (const QSslError &e : errors) {
        qWarning().noquote() << "SSL error" << e.errorString() << "for" << m_name;
        if (!e.certificate().isNull())
            qWarning().noquote() << "SSL error certificate:\n" + e.certificate().toText();
    }
}

void DownloadAction::replyFinished()
{
    if (m_finished)
        return;
    m_finished = true;
    if (!checkCancelled() && m_result.isSuccessful())
        readToEnd(); // whatever arrived together with the end

    const int status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    m_result.setHttpStatus(status);
    for (const char *name : { "Content-Type", "ETag", "Last-Modified", "Accept-Ranges", "Content-Range" })
        m_result.setHeader(name, m_reply->rawHeader(name));

    if (m_result.isSuccessful()) {
        if (m_expectedStatus && status != *m_expectedStatus) {
            qWarning().noquote() << "Download Response:" << m_name
                                 << ", response:" << QString::fromUtf8(m_errorBody.left(kErrorBodyLogLimit));
            fail(QStringLiteral("Expected status %1 but was %2").arg(*m_expectedStatus).arg(status));
        } else if (m_reply->error() != QNetworkReply::NoError) {
            fail(m_reply->errorString(), isRetriableNetworkError(m_reply->error()));
        } else if (status != 0 && status != 304 && (status < 200 || status >= 300)) {
            fail(QStringLiteral("Unexpected HTTP status %1").arg(status));
        } else if (isTruncated(status)) {
            // The network layer reports a connection closed mid-body as a normal end; the
            // announced length tells the difference, and a resumption can continue from here.
            fail(QStringLiteral("Connection closed after %1 of %2 bytes from %3")
                     .arg(m_result.bytesWritten())
                     .arg(QString::fromLatin1(m_reply->rawHeader("Content-Length")), m_name),
                true);
        }
    }
    if (m_result.isError() && !m_errorBody.isEmpty())
        qWarning().noquote() << "Download Response:" << m_name
                             << ", response:" << QString::fromUtf8(m_errorBody);
    if (m_loop)
        m_loop->quit();
}
