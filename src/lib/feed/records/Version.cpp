#include "feed/records/Version.h"

#include <QRegExp>
#include <QStringList>
#include <QStringView>
#include <limits>

namespace {

// The rank markers, in the order in which they compare as strings. A part's
// rank is its index here, so comparing ranks is comparing the markers.
const char *const kMarkers[] = {
    "_v00010", // snapshot
    "_v00025", // eap
    "_v00030", // alpha
    "_v00040", // beta
    "_v00045", // preview
    "_v00050", // release candidate
    "_v00060", // all zeros
    "_v00080", // release, final, rtm
    "_v00111", // anything else, the empty part included
    "_v90010", // a number, which follows the marker
};
enum Rank : quint8
{
    Snapshot = 0,
    Eap = 1,
    Alpha = 2,
    Beta = 3,
    Preview = 4,
    ReleaseCandidate = 5,
    Zeros = 6,
    Release = 7,
    Other = 8,
    Number = 9,
};

// The separators. In this (classic) syntax a range written high to low is
// taken with its ends swapped, so "_-;" is ';'..'_', which takes in the
// upper-case letters: a qualifier written in capitals splits into empty parts
// and ranks as "anything else". That is how versions have always compared,
// and changing it would reorder builds that users already have.
const QString kSeparatorPattern = QStringLiteral("[\\(\\)\\._-;:/,\\s\\+~]");

// The expression decides which characters separate parts. It matches one
// character at a time, so its answer for each UTF-16 code unit can be kept:
// the Latin-1 range is classified once per thread, and anything beyond it is
// put to the expression as it comes. QRegExp keeps match state inside the
// object and cannot be shared across threads, hence one per thread.
class SeparatorClass
{
public:
    SeparatorClass()
        : m_expression(kSeparatorPattern)
    {
        for (int u = 0; u < 256; ++u)
            m_latin1[u] = m_expression.exactMatch(QString(QChar(u)));
    }

    bool contains(QChar c)
    {
        const ushort u = c.unicode();
        if (u < 256)
            return m_latin1[u];
        return m_expression.exactMatch(QString(c));
    }

private:
    QRegExp m_expression;
    bool m_latin1[256];
};

SeparatorClass &separators()
{
    thread_local SeparatorClass separatorClass;
    return separatorClass;
}

bool parseNumber(QStringView part, quint64 *number)
{
    if (part.isEmpty())
        return false;
    quint64 value = 0;
    for (const QChar c : part) {
        const ushort u = c.unicode();
        if (u < '0' || u > '9')
            return false;
        const quint64 digit = u - '0';
        if (value > (std::numeric_limits<quint64>::max() - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    *number = value;
    return true;
}

bool isAllZeros(QStringView part)
{
    if (part.isEmpty())
        return false;
    for (const QChar c : part) {
        if (c != QLatin1Char('0'))
            return false;
    }
    return true;
}

quint8 rankOf(QStringView part)
{
    const auto startsWith
        = [&part](const char *prefix) { return part.startsWith(QLatin1String(prefix), Qt::CaseInsensitive); };
    if (startsWith("SNAP"))
        return Snapshot;
    if (startsWith("EAP"))
        return Eap;
    if (startsWith("A"))
        return Alpha;
    if (startsWith("BET"))
        return Beta;
    if (startsWith("PRE"))
        return Preview;
    if (startsWith("RC"))
        return ReleaseCandidate;
    if (isAllZeros(part))
        return Zeros;
    if (startsWith("REL") || startsWith("FINAL") || startsWith("RTM"))
        return Release;
    return Other;
}

} // namespace

Version::Version()
    : Version(QString())
{
}

Version::Version(const QString &text)
    : m_text(text)
{
    // Splitting keeps empty parts: two separators in a row, or one at either
    // end, make an empty part, which ranks as "anything else".
    SeparatorClass &separatorClass = separators();
    const QStringView view(text);
    const int length = view.size();
    int start = 0;
    for (int at = 0; at <= length; ++at) {
        if (at < length && !separatorClass.contains(view[at]))
            continue;
        const QStringView part = view.mid(start, at - start);
        Part parsed;
        if (parseNumber(part, &parsed.number))
            parsed.rank = Number;
        else
            parsed.rank = rankOf(part);
        m_parts.append(parsed);
        start = at + 1;
    }
}

int Version::elementCount() const
{
    int count = 0;
    for (const Part &part : m_parts)
        count += part.rank == Number ? 2 : 1;
    return count;
}

int Version::compareCommonElements(const Version &other) const
{
    // A numeric part is two elements, its marker and its number; the markers
    // line up until the first difference, so comparing part by part compares
    // the same elements at the same positions.
    const int common = qMin(m_parts.size(), other.m_parts.size());
    for (int i = 0; i < common; ++i) {
        const Part &a = m_parts.at(i);
        const Part &b = other.m_parts.at(i);
        if (a.rank != b.rank)
            return a.rank < b.rank ? -1 : 1;
        if (a.number != b.number)
            return a.number < b.number ? -1 : 1;
    }
    return 0;
}

bool Version::operator<(const Version &other) const
{
    const int common = compareCommonElements(other);
    if (common != 0)
        return common < 0;
    return elementCount() < other.elementCount();
}

bool Version::operator==(const Version &other) const
{
    return m_parts == other.m_parts;
}

bool Version::operator<=(const Version &other) const
{
    if (elementCount() != other.elementCount())
        return *this < other;
    return *this == other || *this < other;
}

QString Version::majorVersion() const
{
    if (m_parts.isEmpty())
        return QStringLiteral("0");
    return QString::fromLatin1(kMarkers[m_parts.first().rank]);
}

QString Version::toString() const
{
    return m_text;
}

QStringList Version::elements() const
{
    QStringList result;
    for (const Part &part : m_parts) {
        result << QString::fromLatin1(kMarkers[part.rank]);
        if (part.rank == Number)
            result << QString::number(part.number);
    }
    return result;
}

uint qHash(const Version &version, uint seed)
{
    uint hash = seed;
    for (const Version::Part &part : version.m_parts)
        hash = hash * 31 + ::qHash(part.number, part.rank);
    return hash;
}

QDebug operator<<(QDebug debug, const Version &version)
{
    QDebugStateSaver saver(debug);
    debug.nospace().noquote() << "Version(" << version.toString() << ')';
    return debug;
}
