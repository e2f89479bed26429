#pragma once

#include <memory>

/// Where analytics reads the time. The rules it keeps (one launch a minute,
/// one upload a day, a new identifier every 90 days) are tested by moving a
/// fake clock instead of waiting.
class KTQCClock {
  public:
    virtual ~KTQCClock() = default;
    /// Now, in seconds since 1 January 1970.
    virtual double now() const = 0;

    /// The system's wall clock.
    static std::shared_ptr<KTQCClock> system();
};
