#pragma once

#include <optional>
#include <string>
#include <vector>

/// The plug-ins a running crash test has disabled, on disk, so that a test
/// that never finished (kill -9, power loss) leaves nothing disabled: the
/// next start of the program enables every plug-in it names.
///
/// The journal is "Crash Test Journal.plist" (an array of the plug-ins'
/// enabled paths) in the user's Application Support folder for Ambrel. A
/// running test holds a lock on "Crash Test Journal.lock" beside it for its
/// whole length; the lock dies with the process, so a journal whose lock can
/// be taken belongs to a test that has ended, and a second Ambrel starting
/// meanwhile leaves a live test's journal alone.
class KTCrashTestJournal {
  public:
    KTCrashTestJournal() = default;
    ~KTCrashTestJournal();
    KTCrashTestJournal(const KTCrashTestJournal&) = delete;
    KTCrashTestJournal& operator=(const KTCrashTestJournal&) = delete;

    static std::string folder();
    static std::string journalPath();

    /// Takes the lock for a new test. False when another test holds it or
    /// the folder cannot be made (the test then runs without a journal).
    bool begin();
    /// Records a plug-in before it is disabled; the file is on disk (synced)
    /// when this returns. False when it could not be written.
    bool add(const std::string& enabledPath);
    /// Forgets every entry and lets the lock go (the test's clean-up).
    void clear();
    bool isOpen() const { return lockFd_ >= 0; }

    /// The paths of a journal left by a test that has ended, taking the lock
    /// until `clear`. Nothing when there is no journal, or a live test owns it.
    std::optional<std::vector<std::string>> takeLeftOver();

  private:
    bool lock();
    bool write();

    int lockFd_ = -1;
    std::vector<std::string> entries_;
};
