#pragma once

class CommandLine;

// The receiving side of a self-update. The manager that downloaded this build starts it with
// "--wait-for-pid <its pid> --install-target <its installation>" and quits. This build then:
//   1. waits for that process to end (polling every 50 ms, giving up after 60 s: the old
//      manager still runs, so its installation is left alone);
//   2. takes the single-instance key, so that a manager started meanwhile hands its command
//      line over instead of running from a folder about to be replaced;
//   3. replaces the installation with its own tree (InstallationSwap);
//   4. starts the installation's executable with "--minimize" (on success) or, when the swap
//      failed and the old build is still in place, "--update-failed", each waiting for this
//      process to end before it takes the key over.
// Returns the process exit code.
int runSelfUpdateHandOver(CommandLine *commandLine);
