#include "base/LogRedaction.h"

#include <QRegularExpression>

QStringList LogRedaction::environment(const QStringList &entries)
{
    static const QRegularExpression secretName(
        QStringLiteral("TOKEN|SECRET|PASSWORD|KEY|AUTH"), QRegularExpression::CaseInsensitiveOption);
    QStringList masked;
    masked.reserve(entries.size());
    for (const QString &entry : entries) {
        const int equals = entry.indexOf(QLatin1Char('='));
        const QString name = equals < 0 ? entry : entry.left(equals);
        if (equals >= 0 && secretName.match(name).hasMatch())
            masked << name + QLatin1Char('=') + QLatin1String(Mask);
        else
            masked << urlCredentials(entry);
    }
    return masked;
}

QString LogRedaction::urlCredentials(const QString &text)
{
    // The user information runs from "scheme://" to the last "@" before the path;
    // a password with an unencoded "@" is masked whole.
    static const QRegularExpression credentials(QStringLiteral("([A-Za-z][A-Za-z0-9+.-]*://)[^/\\s]*@"));
    QString masked = text;
    masked.replace(credentials, QStringLiteral("\\1") + QLatin1String(Mask) + QStringLiteral("@"));
    return masked;
}

QStringList LogRedaction::urlCredentials(const QStringList &texts)
{
    QStringList masked;
    masked.reserve(texts.size());
    for (const QString &text : texts)
        masked << urlCredentials(text);
    return masked;
}
