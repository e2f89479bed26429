#include "app/window/KTPrintRenderer.h"

#include <QAbstractTextDocumentLayout>
#include <QDateTime>
#include <QFontMetricsF>
#include <QLocale>
#include <QPainter>
#include <QPrinter>
#include <QRegularExpression>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextFrame>
#include <QTextFrameFormat>
#include <QTextTable>

QString KTPrintRenderer::withImpliedTableRows(const QString& html) {
    // Tags only; text between them is copied as it is.
    static const QRegularExpression tag(QStringLiteral("<(/?)([A-Za-z][A-Za-z0-9]*)[^>]*>"));
    QString out;
    out.reserve(html.size() + 64);
    bool inSection = false;   // inside thead / tbody / tfoot
    bool rowOpen = false;     // inside a row, written or implied
    bool impliedRow = false;  // the open row is one this pass wrote
    qsizetype at = 0;
    for (auto it = tag.globalMatch(html); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        out += QStringView(html).mid(at, m.capturedStart() - at);
        at = m.capturedEnd();
        const bool closing = !m.capturedView(1).isEmpty();
        const QString name = m.captured(2).toLower();
        const bool section = name == QLatin1String("thead") || name == QLatin1String("tbody") ||
                             name == QLatin1String("tfoot");
        if (section || name == QLatin1String("table") || name == QLatin1String("tr")) {
            if (impliedRow) out += QStringLiteral("</tr>");
            impliedRow = false;
            rowOpen = name == QLatin1String("tr") && !closing;
            if (section) inSection = !closing;
            if (name == QLatin1String("table")) inSection = false;
        } else if (!closing && inSection && !rowOpen &&
                   (name == QLatin1String("th") || name == QLatin1String("td"))) {
            // A cell outside any row: the parser opens one.
            out += QStringLiteral("<tr>");
            rowOpen = impliedRow = true;
        }
        out += m.capturedView(0);
    }
    out += QStringView(html).mid(at);
    return out;
}

bool KTPrintRenderer::print(const QString& html, const QString& jobTitle, QPrinter& printer) {
    printer.setDocName(jobTitle);
    QTextDocument document;
    document.setHtml(withImpliedTableRows(html));
    // Qt's rich text takes a table's width from its attribute only; a style
    // sheet that stretches tables to the page is honoured here.
    static const QRegularExpression fullWidth(QStringLiteral("table\\s*\\{[^}]*width\\s*:\\s*100%"),
                                              QRegularExpression::CaseInsensitiveOption);
    if (fullWidth.match(html).hasMatch()) {
        for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
            QTextTable* table = QTextCursor(block).currentTable();
            if (!table) continue;
            QTextTableFormat format = table->format();
            if (format.width().type() == QTextLength::PercentageLength) continue;
            format.setWidth(QTextLength(QTextLength::PercentageLength, 100));
            table->setFormat(format);
        }
    }

    QPainter painter;
    if (!painter.begin(&printer)) return false;
    // The page is laid out at the screen's 96 dots per inch (the unit the
    // document's pixel sizes mean) and scaled up to the printer's.
    const qreal scale = printer.logicalDpiY() / 96.0;
    const QRectF paper = printer.pageLayout().paintRectPixels(printer.resolution());
    const qreal width = paper.width() / scale;
    const qreal height = paper.height() / scale;

    QFont small = document.defaultFont();
    small.setPixelSize(10);
    const qreal line = QFontMetricsF(small).height();
    const qreal headerHeight = line * 2.5;
    const qreal footerHeight = line * 2.5;
    const qreal bodyHeight = height - headerHeight - footerHeight;
    document.setPageSize(QSizeF(width, bodyHeight));

    const int pages = document.pageCount();
    const QString date = QLocale().toString(QDateTime::currentDateTime(), QLocale::ShortFormat);
    for (int page = 0; page < pages; ++page) {
        if (page > 0) printer.newPage();
        painter.save();
        painter.scale(scale, scale);
        painter.setFont(small);
        painter.setPen(Qt::black);
        painter.drawText(QRectF(0, 0, width, line), Qt::AlignLeft | Qt::AlignVCenter, jobTitle);
        painter.drawText(QRectF(0, 0, width, line), Qt::AlignRight | Qt::AlignVCenter, date);
        painter.drawText(QRectF(0, height - line, width, line), Qt::AlignRight | Qt::AlignVCenter,
                         QStringLiteral("Page %1 of %2").arg(page + 1).arg(pages));

        painter.translate(0, headerHeight - page * bodyHeight);
        const QRectF visible(0, page * bodyHeight, width, bodyHeight);
        painter.setClipRect(visible);
        QAbstractTextDocumentLayout::PaintContext context;
        context.clip = visible;
        context.palette.setColor(QPalette::Text, Qt::black);
        document.documentLayout()->draw(&painter, context);
        painter.restore();
    }
    return painter.end();
}
