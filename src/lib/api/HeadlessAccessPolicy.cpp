#include "api/HeadlessAccessPolicy.h"

#include <QRandomGenerator>

HeadlessAccessPolicy::HeadlessAccessPolicy(QByteArray token, quint16 port)
    : m_token(std::move(token))
    , m_port(port)
{
}

QByteArray HeadlessAccessPolicy::generateToken()
{
    quint32 words[4];
    QRandomGenerator::system()->fillRange(words);
    return QByteArray(reinterpret_cast<const char *>(words), sizeof(words)).toHex();
}

bool HeadlessAccessPolicy::equalsInConstantTime(const QByteArray &a, const QByteArray &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char difference = 0;
    for (int i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

bool HeadlessAccessPolicy::tokenInQuery(const HttpRequestHead &request) const
{
    return request.query().hasQueryItem(QStringLiteral("token"));
}

Result<void> HeadlessAccessPolicy::check(const HttpRequestHead &request) const
{
    if (!hostAllowed(request.header("host")))
        return Error(QStringLiteral("Host not allowed: ") + QString::fromLatin1(request.header("host")));
    if (request.hasHeader("origin") && !originAllowed(request.header("origin")))
        return Error(QStringLiteral("Origin not allowed: ") + QString::fromLatin1(request.header("origin")));

    // The query wins when both are given: a page reloaded with a new run's token
    // must not be held back by the previous run's cookie.
    QByteArray presented;
    if (tokenInQuery(request))
        presented = request.query().queryItemValue(QStringLiteral("token"), QUrl::FullyDecoded).toLatin1();
    else if (const Option<QByteArray> cookie = request.cookie(CookieName))
        presented = *cookie;
    else
        return Error(QStringLiteral("No token"));
    if (!equalsInConstantTime(presented, m_token))
        return Error(QStringLiteral("Wrong token"));
    return {};
}

bool HeadlessAccessPolicy::hostAllowed(const QByteArray &host) const
{
    const QByteArray port = ':' + QByteArray::number(m_port);
    const QByteArray lower = host.toLower();
    return lower == "127.0.0.1" + port || lower == "localhost" + port;
}

bool HeadlessAccessPolicy::originAllowed(const QByteArray &origin) const
{
    const QByteArray lower = origin.toLower();
    return lower.startsWith("http://") && hostAllowed(lower.mid(7));
}
