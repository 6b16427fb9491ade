#pragma once

#include <QString>

class Capabilities;
class ChannelSettingsManager;
class CommandLine;
class ProgressManager;
class QApplication;
class QObject;
class SettingsManager;
class SingleApplicationInstanceController;

// Builds the user-interface process's object graph, one event-loop turn after
// start-up, in a fixed order: every object finds the ones it needs already made.
// The objects are children of `owner`, which main() destroys after the event loop
// and before the core objects they point to.
void setupUIApplication(QApplication *application, QObject *owner, Capabilities *capabilities,
    SingleApplicationInstanceController *instanceController, SettingsManager *settingsManager,
    ProgressManager *progressManager, ChannelSettingsManager *channelSettingsManager,
    CommandLine *commandLine, const QString &logPath);
