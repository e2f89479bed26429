#pragma once

class AppController;
class QWidget;

/// File > Export...: the catalogue as JSON or CSV, the format chosen by the
/// save panel's filter (or the name's extension).
class KTExportPanel {
  public:
    static void run(QWidget* parent, AppController& app);
};
