#include "api/HttpRequestHead.h"

#include <QUrl>

namespace {

bool isTokenChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
        || QByteArray("!#$%&'*+-.^_`|~").contains(c);
}

bool isToken(const QByteArray &text)
{
    if (text.isEmpty())
        return false;
    for (char c : text)
        if (!isTokenChar(c))
            return false;
    return true;
}

bool hasControlCharacters(const QByteArray &text)
{
    for (char c : text)
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f)
            return true;
    return false;
}

} // namespace

int HttpRequestHead::headLength(const QByteArray &data)
{
    const int crlf = data.indexOf("\r\n\r\n");
    const int lf = data.indexOf("\n\n");
    if (crlf < 0 && lf < 0)
        return 0;
    if (crlf >= 0 && (lf < 0 || crlf + 2 <= lf))
        return crlf + 4;
    return lf + 2;
}

Result<HttpRequestHead> HttpRequestHead::parse(const QByteArray &head)
{
    if (head.size() > MaxHeadSize)
        return Error(QStringLiteral("Request head is too large"));
    QList<QByteArray> lines = head.split('\n');
    for (QByteArray &line : lines)
        if (line.endsWith('\r'))
            line.chop(1);
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    if (lines.isEmpty())
        return Error(QStringLiteral("Empty request"));

    const QList<QByteArray> requestLine = lines.first().split(' ');
    if (requestLine.size() != 3 || !isToken(requestLine[0]) || !requestLine[2].startsWith("HTTP/1."))
        return Error(QStringLiteral("Malformed request line"));
    const QByteArray target = requestLine[1];
    if (!target.startsWith('/') || hasControlCharacters(target))
        return Error(QStringLiteral("Request target must be a path"));

    HttpRequestHead request;
    request.m_method = requestLine[0];
    const int question = target.indexOf('?');
    const QByteArray rawPath = question < 0 ? target : target.left(question);
    request.m_path = QUrl::fromPercentEncoding(rawPath);
    if (question >= 0)
        request.m_query = QUrlQuery(QString::fromLatin1(target.mid(question + 1)));

    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray &line = lines[i];
        if (line.isEmpty())
            return Error(QStringLiteral("Malformed header block"));
        if (line.startsWith(' ') || line.startsWith('\t'))
            return Error(QStringLiteral("Folded header lines are not accepted"));
        const int colon = line.indexOf(':');
        const QByteArray name = colon < 0 ? QByteArray() : line.left(colon).toLower();
        if (!isToken(name))
            return Error(QStringLiteral("Malformed header field"));
        const QByteArray value = line.mid(colon + 1).trimmed();
        if (hasControlCharacters(value))
            return Error(QStringLiteral("Malformed header value"));
        if (name == "cookie" && request.m_headers.contains(name))
            request.m_headers[name] += "; " + value;
        else if (!request.m_headers.contains(name))
            request.m_headers.insert(name, value);
    }
    return request;
}

Option<QByteArray> HttpRequestHead::cookie(const QByteArray &name) const
{
    const QList<QByteArray> pairs = header("cookie").split(';');
    for (const QByteArray &pair : pairs) {
        const int equals = pair.indexOf('=');
        if (equals > 0 && pair.left(equals).trimmed() == name)
            return pair.mid(equals + 1).trimmed();
    }
    return None;
}

bool HttpRequestHead::isWebSocketUpgrade() const
{
    if (header("upgrade").toLower() != "websocket")
        return false;
    const QList<QByteArray> connection = header("connection").toLower().split(',');
    for (const QByteArray &option : connection)
        if (option.trimmed() == "upgrade")
            return true;
    return false;
}
