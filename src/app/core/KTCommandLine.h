#pragma once

#include <optional>
#include <string>
#include <vector>

class AppController;

/// The command-line front end: one verb, run without any window, then exit.
class KTCommandLine {
public:
    /// Exit status of the window-less controller that could not be created.
    static constexpr int kControllerFailed = 1004;

    /// True when `args` (argv without the program name) start with a verb
    /// this front end runs; anything else opens the window.
    static bool isVerb(const std::vector<std::string>& args);

    /// Runs the verb and answers the process's exit status.
    static int run(const std::vector<std::string>& args);

    /// The usage text, also printed when no window can be opened.
    static std::string usage();

    /// "ambrel VERSION", one line, for "--version".
    static std::string versionText();

private:
    static int allPlugins(AppController& app, const std::vector<std::string>& args);
    /// "-enable", "-disable", "-remove": every listed plug-in, or those whose
    /// file name is the last component of the name argument.
    static int pluginVerb(AppController& app, const std::vector<std::string>& args);
    /// "-setaccess scope [name]".
    static int setAccess(AppController& app, const std::vector<std::string>& args);
    /// "-duplicates": the products found more than once.
    static int duplicates(AppController& app);
    /// "-install [-all] path": one path, for the current user unless "-all".
    static int install(AppController& app, const std::vector<std::string>& args);
};
