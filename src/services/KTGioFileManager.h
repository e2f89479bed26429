#pragma once

#include <string>

/// The desktop's file manager asked over the session bus with GIO, inside
/// ambrel-services.so: the work behind KTLinuxWorkspace::showItemsOnSessionBus.
class KTGioFileManager {
  public:
    enum Result { shown = 0, noBus = 1, noAnswer = 2, noAddress = 3 };
    /// org.freedesktop.FileManager1.ShowItems for `path`; the reason in
    /// `error` when not shown.
    static Result showItems(const std::string& path, std::string* error);
};
