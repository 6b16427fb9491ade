#pragma once

#include <QDebug>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVector>

// A build or version number with the ordering that decides which build is
// newer. The text is split into parts; a numeric part ranks above any
// qualifier, and qualifiers rank snapshot < eap < alpha < beta < preview < rc
// < release < anything else. Only the rank of a qualifier is kept, never its
// text, so "2018.3 eap" and "2018.3 eap2" are equal.
class Version
{
public:
    // An empty text: one empty part.
    Version();
    explicit Version(const QString &text);

    bool operator<(const Version &other) const;
    bool operator==(const Version &other) const;
    bool operator<=(const Version &other) const;
    bool operator!=(const Version &other) const { return !(*this == other); }
    bool operator>(const Version &other) const { return other < *this; }
    bool operator>=(const Version &other) const { return other <= *this; }

    // The first comparison element as text ("0" when there is none). Every
    // part starts with its rank marker, so this is the first part's marker.
    QString majorVersion() const;
    // The text the version was built from, unchanged.
    QString toString() const;

    // The comparison elements as text, in order (markers and numbers); for
    // diagnostics and tests.
    QStringList elements() const;

    friend uint qHash(const Version &version, uint seed);

private:
    // One part of the text. Parts are compared by marker first; numbers only
    // ever meet numbers, because a number always follows the numeric marker.
    struct Part
    {
        quint8 rank = 0; // index of the part's marker in the marker table
        quint64 number = 0; // the value of a numeric part
        bool operator==(const Part &o) const { return rank == o.rank && number == o.number; }
    };
    int elementCount() const;
    // -1, 0 or 1, elements compared up to the shorter list (length not considered).
    int compareCommonElements(const Version &other) const;

    QString m_text;
    QVector<Part> m_parts;
};

uint qHash(const Version &version, uint seed = 0);
QDebug operator<<(QDebug debug, const Version &version);

Q_DECLARE_METATYPE(Version)
