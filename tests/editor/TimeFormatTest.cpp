#include "editor/TimeFormat.h"

#include <QLocale>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace harlune {
namespace {

/// Restores the default locale when a test that changes it ends.
class LocaleGuard {
public:
    explicit LocaleGuard(const QLocale& locale) { QLocale::setDefault(locale); }
    ~LocaleGuard() { QLocale::setDefault(saved_); }

private:
    QLocale saved_ = QLocale();
};

TEST(TimeFormatTest, RawValuesRoundTrip) {
    for (const TimeFormat format : {TimeFormat::hms, TimeFormat::seconds, TimeFormat::samples})
        EXPECT_EQ(timeFormatFromRawValue(rawValue(format)), format);
    EXPECT_EQ(rawValue(TimeFormat::seconds), "seconds");
    EXPECT_FALSE(timeFormatFromRawValue(u"HMS"));
    EXPECT_FALSE(timeFormatFromRawValue(u""));
}

TEST(TimeFormatTest, HmsTexts) {
    EXPECT_EQ(hms(62.5, 3), "1:02.500");
    EXPECT_EQ(hms(3600, 3), "1:00:00.000");
    EXPECT_EQ(hms(0, 3), "0:00.000");
    EXPECT_EQ(hms(59.9999, 3), "0:59.999"); // truncated, not rounded up to 1:00
    EXPECT_EQ(hms(3599.5, 0), "59:59");
    EXPECT_EQ(hms(86400 * 2 + 61.25, 2), "48:01:01.25");
    EXPECT_EQ(hms(-5, 2), "0:00.00");
    EXPECT_EQ(hms(std::nan(""), 1), "0:00.0");
    EXPECT_EQ(hms(-INFINITY, 1), "0:00.0");
    // Out of all proportion but still without undefined conversions.
    EXPECT_FALSE(hms(INFINITY, 3).isEmpty());
    EXPECT_FALSE(hms(1e300, 3).isEmpty());
}

TEST(TimeFormatTest, StringExamples) {
    EXPECT_EQ(string(TimeFormat::hms, 0, 48000), "0:00.000");
    EXPECT_EQ(string(TimeFormat::hms, 62 * 48000 + 24000, 48000), "1:02.500");
    EXPECT_EQ(string(TimeFormat::hms, int64_t{3600} * 44100, 44100), "1:00:00.000");
    EXPECT_EQ(string(TimeFormat::hms, 47, 48000), "0:00.000"); // 0.98 ms truncates
    EXPECT_EQ(string(TimeFormat::seconds, 72000, 48000), "1.500");
    EXPECT_EQ(string(TimeFormat::seconds, 47, 48000), "0.001"); // rounded in this format
    const LocaleGuard english(QLocale(QLocale::English, QLocale::UnitedStates));
    EXPECT_EQ(string(TimeFormat::samples, 1234567, 48000), "1,234,567");
}

TEST(TimeFormatTest, FrameExamples) {
    EXPECT_EQ(frame(TimeFormat::hms, u"1:30", 48000), 4320000);
    EXPECT_EQ(frame(TimeFormat::hms, u"1:00:00", 48000), int64_t{3600} * 48000);
    EXPECT_EQ(frame(TimeFormat::seconds, u"  2.5S ", 1000), 2500);
    EXPECT_EQ(frame(TimeFormat::samples, u"12,345", 48000), 12345);
    EXPECT_EQ(frame(TimeFormat::hms, u"48000smp", 44100), 48000);
    EXPECT_EQ(frame(TimeFormat::seconds, u"1.5", 48000), 72000);
    EXPECT_EQ(frame(TimeFormat::hms, u"1.5s", 48000), 72000);
    EXPECT_EQ(frame(TimeFormat::samples, u"1.5", 48000), 15); // digits only in samples
    EXPECT_EQ(frame(TimeFormat::samples, u"smp 1 000 smp", 48000), 1000);
    EXPECT_EQ(frame(TimeFormat::hms, u"0:00.0005", 1000), 0); // truncated
}

TEST(TimeFormatTest, UnreadableTextsAreRefused) {
    for (const char16_t* text : {u"", u"   ", u"abc", u"1::2", u":30", u"1:", u"1.5.2", u"--1", u"1:3 0",
                                 u"inf", u"nan", u"-inf", u"infinity", u"1e300", u"1e999", u"1:inf", u"s"}) {
        EXPECT_FALSE(frame(TimeFormat::hms, text, 48000)) << QString::fromUtf16(text).toStdString();
        EXPECT_FALSE(frame(TimeFormat::seconds, text, 48000)) << QString::fromUtf16(text).toStdString();
    }
    // Beyond the frame axis, from either side.
    EXPECT_FALSE(frame(TimeFormat::seconds, u"200000000000000", 48000));
    EXPECT_FALSE(frame(TimeFormat::seconds, u"-200000000000000", 48000));
    EXPECT_FALSE(frame(TimeFormat::hms, u"99999999999999:00:00", 48000));
    // No digits, or too many for a frame number.
    EXPECT_FALSE(frame(TimeFormat::samples, u"abc", 48000));
    EXPECT_FALSE(frame(TimeFormat::samples, u"smp", 48000));
    EXPECT_FALSE(frame(TimeFormat::samples, u"99999999999999999999", 48000));
    EXPECT_FALSE(frame(TimeFormat::hms, u"9223372036854775808smp", 48000));
    EXPECT_EQ(frame(TimeFormat::hms, u"9223372036854775807smp", 48000), INT64_MAX);
    // A rate that is not a number makes every seconds text unreadable.
    EXPECT_FALSE(frame(TimeFormat::seconds, u"1", std::nan("")));
}

TEST(TimeFormatTest, PrintedTextsReadBackToTheSameFrame) {
    std::mt19937_64 random(7);
    const double rates[] = {8000, 22050, 44100, 48000, 88200, 96000, 192000};
    for (const double rate : rates) {
        std::uniform_int_distribution<int64_t> frames(0, static_cast<int64_t>(rate) * 3600 * 30);
        for (int i = 0; i < 300; ++i) {
            const int64_t f = i == 0 ? 0 : frames(random);
            EXPECT_EQ(frame(TimeFormat::samples, string(TimeFormat::samples, f, rate), rate), f);
            // Shown to the millisecond: read back within one millisecond's worth of frames.
            const double millisecond = rate / 1000;
            for (const TimeFormat format : {TimeFormat::hms, TimeFormat::seconds}) {
                const QString text = string(format, f, rate);
                const auto back = frame(format, text, rate);
                ASSERT_TRUE(back) << text.toStdString();
                EXPECT_LE(std::abs(static_cast<double>(*back - f)), millisecond + 1)
                    << text.toStdString() << " at " << rate;
            }
        }
    }
}

TEST(TimeFormatTest, RandomTypingIsReadOrRefusedWithoutFaults) {
    // Run under the sanitizers this proves no text reaches an undefined conversion.
    std::mt19937_64 random(11);
    const std::u16string alphabet = u"0123456789::..,,eE+-sSmpinfa x";
    std::uniform_int_distribution<size_t> letter(0, alphabet.size() - 1);
    std::uniform_int_distribution<int> length(0, 24);
    int read = 0;
    for (int i = 0; i < 20000; ++i) {
        std::u16string text;
        for (int n = length(random); n > 0; --n)
            text += alphabet[letter(random)];
        const bool anyDigit = text.find_first_of(u"0123456789") != std::u16string::npos;
        for (const TimeFormat format : {TimeFormat::hms, TimeFormat::seconds, TimeFormat::samples}) {
            const auto result = frame(format, QStringView(text), 44100);
            if (!anyDigit) {
                EXPECT_FALSE(result) << QString::fromStdU16String(text).toStdString();
            }
            read += result ? 1 : 0;
        }
    }
    EXPECT_GT(read, 1000); // the alphabet does produce readable texts
}

TEST(TimeFormatTest, SamplesFollowTheLocalesGrouping) {
    {
        const LocaleGuard german(QLocale(QLocale::German, QLocale::Germany));
        const QString text = string(TimeFormat::samples, 1234567, 48000);
        EXPECT_EQ(text, "1.234.567");
        EXPECT_EQ(frame(TimeFormat::samples, text, 48000), 1234567);
    }
    {
        const LocaleGuard swiss(QLocale(QLocale::German, QLocale::Switzerland));
        const QString text = string(TimeFormat::samples, 9876543210, 48000);
        EXPECT_EQ(frame(TimeFormat::samples, text, 48000), 9876543210);
    }
}

} // namespace
} // namespace harlune
