#pragma once

/// The fixed pause after each privileged step of the plug-in operations, so
/// that a tool that is not waited for has finished before the disk is looked
/// at. The moves themselves are `KTTransfer`'s.
class KTFileMover {
  public:
    /// Tests shorten it; it is never shortened in the program.
    static double privilegedPauseSeconds();
    static void setPrivilegedPauseSecondsForTesting(double seconds);
    /// Sleeps for the privileged pause.
    static void pauseAfterPrivilegedStep();
};
