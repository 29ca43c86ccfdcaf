// The spectrum, info and markers panels driven through their own widgets, with the numbers they
// show checked against closed forms of the generated audio; the symbols on the inspector's tabs.
#include "document/AudioDocument.h"
#include "editor/EditorModel.h"
#include "editor/SpectrumState.h"
#include "ui/MainWindow.h"
#include "ui/SymbolIcons.h"
#include "ui/inspector/InfoPanel.h"
#include "ui/inspector/InspectorView.h"
#include "ui/inspector/MarkersPanel.h"
#include "ui/inspector/SpectrumPanel.h"
#include "ui/inspector/SpectrumView.h"

#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QRegularExpression>
#include <QTabBar>
#include <QTabWidget>
#include <QTest>
#include <QToolButton>
#include <QUndoStack>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

namespace harlune {
namespace {

constexpr double rate = 48000;

std::vector<float> tone(int64_t frames, double hertz, float amplitude) {
    std::vector<float> x(static_cast<size_t>(frames));
    for (size_t n = 0; n < x.size(); ++n)
        x[n] = amplitude *
               static_cast<float>(std::sin(2 * std::numbers::pi * hertz * static_cast<double>(n) / rate));
    return x;
}

int binOf(double hertz, const SpectrumState& state) {
    return static_cast<int>(std::lround(hertz * state.fftSize() / rate));
}

TEST(SpectrumPanelTest, FollowsTheCursorTheSelectionAndItsControls) {
    // Silence for three quarters of a second, then a full-scale tone on a bin of every size.
    std::vector<float> samples(48000, 0.0f);
    const std::vector<float> sine = tone(12000, 1031.25, 1.0f);
    std::copy(sine.begin(), sine.end(), samples.begin() + 36000);
    EditorModel model(AudioContent({samples}, rate), std::nullopt);
    SpectrumPanel panel(model);
    SpectrumState& state = panel.state();

    EXPECT_EQ(panel.caption().text(), "Resolution 5.9 Hz per bin \u00B7 Blackman-Harris window");
    model.setCursor(42000);
    ASSERT_EQ(state.spectrum().size(), 4097u);
    EXPECT_NEAR(state.spectrum()[static_cast<size_t>(binOf(1031.25, state))], 0.0, 0.05);

    panel.fftSizePicker().setCurrentText("4096");
    EXPECT_EQ(panel.caption().text(), "Resolution 11.7 Hz per bin \u00B7 Blackman-Harris window");
    ASSERT_EQ(state.spectrum().size(), 2049u);
    EXPECT_NEAR(state.spectrum()[88], 0.0, 0.05);

    // The hold keeps the tone after the cursor moves into the silence.
    panel.peakHoldToggle().setChecked(true);
    model.setCursor(10000);
    EXPECT_EQ(state.spectrum()[88], SpectrumAnalyzer::floorDB);
    EXPECT_NEAR(state.peakHold()[88], 0.0, 0.05);
    panel.peakHoldToggle().setChecked(false);
    EXPECT_EQ(state.peakHold(), state.spectrum());

    // The average over a selection whose last quarter holds the tone.
    panel.sourcePicker().setCurrentText("Selection average");
    model.setSelection(FrameRange{0, 48000});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !state.isAveraging(); }, 10000));
    EXPECT_GT(state.spectrum()[88], -9.0);
    EXPECT_LT(state.spectrum()[88], -4.0);

    // An average still on its way is dropped by a later spectrum at the cursor (in the silence).
    model.setSelection(FrameRange{24000, 48000});
    ASSERT_TRUE(state.isAveraging());
    panel.sourcePicker().setCurrentText("Around cursor");
    EXPECT_FALSE(state.isAveraging());
    QTest::qWait(SpectrumState::averageDelayMs * 3);
    EXPECT_EQ(state.spectrum()[88], SpectrumAnalyzer::floorDB);
}

TEST(SpectrumPanelTest, LiveAtPlayheadFollowsWhatIsHeard) {
    std::vector<float> samples(48000, 0.0f);
    const std::vector<float> sine = tone(24000, 1031.25, 1.0f);
    std::copy(sine.begin(), sine.end(), samples.begin() + 24000);
    EditorModel model(AudioContent({samples}, rate), std::nullopt);
    SpectrumPanel panel(model);
    panel.fftSizePicker().setCurrentText("4096");
    panel.sourcePicker().setCurrentText("Live at playhead");
    model.setCursor(4000);
    EXPECT_EQ(panel.state().spectrum()[88], SpectrumAnalyzer::floorDB);

    model.play(false);
    ASSERT_TRUE(model.isPlaying());
    model.player().setPosition(36000);
    model.transportTick();
    EXPECT_NEAR(panel.state().spectrum()[88], 0.0, 0.05);
    // The cursor does not move a live spectrum while playing.
    model.setCursor(2000);
    EXPECT_NEAR(panel.state().spectrum()[88], 0.0, 0.05);
    model.stop(true);
}

TEST(SpectrumPanelTest, TheViewReadsOutAndTellsAssistiveTechnology) {
    EditorModel model(AudioContent({tone(48000, 1031.25, 0.5f)}, rate), std::nullopt);
    SpectrumPanel panel(model);
    SpectrumView& view = panel.view();
    view.resize(400, 240);
    model.setCursor(24000);

    const QString value = view.accessibleValue();
    EXPECT_EQ(value, "Strongest at 1.03 kHz  -6.0 dB");
    EXPECT_EQ(view.accessibleDescription(), value);
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&view);
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->text(QAccessible::Name), "Spectrum");
    EXPECT_EQ(accessible->text(QAccessible::Value), value);

    const QRegularExpression hertz("^\\d+ Hz  -?\\d+\\.\\d dB$");
    const QRegularExpression kilohertz("^\\d+\\.\\d\\d kHz  -?\\d+\\.\\d dB$");
    EXPECT_TRUE(hertz.match(view.readout(QPointF(60, 100))).hasMatch())
        << view.readout(QPointF(60, 100)).toStdString();
    EXPECT_TRUE(kilohertz.match(view.readout(QPointF(390, 100))).hasMatch());
    panel.frequencyPicker().setCurrentText("Linear");
    EXPECT_EQ(view.readout(QPointF(394, 50)),
              QString::asprintf("24.00 kHz  %.1f dB", panel.state().spectrum().back()));

    EXPECT_EQ(SpectrumView::tickLabel(500), "500");
    EXPECT_EQ(SpectrumView::tickLabel(1000), "1000");
    EXPECT_EQ(SpectrumView::tickLabel(2000), "2k");
    EXPECT_EQ(SpectrumView::tickLabel(20000), "20k");
    EXPECT_FALSE(view.grab().toImage().isNull());
}

TEST(InfoPanelTest, StatisticsOfTheFileAndOfTheSelection) {
    // Left: 0.5 in the first half, -0.25 in the second; right: silence.
    std::vector<float> left(9600, 0.5f);
    std::fill(left.begin() + 4800, left.end(), -0.25f);
    EditorModel model(AudioContent({left, std::vector<float>(9600, 0.0f)}, rate), std::nullopt);
    InfoPanel panel(model);

    EXPECT_EQ(panel.fileValue("Name"), "Untitled (not saved)");
    EXPECT_EQ(panel.fileValue("Codec"), std::nullopt);
    EXPECT_EQ(panel.fileValue("Sample rate"), "48000 Hz");
    EXPECT_EQ(panel.fileValue("Channels"), "2");
    EXPECT_EQ(panel.fileValue("Duration"), "0:00.200");

    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.signalValue(0, "Peak").has_value(); }, 10000));
    EXPECT_EQ(panel.signalTitle(), "Signal (entire file)");
    EXPECT_EQ(panel.signalValue(0, "Peak"), "-6.0");
    EXPECT_EQ(panel.signalValue(0, "RMS"), QString::asprintf("%.1f", 20 * std::log10(std::sqrt(0.15625))));
    EXPECT_EQ(panel.signalValue(0, "DC offset"), "12.5000%");
    EXPECT_EQ(panel.signalValue(1, "DC offset"), "0.0000%");
    EXPECT_EQ(panel.signalValue(1, "Peak"), "\u2013"); // silence has no level

    model.setSelection(FrameRange{6000, 9000});
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.signalTitle() == "Signal (selection)"; }, 10000));
    EXPECT_EQ(panel.signalValue(0, "Peak"), "-12.0");
    EXPECT_EQ(panel.signalValue(0, "DC offset"), "-25.0000%");

    // New audio is measured again, not dropped as the figure of an older version.
    model.setSelection(std::nullopt);
    model.setContent(AudioContent({std::vector<float>(4800, -0.125f)}, rate));
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.signalValue(0, "Peak") == "-18.1"; }, 10000));
    EXPECT_EQ(panel.signalTitle(), "Signal (entire file)");
    EXPECT_EQ(panel.signalValue(1, "Peak"), std::nullopt);

    // A file's facts, each row only with a value.
    AudioFileInfo info;
    info.url = std::filesystem::path("/music/take.flac");
    info.codecName = "FLAC";
    info.bitDepth = 24;
    info.decoderName = "ffmpeg";
    model.setFileInfo(info);
    EXPECT_EQ(panel.fileValue("Name"), "take.flac");
    EXPECT_EQ(panel.fileValue("Codec"), "FLAC 24-bit");
    EXPECT_EQ(panel.fileValue("Decoder"), "ffmpeg");
    EXPECT_EQ(panel.fileValue("Bitrate"), std::nullopt);
}

TEST(InfoPanelTest, ValueLabelsNameTheirRowAndChannelForAssistiveTechnology) {
    EditorModel model(AudioContent({std::vector<float>(4800, 0.25f)}, rate), std::nullopt);
    InfoPanel panel(model);
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.signalValue(0, "Peak").has_value(); }, 10000));
    QLabel* peak = nullptr;
    for (QLabel* label : panel.findChildren<QLabel*>())
        if (label->accessibleName() == "Peak Mono")
            peak = label;
    ASSERT_NE(peak, nullptr);
    EXPECT_EQ(peak->accessibleDescription(), "-12.0");
}

TEST(MarkersPanelTest, AddRenameAndRemoveAreEachOneUndoStep) {
    EditorModel model(AudioContent({std::vector<float>(96000, 0.0f)}, rate), std::nullopt);
    QUndoStack undo;
    model.setUndoManager(&undo);
    MarkersPanel panel(model);
    panel.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&panel));

    EXPECT_FALSE(panel.emptyText().isHidden());
    EXPECT_EQ(
        panel.emptyText().text(),
        "Press M while editing, or Ctrl+M, to drop a marker at the cursor. Drag marker flags in the ruler to "
        "move them; double-click in the waveform to select between markers.");
    EXPECT_EQ(panel.addButton().toolTip(), "Add a marker at the cursor (M)");

    model.setCursor(72000);
    QTest::mouseClick(&panel.addButton(), Qt::LeftButton);
    ASSERT_EQ(model.markers().size(), 1u);
    EXPECT_EQ(undo.count(), 1);
    EXPECT_TRUE(panel.emptyText().isHidden());
    ASSERT_NE(panel.nameField(0), nullptr);
    EXPECT_EQ(panel.nameField(0)->text(), "Marker 1");
    EXPECT_EQ(panel.timeLabel(0)->text(), "0:01.500");
    model.setTimeFormat(TimeFormat::seconds);
    EXPECT_EQ(panel.timeLabel(0)->text(), "1.500");

    // Typing keeps one step for the whole name, taken when editing ends.
    QLineEdit* name = panel.nameField(0);
    name->setFocus();
    name->selectAll();
    QTest::keyClicks(name, "Chorus");
    EXPECT_EQ(undo.count(), 1);
    QTest::keyClick(name, Qt::Key_Return);
    EXPECT_EQ(model.markers().front().name, "Chorus");
    EXPECT_EQ(undo.count(), 2);
    EXPECT_EQ(undo.undoText(), "Rename Marker");

    model.setCursor(0);
    QTest::mouseClick(panel.goButton(0), Qt::LeftButton);
    EXPECT_EQ(model.cursor(), 72000);

    QTest::mouseClick(panel.removeButton(0), Qt::LeftButton);
    EXPECT_TRUE(model.markers().empty());
    EXPECT_EQ(undo.count(), 3);
    undo.undo();
    ASSERT_EQ(model.markers().size(), 1u);
    EXPECT_EQ(panel.nameField(0)->text(), "Chorus");
}

TEST(MarkersPanelTest, DeleteInTheListRemovesTheMarkerNotTheAudio) {
    AudioDocument document;
    MainWindow window(document);
    document.adopt(AudioContent({std::vector<float>(48000, 0.1f)}, rate), QStringLiteral("Tone"));
    window.show();
    window.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
    EditorModel& model = document.model();
    model.addMarker(24000);
    model.setSelection(FrameRange{100, 200});
    const int steps = document.undoStack().count();

    model.setInspectorTab(InspectorTab::markers);
    MarkersPanel& panel = window.inspector().markersPanel();
    MarkerList& list = panel.list();
    list.setCurrentRow(0);
    list.setFocus();
    ASSERT_TRUE(QTest::qWaitFor([&] { return list.hasFocus(); }, 5000));
    QTest::keyClick(&list, Qt::Key_Delete);
    EXPECT_TRUE(model.markers().empty());
    EXPECT_EQ(model.content().frameCount(), 48000);
    EXPECT_EQ(document.undoStack().count(), steps + 1);
    EXPECT_EQ(document.undoStack().undoText(), "Remove Marker");
}

TEST(InspectorIconsTest, EverySymbolAndTabIconDrawsPixels) {
    ASSERT_EQ(SymbolIcons::names().size(), 14);
    for (const QString& name : SymbolIcons::names()) {
        const QIcon icon = SymbolIcons::icon(name, Qt::black);
        ASSERT_FALSE(icon.isNull()) << name.toStdString();
        const QImage image = icon.pixmap(24, 24).toImage();
        int drawn = 0;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                drawn += qAlpha(image.pixel(x, y)) > 64 ? 1 : 0;
        EXPECT_GT(drawn, 20) << name.toStdString();
    }
    EXPECT_TRUE(SymbolIcons::icon("no.such.symbol", Qt::black).isNull());

    // Without a colour of its own a symbol takes the palette's text colour when drawn.
    const QIcon plus = SymbolIcons::icon("plus");
    const QPalette original = QApplication::palette();
    for (const QColor text : {QColor(Qt::white), QColor(Qt::red)}) {
        QPalette palette = original;
        palette.setColor(QPalette::WindowText, text);
        QApplication::setPalette(palette);
        EXPECT_EQ(plus.pixmap(24, 24).toImage().pixelColor(12, 12).rgb(), text.rgb());
    }
    QApplication::setPalette(original);

    EditorModel model(AudioContent({std::vector<float>(4800, 0.0f)}, rate), std::nullopt);
    InspectorView inspector(model);
    ASSERT_EQ(inspector.tabs().count(), 5);
    for (int tab = 0; tab < inspector.tabs().count(); ++tab)
        EXPECT_FALSE(inspector.tabs().tabIcon(tab).isNull()) << tab;
}

TEST(InspectorIconsTest, ANarrowPanelShowsEveryTabAsAnIconThatKeepsItsTitle) {
    EditorModel model(AudioContent({std::vector<float>(4800, 0.0f)}, 48000), std::nullopt);
    InspectorView inspector(model);
    const QStringList titles = {"Loudness", "Spectrum", "Info", "Markers", "Effects"};
    QTabBar& bar = *inspector.tabs().tabBar();
    for (const int width : {340, 900}) {
        SCOPED_TRACE(width);
        inspector.resize(width, 500);
        inspector.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&inspector));
        QApplication::processEvents();
        // Every tab fits: none behind the scroll arrows.
        EXPECT_LE(bar.sizeHint().width(), inspector.tabs().width());
        for (int tab = 0; tab < bar.count(); ++tab) {
            EXPECT_EQ(bar.accessibleTabName(tab), titles[tab]);
            EXPECT_EQ(bar.tabToolTip(tab), titles[tab]);
            // Titles beside the icons where there is room for them.
            EXPECT_EQ(bar.tabText(tab), width == 900 ? titles[tab] : QString());
        }
    }
}

} // namespace
} // namespace harlune
