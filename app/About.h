// The About box: the program's icon, its name and version, and a disclaimer. Modal; made afresh for every
// opening and gone when it closes.
#pragma once

#include <QDialog>

#include <string>

class QFrame;
class QLabel;
class QPushButton;

namespace app {

class About : public QDialog {
public:
    // Loads the box: the title lines come from the application's name and version.
    About(QWidget* parent, const std::string& applicationName, const std::string& applicationVersion);

    // The controls, under their designed names, for tests.
    QLabel* Image1;
    QLabel* lblTitle;
    QFrame* separator;
    QLabel* lblDisclaimer;
    QPushButton* cmdOK;

protected:
    // Centred on the screen, and no entry of its own in the task list.
    void showEvent(QShowEvent* event) override;
};

}  // namespace app
