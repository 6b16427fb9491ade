#pragma once

#include <QString>

// The store of application icons that the page shows. For now the page loads
// icons straight from the feed, so the reference to hand out is the URL
// itself; the store is the one place to change when icons get cached locally.
class ApplicationIconHolder
{
public:
    // Keeps the icon at `url` and returns the reference the page is to use.
    static QString storeIcon(const QString &url);
};
