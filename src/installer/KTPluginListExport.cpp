#include "installer/KTPluginListExport.h"

#include "SharedFiles/KTFormat.h"
#include "catalogue/KTPluginItem.h"

std::string KTPluginListExport::generateHTMLForPrinting(
    const std::vector<std::shared_ptr<KTPluginItem>>& plugins, bool full) {
    std::string html;
    if (full) {
        html +=
            "<!DOCTYPE HTML PUBLIC \"-//W3C//DTD HTML 4.01//EN\" "
            "\"http://www.w3.org/TR/html4/strict.dtd\">";
        html +=
            "<html><head><style>body {margin: 0 0 0 0; padding: 0; font: 14px 'Lucida Grande', "
            "Geneva, Arial, Verdana, sans-serif; color: #000;} table {width:100%;} th "
            "{text-align:left;} td {padding:7px;}</style></head><body>";
    }
    html += "<h1>Ambrel</h1><h2>Plugins</h2>";
    html += "<table><thead><th>Name</th><th>Type</th></thead><tbody>";
    for (const auto& plugin : plugins) {
        if (!plugin) continue;
        html += KTFormat::str("<tr><td>%@</td><td>%@</td></tr>", plugin->shortName(),
                              plugin->pluginTypeName());
    }
    html += "</tbody></table>";
    if (full) html += "</body></html>";
    return html;
}
