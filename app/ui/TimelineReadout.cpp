#include "ui/TimelineReadout.h"

namespace harlune {

QString pointReadout(double gainDB, int64_t frame, TimeFormat format, double sampleRate) {
    return QString::asprintf("%+.1f dB  @ ", gainDB) + string(format, frame, sampleRate);
}

QString sectionReadout(double deltaDB, int64_t frames, double sampleRate) {
    const double seconds = static_cast<double>(frames) / sampleRate;
    const QString duration = seconds >= 60 ? hms(seconds, 2) : QString::asprintf("%.3f s", seconds);
    return QString::asprintf("%+.1f dB  (", deltaDB) + duration + QLatin1Char(')');
}

QString barsReadout(double deltaDB, int64_t firstBar, int64_t lastBar) {
    const QString bars = firstBar == lastBar ? QStringLiteral("bar %1").arg(firstBar + 1)
                                             : QStringLiteral("bars %1–%2 (%3)")
                                                   .arg(firstBar + 1)
                                                   .arg(lastBar + 1)
                                                   .arg(lastBar - firstBar + 1);
    return QString::asprintf("%+.1f dB  (", deltaDB) + bars + QLatin1Char(')');
}

} // namespace harlune
