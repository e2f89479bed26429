#include "diagnostics/KTDiagnosticsVerbs.h"

#include <cstdio>
#include <string>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTUserInterface.h"
#include "app/core/AppController.h"
#include "diagnostics/KTAUValidator.h"
#include "diagnostics/KTTroubleshootingUtils.h"

int KTDiagnosticsVerbs::auval(AppController& app) {
    KTAUValidator& validator = app.auValidator();
    if (!validator.processAUValidation()) {
        KTLog::finishWriting();
        return 2;
    }
    bool allOK = true;
    std::string out;
    for (const auto& record : validator.auValArray()) {
        const std::string status = record->status();
        allOK = allOK && status == "OK";
        out += record->title + "\t" + record->manName + "\t" + status + "\n";
    }
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
    KTLog::finishWriting();
    return allOK ? 0 : 1;
}

int KTDiagnosticsVerbs::gatherLogs(AppController& app) {
    // The log's last lines belong in the archive.
    KTLog::finishWriting();
    KTConsoleUserInterface console;
    std::string archive;
    const bool ok = KTTroubleshootingUtils::gatherLogsForAppsWithNames({"Ambrel"}, false, {},
                                                                       &console, &archive);
    if (ok) std::printf("%s\n", archive.c_str());
    std::fflush(stdout);
    return ok ? 0 : 1;
}
