#include "app/About.h"

#include <QFrame>
#include <QGuiApplication>
#include <QLabel>
#include <QPushButton>
#include <QScreen>

#include "app/DisplayText.h"
#include "app/MScreen.h"
#include "app/ProgramIcon.h"
#include "app/TaskList.h"

namespace app {
namespace {

constexpr const char* kDisclaimer =
    "This program is offered as it is, without any warranty. It is not made, endorsed or supported by any "
    "web mail provider. Use it only with accounts you are entitled to use.";

}  // namespace

About::About(QWidget* parent, const std::string& applicationName, const std::string& applicationVersion)
    : QDialog(parent, Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint |
                          Qt::MSWindowsFixedSizeDialogHint) {
    setWindowTitle("About Tarnwick");
    setFixedSize(MScreen::FromTwips(0, 0, 5760, 3420).size());
    setModal(true);

    Image1 = new QLabel(this);
    Image1->setGeometry(MScreen::FromTwips(120, 120, 480, 480));
    Image1->setPixmap(ProgramPicture());

    lblTitle = new QLabel(this);
    lblTitle->setGeometry(MScreen::FromTwips(1050, 180, 4485, 405));
    lblTitle->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    lblTitle->setText(DisplayText(applicationName + "\r\nVersion: " + applicationVersion));

    // An etched rule: a grey line with a white one below it.
    separator = new QFrame(this);
    separator->setGeometry(MScreen::FromTwips(150, 2060, 5400, 30));
    separator->setFrameShape(QFrame::HLine);
    separator->setFrameShadow(QFrame::Sunken);

    lblDisclaimer = new QLabel(this);
    lblDisclaimer->setGeometry(MScreen::FromTwips(150, 2280, 4050, 975));
    lblDisclaimer->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    lblDisclaimer->setWordWrap(true);
    lblDisclaimer->setText(kDisclaimer);

    cmdOK = new QPushButton("OK", this);
    cmdOK->setGeometry(MScreen::FromTwips(4305, 2325, 1260, 345));
    cmdOK->setDefault(true);
    connect(cmdOK, &QPushButton::clicked, this, &QDialog::accept);
}

void About::showEvent(QShowEvent* event) {
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        QRect frame = frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        move(frame.topLeft());
    }
    TaskList::SetListed(*this, false);
    QDialog::showEvent(event);
}

}  // namespace app
