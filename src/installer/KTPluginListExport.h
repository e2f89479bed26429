#pragma once

#include <memory>
#include <string>
#include <vector>

class KTPluginItem;

/// The plug-in list as a small HTML document (name and kind of every
/// plug-in), which the window prints. Names and kinds go in as they are:
/// the document is only ever rendered by the program itself.
class KTPluginListExport {
  public:
    /// The full document, or (full false) only the heading and the table, for
    /// callers that embed it in a page of their own.
    static std::string generateHTMLForPrinting(
        const std::vector<std::shared_ptr<KTPluginItem>>& plugins, bool full = true);

    /// The job title the print dialog shows.
    static constexpr const char* kJobTitle = "Ambrel Plugin List";
};
