// Commands on the gain envelopes. A drag writes straight into `envelopes` for instant feedback;
// the `end…` commands then fold the whole drag into one undo step.

#include "base/HarluneError.h"
#include "core/Processing.h"
#include "dsp/ChannelLoudness.h"
#include "editor/EditorModel.h"

#include <algorithm>
#include <cmath>

namespace harlune {

void EditorModel::commitEnvelopes(const EnvelopeSet& before, EnvelopeSet edited, const QString& name) {
    // The step brings back the state from before the drag, though the drag wrote live.
    EditState previous = snapshot();
    previous.envelope = before;
    EditState next = snapshot();
    next.envelope = std::move(edited);
    restore(next);
    registerUndo(std::move(previous), name);
}

void EditorModel::endEnvelopeEdit(const GainEnvelope& from, const QString& name) {
    if (from.points() == envelopes_[envelopeTarget_].points())
        return; // a click without a drag
    EnvelopeSet before = envelopes_;
    before.set(envelopeTarget_, from);
    commitEnvelopes(before, envelopes_, name);
}

void EditorModel::endChannelTrimEdit(const EnvelopeSet& from) {
    if (from == envelopes_)
        return;
    commitEnvelopes(from, envelopes_, QStringLiteral("Channel Levels"));
}

void EditorModel::removeEnvelopePoint(const Uuid& id) {
    EditState next = snapshot();
    next.envelope.edit(envelopeTarget_).remove(id);
    commitEdit(next, QStringLiteral("Delete Gain Point"));
}

void EditorModel::clearEnvelope() {
    if (envelopes_.isEmpty())
        return;
    // All of it, whichever curve is the target: master, channel curves and trims.
    EditState next = snapshot();
    next.envelope = EnvelopeSet{};
    commitEdit(next, QStringLiteral("Clear Gain Envelope"));
}

void EditorModel::balanceChannels() {
    const int channels = content_.channelCount();
    const std::vector<double> trims = balancingTrims(channelLoudness_);
    if (channels < 2 || trims.size() != static_cast<size_t>(channels)) {
        if (alertSound_)
            alertSound_();
        return;
    }
    EditState next = snapshot();
    for (int c = 0; c < channels; ++c)
        next.envelope.setTrim(c, next.envelope.trim(c) + trims[static_cast<size_t>(c)], channels);
    commitEdit(next, QStringLiteral("Balance Channels"));
}

void EditorModel::resetChannelTrims() {
    if (std::none_of(envelopes_.trimDB.begin(), envelopes_.trimDB.end(),
                     [](double trim) { return std::abs(trim) > 1e-6; }))
        return;
    EditState next = snapshot();
    next.envelope.trimDB.clear();
    commitEdit(next, QStringLiteral("Reset Channel Levels"));
}

void EditorModel::applyEnvelope() {
    if (envelopes_.isFlat()) {
        // Points at 0 dB change nothing in the samples: they are simply dropped.
        clearEnvelope();
        return;
    }
    Work work = [set = envelopes_](AudioContent content, std::shared_ptr<ProgressToken> token) {
        if (token->isCancelled())
            throw HarluneError::cancelled();
        return applyingEnvelopes(content, set);
    };
    process(QStringLiteral("Apply Gain Envelope"), std::move(work), std::nullopt, {},
            [](const AudioContent&) { return EnvelopeSet{}; });
}

} // namespace harlune
