#include "platform/regional/RegionalDateFormat.h"

#include <QDate>
#include <QLocale>
#include <QString>
#include <QTime>

#include "core/Error.h"

namespace platform {

std::string RegionalDateFormat::LongTimeFormat() {
    const QString format = QLocale().timeFormat(QLocale::LongFormat);
    // Drop every run of the time-zone letter "t" together with the spaces before it; quoted literal text
    // is copied as it stands.
    QString out;
    bool quoted = false;
    for (qsizetype i = 0; i < format.size(); ++i) {
        const QChar c = format.at(i);
        if (c == u'\'') quoted = !quoted;
        if (!quoted && c == u't') {
            while (!out.isEmpty() && out.back().isSpace()) out.chop(1);
            while (i + 1 < format.size() && format.at(i + 1) == u't') ++i;
            continue;
        }
        out.append(c);
    }
    return out.trimmed().toStdString();
}

std::string RegionalDateFormat::Format(const std::string& dateText) {
    const std::size_t t = dateText.find('T');
    if (t == std::string::npos) core::Raise(core::ErrorNumber::kTypeMismatch);
    const QDate date = QDate::fromString(QString::fromStdString(dateText.substr(0, t)), Qt::ISODate);
    QString timeText = QString::fromStdString(dateText.substr(t + 1));
    // A UTC marker is part of how such times are often written; the time itself is still readable.
    if (timeText.endsWith(u'Z')) timeText.chop(1);
    const QTime time = QTime::fromString(timeText, Qt::ISODate);
    if (!date.isValid() || !time.isValid()) core::Raise(core::ErrorNumber::kTypeMismatch);
    const QLocale locale;
    return (locale.toString(date, QLocale::ShortFormat) + u' ' +
            locale.toString(time, QString::fromStdString(LongTimeFormat())))
        .toStdString();
}

}  // namespace platform
