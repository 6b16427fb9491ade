#include "feed/FeedFetcher.h"

#include "base/BoundedFileReader.h"
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
    const QFileInfo info(path);
    if (!info.exists()) {
        outcome.error = "Cannot open " + path + ": No such file or directory";
        return outcome;
    }
    outcome.lastModified = httpDate(info.lastModified());
    if (ifModifiedSince && *ifModifiedSince == outcome.lastModified && info.isFile()) {
        outcome.notModified = true;
        return outcome;
    }
    // A regular file only, read non-blocking and counted as it arrives: a FIFO, a
    // device or a /proc file named as a feed must neither hang nor flood the update.
    const Result<QByteArray> data = BoundedFileReader::read(path, FeedFetcher::MaxFeedDownloadSize);
    if (!data) {
        outcome.error = data.error();
        return outcome;
    }
    outcome.data = *data;
    return outcome;
}

} // namespace

namespace FeedFetcher {

bool isFollowableInclude(const QString &url)
{
    const QString scheme = QUrl(url).scheme().toLower();
    return scheme == QLatin1String("http") || scheme == QLatin1String("https");
}

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
