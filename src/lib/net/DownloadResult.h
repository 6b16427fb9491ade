#pragma once

#include "base/Result.h"

#include <QByteArray>
#include <QMap>
#include <QString>

// The outcome of one HTTP request: success or an error text, the HTTP status, and the response
// headers that resuming a download relies on ("Content-Type", "ETag", "Last-Modified",
// "Accept-Ranges", "Content-Range").
//
// A conditional request answered with 304 is a success of its own kind: isNotModified() is true and
// nothing was written to the output device.
class DownloadResult
{
public:
    static const QString CANCELLED_MESSAGE; // "Operation cancelled"

    DownloadResult() = default;
    static DownloadResult success() { return DownloadResult(); }
    static DownloadResult failure(const QString &message);
    static DownloadResult cancelled();

    bool isSuccessful() const { return !m_failed; }
    bool isError() const { return m_failed; }
    bool isCancelled() const { return m_failed && m_error == CANCELLED_MESSAGE; }
    const QString &error() const { return m_error; }

    // Turns the result into an error with `message` unless it already holds one.
    DownloadResult &tryFail(const QString &message);
    // A failure that a later attempt may cure (a broken or stalled connection, a server error);
    // getFile resumes only after such failures.
    bool isRetriable() const { return m_failed && m_retriable; }
    void setRetriable(bool retriable) { m_retriable = retriable; }

    // HTTP status of the response, 0 when none was received.
    int httpStatus() const { return m_httpStatus; }
    void setHttpStatus(int status) { m_httpStatus = status; }
    bool isNotModified() const { return !m_failed && m_httpStatus == 304; }

    // A recorded response header by name (case-insensitive), empty when absent.
    QByteArray header(const QByteArray &name) const;
    void setHeader(const QByteArray &name, const QByteArray &value);
    bool hasHeader(const QByteArray &name) const;
    QString contentType() const { return QString::fromLatin1(header("Content-Type")); }
    QString eTag() const { return QString::fromLatin1(header("ETag")); }
    QString lastModified() const { return QString::fromLatin1(header("Last-Modified")); }
    QString acceptRanges() const { return QString::fromLatin1(header("Accept-Ranges")); }
    QString contentRange() const { return QString::fromLatin1(header("Content-Range")); }

    // Bytes written to the output device by this request.
    qint64 bytesWritten() const { return m_bytesWritten; }
    void setBytesWritten(qint64 n) { m_bytesWritten = n; }

    Result<void> toResult() const;

private:
    bool m_failed = false;
    bool m_retriable = false;
    QString m_error;
    int m_httpStatus = 0;
    qint64 m_bytesWritten = 0;
    QMap<QByteArray, QByteArray> m_headers; // keys lower-cased
};
