#pragma once

class AppController;

/// The command line's diagnostic verbs.
class KTDiagnosticsVerbs {
  public:
    /// "-auval": validates every Audio Unit and prints "title<TAB>manufacturer
    /// <TAB>status" per unit in list order. 0 when every unit is "OK", 1 when
    /// any is not, 2 when no list could be made.
    static int auval(AppController& app);
    /// "-gatherlogs": gathers the logs onto the desktop and prints the
    /// outcome and the archive's path. 0 when an archive was made, else 1.
    static int gatherLogs(AppController& app);
};
