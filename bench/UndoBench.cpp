// Undo and redo of a process step on an hour of stereo: each swaps whole states, so the figure
// should not depend on the length (target: under 1 ms).
#include "core/Processing.h"
#include "editor/EditorModel.h"

#include <QCoreApplication>
#include <QUndoStack>
#include <benchmark/benchmark.h>

namespace harlune::bench {
namespace {

// One hour of stereo made of one shared block of a second, as an edited file would be.
AudioContent anHourOfStereo() {
    std::vector<std::vector<float>> second(2, std::vector<float>(48000, 0.25f));
    const AudioContent piece(second, 48000);
    AudioContent hour = piece;
    for (int i = 1; i < 3600; ++i)
        hour.replaceSubrange({hour.frameCount(), hour.frameCount()}, piece);
    return hour;
}

void undoProcessStep(benchmark::State& state) {
    static int argc = 1;
    static char name[] = "harlune-bench";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);

    const AudioContent hour = anHourOfStereo();
    EditorModel model(hour, std::nullopt);
    QUndoStack stack;
    model.setUndoManager(&stack);
    // A gain over the whole hour as the process frame commits it: restore, then one step back.
    EditState next = model.snapshot();
    next.content = applyingGain(hour, -3);
    const EditState before = model.snapshot();
    model.restore(next);
    model.registerUndo(before, QStringLiteral("Gain -3.0 dB"));
    for (auto _ : state) {
        stack.undo();
        stack.redo();
    }
    state.SetLabel("one undo and one redo");
}
BENCHMARK(undoProcessStep)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace harlune::bench
