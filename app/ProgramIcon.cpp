#include "app/ProgramIcon.h"

#include <QString>

namespace app {
namespace {

QString IconFile(int size) { return QStringLiteral(":/icons/%1x%1/tarnwick-gateway.png").arg(size); }

}  // namespace

QIcon ProgramIcon() {
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64, 128, 256}) icon.addFile(IconFile(size), QSize(size, size));
    return icon;
}

QPixmap ProgramPicture() { return QPixmap(IconFile(32)); }

}  // namespace app
