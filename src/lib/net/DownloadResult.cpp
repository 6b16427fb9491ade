#include "net/DownloadResult.h"

const QString DownloadResult::CANCELLED_MESSAGE = QStringLiteral("Operation cancelled");

DownloadResult DownloadResult::failure(const QString &message)
{
    DownloadResult r;
    r.m_failed = true;
    r.m_error = message;
    return r;
}

DownloadResult DownloadResult::cancelled()
{
    return failure(CANCELLED_MESSAGE);
}

DownloadResult &DownloadResult::tryFail(const QString &message)
{
    if (!m_failed) {
        m_failed = true;
        m_error = message;
    }
    return *this;
}

QByteArray DownloadResult::header(const QByteArray &name) const
{
    return m_headers.value(name.toLower());
}

void DownloadResult::setHeader(const QByteArray &name, const QByteArray &value)
{
    if (value.isEmpty())
        m_headers.remove(name.toLower());
    else
        m_headers.insert(name.toLower(), value);
}

bool DownloadResult::hasHeader(const QByteArray &name) const
{
    return m_headers.contains(name.toLower());
}

Result<void> DownloadResult::toResult() const
{
    if (m_failed)
        return Error(m_error);
    return Result<void>::success();
}
