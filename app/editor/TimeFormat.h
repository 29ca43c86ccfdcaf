#pragma once

#include <QString>
#include <QStringView>
#include <cstdint>
#include <optional>

namespace harlune {

/// How positions are shown to the user and read back from what the user types.
enum class TimeFormat { hms, seconds, samples };

/// "hms", "seconds", "samples".
QString rawValue(TimeFormat format);
std::optional<TimeFormat> timeFormatFromRawValue(QStringView raw);

/// "m:ss.fff" or "h:mm:ss.fff" (milliseconds truncated), "%.3f" seconds, or the frame number
/// with the current locale's digit grouping.
QString string(TimeFormat format, int64_t frame, double sampleRate);

/// The frame a typed text names, or absent when it can't be read or lies outside the frame
/// axis. "48000smp" is read as frames in any format; elsewhere "1:30", "1.5s" and "1.5" are
/// seconds.
std::optional<int64_t> frame(TimeFormat format, QStringView text, double sampleRate);

/// "m:ss" below an hour, else "h:mm:ss", then `decimals` truncated decimal places (0...9).
/// Negative or non-finite seconds count as 0.
QString hms(double seconds, int decimals);

} // namespace harlune
