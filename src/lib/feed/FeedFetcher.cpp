#include "feed/FeedFetcher.h"

#include "net/DownloadSession.h"

#include <QBuffer>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QUrl>

namespace {

QString httpDate(const QDateTime &time)
{
    return QLocale::c().toString(time.toUTC(), QStringLiteral("ddd, dd MMM yyyy hh:mm:ss"))
        + QStringLiteral(" GMT");
}

FeedFetchOutcome fetchFile(const QUrl &url, const Option<QString> &ifModifiedSince)
{
    FeedFetchOutcome outcome;
    const QString path = url.toLocalFile();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        outcome.error = "Cannot open " + path + ": " + file.errorString();
        return outcome;
    }
    outcome.lastModified = httpDate(QFileInfo(file).lastModified());
    if (ifModifiedSince && *ifModifiedSince == outcome.lastModified) {
        outcome.notModified = true;
        return outcome;
    }
    if (file.size() > FeedFetcher::MaxFeedDownloadSize) {
        outcome.error
            = "File size exceeds limit " + QString::number(FeedFetcher::MaxFeedDownloadSize) + " bytes";
        return outcome;
    }
    outcome.data = file.readAll();
    if (file.error() != QFileDevice::NoError)
        outcome.error = "Cannot read " + path + ": " + file.errorString();
    return outcome;
}

} // namespace

namespace FeedFetcher {

bool requiresLastModified(const QString &url)
{
    return url.startsWith(QLatin1String("http"));
}

FeedFetchOutcome fetch(DownloadSession *session, const QString &url, const Option<QString> &ifModifiedSince,
    ActionProgress *progress)
{
    const QUrl parsed(url);
    if (parsed.isLocalFile())
        return fetchFile(parsed, ifModifiedSince);

    FeedFetchOutcome outcome;
    QBuffer buffer(&outcome.data);
    buffer.open(QIODevice::WriteOnly);
    const DownloadResult result
        = session->get(parsed, None, &buffer, MaxFeedDownloadSize, progress, ifModifiedSince);
    buffer.close();
    if (result.isError()) {
        outcome.error = result.error();
        outcome.data.clear();
        return outcome;
    }
    outcome.notModified = result.isNotModified();
    outcome.lastModified = result.lastModified();
    return outcome;
}

} // namespace FeedFetcher
