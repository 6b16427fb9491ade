#pragma once

#include "model/ApplicationFilter.h"

#include <QString>

// Drops builds made for another operating system: the package's "os" must be
// this system's name ("linux" here) or absent. A build without "os" is taken
// as portable, since a feed that never names a system targets every one.
class OperatingSystemApplicationFilter : public ApplicationFilter
{
public:
    // `operatingSystem`: the system to keep; empty means the one we run on.
    explicit OperatingSystemApplicationFilter(QString operatingSystem = QString());

    bool accept(const RemoteFeedItem &item) const override;

    static QString currentOperatingSystem();

private:
    QString m_operatingSystem;
};
