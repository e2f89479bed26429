#include "SharedFiles/KTUserInterface.h"

#include <cstdio>

int KTConsoleUserInterface::runAlert(const KTAlert& alert) {
    std::string text = alert.message;
    if (!alert.informative.empty()) text += (text.empty() ? "" : " ") + alert.informative;
    std::fprintf(stdout, "%s\n", text.c_str());
    std::fflush(stdout);
    return 0;
}
