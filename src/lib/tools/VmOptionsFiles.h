#pragma once

#include "base/Option.h"
#include "feed/records/LathePlatformData.h"
#include "local/LocalFeedItem.h"

#include <QString>
#include <QStringList>

// Where a build's VM options live and how the tool is told about them.
namespace VmOptionsFiles {

// "<channel folder>/<build folder name>.vmoptions", beside the build folder.
QString getChannelVmOptionsPath(const LocalFeedItem &item);
// The feed's default options text: the 64-bit one, else the general one.
QString getDefaultVmOptionsContent(const LathePlatformData &platform);
// The heap value of the feed defaults; "701m" when they have none.
QString getDefaultXmx(const LathePlatformData &platform);
// The user's own options file that the tool itself reads, from the feed's
// templates with "%HOME%", "%XDG_CONFIG_HOME%", "%XDG_DATA_HOME%" and
// "%XDG_CACHE_HOME%" expanded.
Option<QString> getUserVmOptionsPath(const LocalFeedItem &item);
// A clean absolute path; a leading "~/" is the home folder.
QString normalizeVmOptionsPath(const QString &path);

// The environment variable through which the tool's launcher finds its options
// file. The feed's platform data may name it ("vmoptions_environment_variable");
// otherwise it is the script name in upper case with "-" as "_", followed by
// "_VM_OPTIONS" (quern gives QUERN_VM_OPTIONS), or the application type the
// same way when there is no script name.
QString getVmOptionsEnvironmentVariable(const LocalFeedItem &item);
// "NAME=<the build's options file>" for a platform-based tool whose file
// exists, nothing otherwise: what a launch of the build adds to its environment.
QStringList getLaunchEnvironment(const LocalFeedItem &item);

} // namespace VmOptionsFiles
