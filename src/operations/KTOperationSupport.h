#pragma once

#include <functional>
#include <string>
#include <vector>

#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTUserInterface.h"

class AppController;

/// Small pieces the plug-in operations share: the main-thread hand-over,
/// the interface test, posting a failure to the companion and the log, and
/// the questions and alerts that only exist with an interface.
namespace KTOperationSupport {

/// True when there is someone to show progress, alerts and questions to.
bool hasInterface(const AppController* app);

/// Runs `work` on the main thread and waits for it.
void onMain(const std::function<void()>& work);
/// Queues `work` for the main thread without waiting.
void onMainNoWait(std::function<void()> work);

/// Posts the text as a task error and appends it to the log.
void postAndLog(const std::string& text);
template <class... A>
void postAndLog(std::string_view format, const A&... args) {
    postAndLog(KTFormat::str(format, args...));
}

/// Asks on the main thread; the index of the button pressed, or -1 without
/// an interface.
int ask(const AppController* app, const KTAlert& alert);
/// Shows an alert with "OK" when there is an interface.
void alert(const AppController* app, const std::string& message, const std::string& informative);

/// A sheet with an interface; without one its two sentences go to the log
/// and standard output.
void tell(const AppController* app, const std::string& message, const std::string& informative);

/// How a missing folder came to be made.
enum class FolderCreation { Existed, Created, CreatedWithRights, Refused };
/// Makes `folder` with its parents. When the plain call fails it logs
/// `failureFormat` (the folder, the error's text) and makes the folder with
/// administrator rights, pausing after that privileged step.
FolderCreation createFolder(const std::string& folder, std::string_view failureFormat);

/// Whether anything is at the path (a dangling link included).
bool exists(const std::string& path);
bool isDirectory(const std::string& path);
/// The user may write into the item (for a folder: add and remove entries).
bool isWritable(const std::string& path);
/// The user may take the item out of its folder.
bool isDeletable(const std::string& path);
/// The path less its last component.
std::string parentOf(const std::string& path);
/// The last component of a path ("" for "/").
std::string lastComponent(const std::string& path);
/// The components of a path; a leading "/" is one component, as the platform splits.
std::vector<std::string> pathComponents(const std::string& path);
bool startsWith(const std::string& text, const std::string& prefix);

}  // namespace KTOperationSupport
