// Records a real PipeWire source into a document in each record mode while the click track
// plays into the sink it monitors, then finds the take in the document: the take must sit where
// the mode puts it, be as long as the recorder captured, and hold the click track exactly (the
// sink, source and streams are float at 48 kHz with unit volumes, so nothing may change it).
// Usage: harlune-e2e-record-modes UID FOLDER PATH/TO/harlune-e2e-tool
#include "../engine/e2e/ClickTrack.h"
#include "core/AudioContentBuilder.h"
#include "editor/EditorModel.h"
#include "editor/EnginePlaybackControl.h"
#include "editor/EngineRecorderControl.h"
#include "engine/devices/PipeWireInputDevice.h"

#include <QGuiApplication>
#include <QProcess>
#include <QTest>
#include <QUndoStack>
#include <cstdio>

using namespace harlune;

namespace {

constexpr double rate = 48000;
constexpr int64_t baseFrames = 48000;
constexpr int64_t cursor = 12000;
constexpr int64_t selectionEnd = 20000;

AudioContent baseContent() {
    // A quiet ramp that the take must leave in place around it.
    std::vector<float> plane(static_cast<size_t>(baseFrames));
    for (size_t i = 0; i < plane.size(); ++i)
        plane[i] = static_cast<float>(i % 100) * 1e-3f;
    AudioContentBuilder builder(2, rate);
    builder.append(std::vector<std::vector<float>>{plane, plane});
    return builder.build();
}

bool check(bool ok, const char* what) {
    std::printf("  %s: %s\n", what, ok ? "ok" : "FAILED");
    return ok;
}

bool recordIn(RecordMode mode, const char* name, uint32_t deviceID, const std::string& folder,
              const QString& tool) {
    std::printf("%s\n", name);
    auto control = std::make_unique<EngineRecorderControl>(
        std::make_shared<PipeWireInputDevice>(postToQtMainThread()),
        Recorder::Options{Recorder::TapDriving::thread, folder, {}}, qtRepeatingTimers());
    EngineRecorderControl& recorder = *control;
    EditorCollaborators collaborators;
    collaborators.recorder = std::move(control);
    const AudioContent base = baseContent();
    EditorModel model(base, std::nullopt, std::move(collaborators));
    QUndoStack undo;
    model.setUndoManager(&undo);
    model.setCursor(cursor);
    if (mode == RecordMode::replace)
        model.setSelection(FrameRange{cursor, selectionEnd});
    recorder.setMode(mode);
    recorder.recorder().setDeviceID(deviceID);
    recorder.recorder().arm();
    if (!recorder.recorder().isArmed())
        return check(false, recorder.recorder().errorMessage().value_or("arming").c_str());
    QTest::qWait(300);
    recorder.recorder().start();
    QProcess player;
    player.start(tool, {"play", "--backend", "pipewire", "--rate", "48000", "--channels", "2", "--lead",
                        "0.2", "--seconds", "1.5", "--clicks", "1"});
    if (!player.waitForFinished(30000) || player.exitCode() != 0)
        return check(false, "the click track played");
    QTest::qWait(300);
    recorder.recorder().stop();
    if (!QTest::qWaitFor([&] { return !model.busy(); }, 20000))
        return check(false, "the take landed");
    const int64_t captured = recorder.recorder().elapsedFrames();
    const int64_t overruns =
        recorder.recorder().buffer() ? recorder.recorder().buffer()->ring().overruns() : -1;
    recorder.recorder().disarm();

    bool ok = check(undo.count() == 1 && undo.undoText() == "Record", "one undo step named Record");
    ok = check(overruns == 0, "no ring overruns") && ok;
    const AudioContent& content = model.content();
    const int64_t at = mode == RecordMode::append ? baseFrames : cursor;
    const int64_t replaced = mode == RecordMode::replace
                                 ? std::min(std::max(selectionEnd, cursor + captured), baseFrames) - cursor
                                 : 0;
    std::printf("  captured %lld frames, document %lld frames\n", static_cast<long long>(captured),
                static_cast<long long>(content.frameCount()));
    ok = check(content.frameCount() == baseFrames - replaced + captured, "length is base + captured") && ok;
    const auto planes = content.readChannels(content.fullRange());
    const auto basePlanes = base.readChannels(base.fullRange());
    const std::vector<float> signal = e2e::clickTrack(rate, 0.2, 1.5);
    for (size_t c = 0; c < planes.size(); ++c) {
        const auto& plane = planes[c];
        ok = check(std::equal(plane.begin(), plane.begin() + at, basePlanes[c].begin()),
                   "before the take untouched") &&
             ok;
        ok = check(std::equal(plane.begin() + at + captured, plane.end(),
                              basePlanes[c].begin() + at + replaced),
                   "after the take is the rest of the base") &&
             ok;
        const std::vector<float> take(plane.begin() + at, plane.begin() + at + captured);
        const int64_t offset = e2e::alignmentOffset(take, signal);
        const double residual = offset < 0 ? 0 : e2e::residualDB(take, signal, offset);
        std::printf("  channel %zu: click track at %lld, residual %.1f dB\n", c,
                    static_cast<long long>(offset), residual);
        ok = check(offset >= 0 && residual < -90, "the take is the click track") && ok;
    }
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s UID FOLDER PATH/TO/harlune-e2e-tool\n", argv[0]);
        return 2;
    }
    QGuiApplication application(argc, argv);
    std::optional<uint32_t> id;
    {
        PipeWireInputDevice device(postToQtMainThread());
        for (const InputDevice& input : device.inputDevices())
            if (input.uid == argv[1])
                id = input.id;
    }
    if (!id) {
        std::fprintf(stderr, "no input %s\n", argv[1]);
        return 1;
    }
    bool ok = true;
    ok = recordIn(RecordMode::insert, "insert", *id, argv[2], argv[3]) && ok;
    ok = recordIn(RecordMode::replace, "replace", *id, argv[2], argv[3]) && ok;
    ok = recordIn(RecordMode::append, "append", *id, argv[2], argv[3]) && ok;
    std::printf(ok ? "all modes ok\n" : "a mode failed\n");
    return ok ? 0 : 1;
}
