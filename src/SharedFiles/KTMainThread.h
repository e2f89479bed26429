#pragma once

#include <functional>
#include <memory>
#include <thread>

/// Runs work "on the main thread, waiting". Background operations change the
/// catalogue and the interface only through this seam, so the window can hand
/// the work to Qt's event loop while the command line and the tests run it
/// inline. Process-wide: `shared()` answers the installed dispatcher.
class KTMainThread {
  public:
    virtual ~KTMainThread() = default;

    /// Runs `work` on the main thread and returns when it has run. Called on
    /// the main thread itself it runs at once, so nested calls cannot deadlock.
    virtual void runAndWait(const std::function<void()>& work) = 0;

    /// Queues `work` for the main thread without waiting for it.
    virtual void post(std::function<void()> work) = 0;

    /// True on the thread that counts as the main thread.
    virtual bool isMainThread() const = 0;

    /// Called on the main thread while it waits for something: handles at
    /// most one pending interface event, waiting for one at most
    /// `maxWaitSeconds`, so the window stays live. Without an interface it
    /// only waits.
    virtual void processPendingEvents(double maxWaitSeconds);

    static KTMainThread& shared();
    /// Installs the process's dispatcher; the previous one is dropped.
    static void setShared(std::shared_ptr<KTMainThread> dispatcher);
};

/// The command line's and the tests' dispatcher: the main thread is the one
/// that created it, and work from other threads runs inline on the calling
/// thread, one piece at a time (a recursive lock serialises it), so waiting
/// for a background load from the main thread never deadlocks.
class KTInlineMainThread : public KTMainThread {
  public:
    KTInlineMainThread();
    void runAndWait(const std::function<void()>& work) override;
    void post(std::function<void()> work) override;
    bool isMainThread() const override;

  private:
    std::thread::id mainId_;
};
