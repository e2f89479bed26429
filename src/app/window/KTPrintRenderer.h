#pragma once

#include <QString>

class QPrinter;

/// Prints an HTML document the way a web view's print operation does with
/// headers and footers on: the page fitted to the paper's width, each page
/// headed by the job title and the date and footed by its number.
class KTPrintRenderer {
  public:
    /// The document as a browser's parser reads it: table cells written
    /// straight into `<thead>`, `<tbody>` or `<tfoot>` get the row the parser
    /// implies (Qt's rich text would otherwise give each cell a row of its own).
    static QString withImpliedTableRows(const QString& html);

    /// Lays `html` out and prints it on `printer`, page by page, with the
    /// header and footer. False when the printer could not be opened.
    static bool print(const QString& html, const QString& jobTitle, QPrinter& printer);
};
