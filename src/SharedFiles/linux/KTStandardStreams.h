#pragma once

/// Descriptors 0, 1 and 2 as the program expects them. Started with one of
/// them closed, the first file the program opens would take its number: the
/// log would become standard output, and a listing or an archive would be
/// written into the log.
class KTStandardStreams {
  public:
    /// Opens /dev/null on each of 0, 1 and 2 that is closed. False when one
    /// could not be opened (the caller must not go on opening files).
    static bool openMissing();
};
