#include "editor/TimeFormat.h"

#include <QLocale>
#include <algorithm>
#include <cmath>
#include <limits>

namespace harlune {

namespace {

// 2^63 exactly: every double below it and at or above its negative converts to int64_t.
constexpr double int64Limit = 9223372036854775808.0;

std::optional<int64_t> truncatedToInt64(double value) {
    if (!std::isfinite(value))
        return std::nullopt;
    const double whole = std::trunc(value);
    if (whole >= int64Limit || whole < -int64Limit)
        return std::nullopt;
    return static_cast<int64_t>(whole);
}

std::optional<int64_t> digitsOnly(const QString& text) {
    int64_t value = 0;
    bool any = false;
    for (const QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            continue;
        const int digit = c.unicode() - '0';
        if (value > (std::numeric_limits<int64_t>::max() - digit) / 10)
            return std::nullopt;
        value = value * 10 + digit;
        any = true;
    }
    if (!any)
        return std::nullopt;
    return value;
}

// A plain decimal number as the user types it; blanks inside are not accepted.
std::optional<double> number(QStringView part) {
    if (part.isEmpty())
        return std::nullopt;
    for (const QChar c : part)
        if (c.isSpace())
            return std::nullopt;
    bool ok = false;
    const double value = part.toDouble(&ok);
    if (!ok || !std::isfinite(value))
        return std::nullopt;
    return value;
}

} // namespace

QString rawValue(TimeFormat format) {
    switch (format) {
    case TimeFormat::hms:
        return QStringLiteral("hms");
    case TimeFormat::seconds:
        return QStringLiteral("seconds");
    case TimeFormat::samples:
        return QStringLiteral("samples");
    }
    return QStringLiteral("hms");
}

std::optional<TimeFormat> timeFormatFromRawValue(QStringView raw) {
    for (const TimeFormat format : {TimeFormat::hms, TimeFormat::seconds, TimeFormat::samples})
        if (raw == rawValue(format))
            return format;
    return std::nullopt;
}

QString hms(double seconds, int decimals) {
    decimals = std::clamp(decimals, 0, 9);
    // Beyond about 30 million years the text stops being useful; the cap keeps every
    // conversion below in range.
    constexpr double longest = 1e15;
    if (!(seconds > 0))
        seconds = 0;
    seconds = std::min(seconds, longest);
    const double whole = std::trunc(seconds);
    const auto scale = std::pow(10.0, decimals);
    const auto fraction = static_cast<int64_t>(std::min(std::floor(scale * (seconds - whole)), scale - 1));
    const auto total = static_cast<int64_t>(whole);

    QString text;
    if (total < 3600)
        text = QString::asprintf("%lld:%02lld", static_cast<long long>(total / 60),
                                 static_cast<long long>(total % 60));
    else
        text = QString::asprintf("%lld:%02lld:%02lld", static_cast<long long>(total / 3600),
                                 static_cast<long long>(total / 60 % 60), static_cast<long long>(total % 60));
    if (decimals > 0)
        text += QString::asprintf(".%0*lld", decimals, static_cast<long long>(fraction));
    return text;
}

QString string(TimeFormat format, int64_t frame, double sampleRate) {
    const double seconds = sampleRate > 0 ? static_cast<double>(frame) / sampleRate : 0.0;
    switch (format) {
    case TimeFormat::hms:
        return hms(seconds, 3);
    case TimeFormat::seconds:
        return QString::asprintf("%.3f", seconds);
    case TimeFormat::samples:
        return QLocale().toString(static_cast<qlonglong>(frame));
    }
    return {};
}

std::optional<int64_t> frame(TimeFormat format, QStringView text, double sampleRate) {
    QString trimmed = text.trimmed().toString().toLower();
    if (trimmed.isEmpty())
        return std::nullopt;

    if (format == TimeFormat::samples || trimmed.endsWith(QLatin1String("smp"))) {
        trimmed.remove(QLatin1String("smp"));
        return digitsOnly(trimmed);
    }

    if (trimmed.endsWith(QLatin1Char('s')))
        trimmed.chop(1);
    double value = 0;
    for (const QStringView part : QStringView(trimmed).split(QLatin1Char(':'))) {
        const auto partValue = number(part);
        if (!partValue)
            return std::nullopt;
        value = value * 60 + *partValue;
    }
    return truncatedToInt64(sampleRate * value);
}

} // namespace harlune
