#include <cstdio>
#include <memory>

#include "SharedFiles/KTMainThread.h"

namespace {
void printUsage() {
    std::fputs(
        "usage: ambrel                      open the window\n"
        "       ambrel -allplugins [-data|-plist]\n"
        "The catalogue and its verbs are not built yet.\n",
        stderr);
}
}  // namespace

int main(int argc, char** argv) {
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    (void)argv;
    printUsage();
    return argc > 1 ? 0 : 2;
}
