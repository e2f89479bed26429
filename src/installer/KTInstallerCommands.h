#pragma once

#include <string>
#include <vector>

class AppController;

/// The installer builder's command-line verbs.
namespace KTInstallerCommands {

/// "-createinstaller -o OUT [-name N] [-version V] [-author A] [-icon F]
/// [-eula F] [-background F] [-preinstall F] [-postinstall F]
/// [-certificate NAME] [-removebranding] PLUGIN...": 0 when the installer
/// was created, 1 otherwise. A PLUGIN is a file name (every plug-in of that
/// name) or a group folder's path (every plug-in below it).
int createInstaller(AppController& app, const std::vector<std::string>& args);

/// "-setappleid APPLEID", the app-specific password on standard input:
/// replaces the stored notarisation account (an empty one only removes it).
/// 0 when stored, 1 when the keychain refused.
int setAppleID(const std::vector<std::string>& args);

/// The usage lines of both verbs.
std::string usage();

/// The plug-ins the PLUGIN words name, in the order given, each once.
std::vector<std::string> pluginsForArguments(const std::vector<std::string>& words,
                                             const std::vector<std::string>& listed);

}  // namespace KTInstallerCommands
