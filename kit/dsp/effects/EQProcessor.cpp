#include "dsp/effects/EQProcessor.h"

#include "dsp/effects/EQDesign.h"

#include <algorithm>
#include <cmath>

namespace harlune {

namespace {

constexpr int movingChunk = 32;

double clampedQ(double q) {
    return std::isfinite(q) ? std::clamp(q, 0.025, 40.0) : 0.707;
}

// One transposed direct form II step.
inline double runSection(const BiquadCoefficients& c, double x, double& s1, double& s2) {
    const double y = c.b0 * x + s1;
    s1 = s2 + c.b1 * x - c.a1 * y;
    s2 = c.b2 * x - c.a2 * y;
    return y;
}

BiquadCoefficients plus(const BiquadCoefficients& c, const BiquadCoefficients& step, double i) {
    return {c.b0 + step.b0 * i, c.b1 + step.b1 * i, c.b2 + step.b2 * i, c.a1 + step.a1 * i,
            c.a2 + step.a2 * i};
}

} // namespace

EQProcessor::EQProcessor() {
    for (Band& band : bands_) {
        band.target.logF = std::log(band.target.frequency);
        band.target.logQ = std::log(band.target.q);
    }
    apply(EQSettings{});
}

void EQProcessor::apply(const EffectSettings& settings) noexcept {
    const auto* eq = settings.as<EQSettings>();
    if (eq == nullptr)
        return;
    for (size_t b = 0; b < bands_.size(); ++b) {
        Target& target = bands_[b].target;
        if (b >= eq->bands.size()) {
            target.enabled = false;
            continue;
        }
        const EQBand& band = eq->bands[b];
        target.enabled = band.isEnabled;
        target.type = band.type;
        target.sections = usesSlope(band.type) ? EQDesign::cutSections(band.slopeDBPerOctave) : 1;
        target.frequency = std::isfinite(band.frequency) ? std::max(band.frequency, 5.0) : 1000.0;
        target.gainDB = EQDesign::clampedGainDB(band.gainDB);
        target.q = clampedQ(band.q);
        target.logF = std::log(target.frequency);
        target.logQ = std::log(target.q);
    }
    targetOutDB_ = EQDesign::clampedGainDB(eq->outputGainDB);
}

void EQProcessor::doPrepare(double sampleRate, int channelCount, int maxFrames) {
    prepared_ = false;
    channelCount_ = std::max(1, channelCount);
    maxFrames_ = std::max(1, maxFrames);
    sampleRate_ = sampleRate > 0 ? sampleRate : 48000;
    state_.assign(static_cast<size_t>(channelCount_) * slotCount * 2, 0.0);
    pairBuffer_.assign(static_cast<size_t>(maxFrames_), {0.0, 0.0});
    prepared_ = true;
}

void EQProcessor::design(const Band& band, std::array<BiquadCoefficients, slotCount>& into,
                         int bandIndex) const {
    const BiquadCascade4 cascade =
        EQDesign::band(band.type, band.frequency, band.gainDB, band.q, band.sections * 12, sampleRate_);
    for (int k = 0; k < sectionsPerBand; ++k)
        into[static_cast<size_t>(bandIndex * sectionsPerBand + k)] = cascade.sections[static_cast<size_t>(k)];
}

void EQProcessor::jumpToTarget(Band& band) noexcept {
    const Target& t = band.target;
    band.type = t.type;
    band.sections = t.sections;
    band.frequency = t.frequency;
    band.gainDB = t.gainDB;
    band.q = t.q;
    band.logF = t.logF;
    band.logQ = t.logQ;
}

void EQProcessor::doReset() noexcept {
    std::fill(state_.begin(), state_.end(), 0.0);
    const int idleLimit = static_cast<int>(sampleRate_ * 0.25);
    for (int b = 0; b < bandCount; ++b) {
        Band& band = bands_[static_cast<size_t>(b)];
        band.running = band.target.enabled;
        jumpToTarget(band);
        band.mix = 1;
        design(band, coef_, b);
        design(band, coefEnd_, b);
        bool flat = true;
        for (int k = 0; k < sectionsPerBand; ++k)
            flat = flat && EQDesign::isIdentity(coef_[static_cast<size_t>(b * sectionsPerBand + k)]);
        band.idle = flat ? 0 : idleLimit;
        ramping_[static_cast<size_t>(b)] = false;
    }
    outDB_ = targetOutDB_;
    gainStart_ = std::pow(10.0, outDB_ / 20);
    gainStep_ = 0;
}

bool EQProcessor::isMoving() const {
    if (outDB_ != targetOutDB_)
        return true;
    for (const Band& band : bands_) {
        const Target& t = band.target;
        if (!band.running) {
            if (t.enabled)
                return true;
            continue;
        }
        const bool same = band.type == t.type && band.sections == t.sections;
        const double goal = t.enabled && same ? 1 : 0;
        if (band.mix != goal)
            return true;
        if (same && (band.frequency != t.frequency || band.gainDB != t.gainDB || band.q != t.q))
            return true;
    }
    return false;
}

void EQProcessor::clearState(int band) {
    for (int c = 0; c < channelCount_; ++c)
        std::fill_n(stateOf(c, band * sectionsPerBand), sectionsPerBand * 2, 0.0);
}

void EQProcessor::startBand(int b) {
    Band& band = bands_[static_cast<size_t>(b)];
    clearState(b);
    jumpToTarget(band);
    design(band, coef_, b);
    design(band, coefEnd_, b);
    band.idle = 0;
    band.running = true;
    band.mix = 0;
}

void EQProcessor::updateChunk(int frames) {
    const double n = frames;
    const double r = std::exp(-1 / ((sampleRate_ / n) * 0.015));
    const double mixStep = n / (sampleRate_ * 0.02);
    const int idleLimit = static_cast<int>(sampleRate_ * 0.25);
    activeCount_ = 0;
    for (int b = 0; b < bandCount; ++b) {
        Band& band = bands_[static_cast<size_t>(b)];
        const Target& t = band.target;
        const int first = b * sectionsPerBand;
        ramping_[static_cast<size_t>(b)] = false;
        band.active = false;
        if (!band.running) {
            if (!t.enabled)
                continue;
            startBand(b);
        } else if (band.mix == 0 && (!t.enabled || band.type != t.type || band.sections != t.sections)) {
            if (t.enabled) {
                startBand(b);
            } else {
                clearState(b);
                band.running = false;
                continue;
            }
        }
        const bool same = band.type == t.type && band.sections == t.sections;
        if (same && (band.frequency != t.frequency || band.gainDB != t.gainDB || band.q != t.q)) {
            band.logF = t.logF + r * (band.logF - t.logF);
            band.gainDB = t.gainDB + r * (band.gainDB - t.gainDB);
            band.logQ = t.logQ + r * (band.logQ - t.logQ);
            if (std::abs(band.logF - t.logF) <= 1e-6 && std::abs(band.gainDB - t.gainDB) <= 1e-5 &&
                std::abs(band.logQ - t.logQ) <= 1e-6) {
                band.logF = t.logF;
                band.gainDB = t.gainDB;
                band.logQ = t.logQ;
                band.frequency = t.frequency;
                band.q = t.q;
            } else {
                band.frequency = std::exp(band.logF);
                band.q = std::exp(band.logQ);
            }
            design(band, coefEnd_, b);
            for (int k = 0; k < band.sections; ++k) {
                const auto slot = static_cast<size_t>(first + k);
                const BiquadCoefficients& from = coef_[slot];
                const BiquadCoefficients& to = coefEnd_[slot];
                step_[slot] = {(to.b0 - from.b0) / n, (to.b1 - from.b1) / n, (to.b2 - from.b2) / n,
                               (to.a1 - from.a1) / n, (to.a2 - from.a2) / n};
            }
            ramping_[static_cast<size_t>(b)] = true;
        }

        bool flat = true;
        for (int k = 0; k < sectionsPerBand; ++k) {
            const auto slot = static_cast<size_t>(first + k);
            flat = flat && EQDesign::isIdentity(coef_[slot]) && EQDesign::isIdentity(coefEnd_[slot]);
        }
        if (!flat) {
            band.idle = idleLimit;
        } else if (band.idle > 0) {
            band.idle -= frames;
            if (band.idle < 1)
                clearState(b);
        }

        const double goal = t.enabled && same ? 1 : 0;
        const double oldMix = band.mix;
        band.mix = goal > oldMix ? std::min(oldMix + mixStep, goal) : std::max(oldMix - mixStep, goal);
        if (flat && band.idle <= 0)
            continue;
        if (oldMix == 0 && band.mix == 0)
            continue;
        band.active = true;
        const auto a = static_cast<size_t>(activeCount_++);
        actSlot_[a] = first;
        actSections_[a] = band.sections;
        actRamp_[a] = ramping_[static_cast<size_t>(b)];
        actMixing_[a] = !(oldMix == 1 && band.mix == 1);
        actMix0_[a] = oldMix;
        actMixStep_[a] = (band.mix - oldMix) / n;
    }

    gainStart_ = std::pow(10.0, outDB_ / 20);
    if (outDB_ != targetOutDB_) {
        double next = targetOutDB_ + r * (outDB_ - targetOutDB_);
        if (std::abs(next - targetOutDB_) <= 1e-5)
            next = targetOutDB_;
        gainStep_ = (std::pow(10.0, next / 20) - gainStart_) / n;
        outDB_ = next;
    } else {
        gainStep_ = 0;
    }
}

void EQProcessor::runChunk(ChannelSpan channels) {
    const int frames = channels.frameCount();
    const bool unity = gainStart_ == 1 && gainStep_ == 0;
    for (int c = 0; c < channels.channelCount(); ++c) {
        float* samples = channels.channel(c);
        double* channelState = stateOf(c, 0);
        for (int f = 0; f < frames; ++f) {
            const double i = f + 1;
            double x = samples[f];
            for (int a = 0; a < activeCount_; ++a) {
                const auto at = static_cast<size_t>(a);
                const double dry = x;
                for (int k = 0; k < actSections_[at]; ++k) {
                    const auto slot = static_cast<size_t>(actSlot_[at] + k);
                    double* s = channelState + slot * 2;
                    x = actRamp_[at] ? runSection(plus(coef_[slot], step_[slot], i), x, s[0], s[1])
                                     : runSection(coef_[slot], x, s[0], s[1]);
                }
                if (actMixing_[at])
                    x = dry + (x - dry) * (actMix0_[at] + actMixStep_[at] * i);
            }
            if (!unity) {
                const double gain = gainStart_ + gainStep_ * i;
                if (gain != 1)
                    x *= gain;
            }
            samples[f] = static_cast<float>(x);
        }
    }
}

void EQProcessor::flattenStaticChunk() {
    int count = 0;
    for (int a = 0; a < activeCount_; ++a)
        for (int k = 0; k < actSections_[static_cast<size_t>(a)]; ++k) {
            const int slot = actSlot_[static_cast<size_t>(a)] + k;
            flatCoef_[static_cast<size_t>(count)] = coef_[static_cast<size_t>(slot)];
            flatSlot_[static_cast<size_t>(count)] = slot;
            ++count;
        }
    while (count % 4 != 0) {
        flatCoef_[static_cast<size_t>(count)] = BiquadCoefficients{};
        flatSlot_[static_cast<size_t>(count)] = -1;
        ++count;
    }
    flatCount_ = count;
}

// Two channels as the two lanes of one sweep (a lone channel fills both lanes with the same
// data), four sections per pass over the buffer so their state stays in registers.
void EQProcessor::runStaticPair(float* left, float* right, int leftChannel, int rightChannel, int frames) {
    for (int j = 0; j < flatCount_; ++j) {
        auto& lanes = pairState_[static_cast<size_t>(j)];
        const int slot = flatSlot_[static_cast<size_t>(j)];
        if (slot < 0) {
            lanes = {0, 0, 0, 0};
            continue;
        }
        const double* l = stateOf(leftChannel, slot);
        const double* r = stateOf(rightChannel, slot);
        lanes = {l[0], r[0], l[1], r[1]};
    }
    auto* buffer = pairBuffer_.data();
    for (int f = 0; f < frames; ++f)
        buffer[f] = {static_cast<double>(left[f]), static_cast<double>(right[f])};

    for (int j = 0; j < flatCount_; j += 4) {
        const auto at = static_cast<size_t>(j);
        const BiquadCoefficients c0 = flatCoef_[at], c1 = flatCoef_[at + 1], c2 = flatCoef_[at + 2],
                                 c3 = flatCoef_[at + 3];
        auto s0 = pairState_[at], s1 = pairState_[at + 1], s2 = pairState_[at + 2], s3 = pairState_[at + 3];
        for (int f = 0; f < frames; ++f)
            for (int lane = 0; lane < 2; ++lane) {
                double x = buffer[f][static_cast<size_t>(lane)];
                x = runSection(c0, x, s0[static_cast<size_t>(lane)], s0[static_cast<size_t>(lane + 2)]);
                x = runSection(c1, x, s1[static_cast<size_t>(lane)], s1[static_cast<size_t>(lane + 2)]);
                x = runSection(c2, x, s2[static_cast<size_t>(lane)], s2[static_cast<size_t>(lane + 2)]);
                x = runSection(c3, x, s3[static_cast<size_t>(lane)], s3[static_cast<size_t>(lane + 2)]);
                buffer[f][static_cast<size_t>(lane)] = x;
            }
        pairState_[at] = s0;
        pairState_[at + 1] = s1;
        pairState_[at + 2] = s2;
        pairState_[at + 3] = s3;
    }

    for (int j = 0; j < flatCount_; ++j) {
        const int slot = flatSlot_[static_cast<size_t>(j)];
        if (slot < 0)
            continue;
        const auto& lanes = pairState_[static_cast<size_t>(j)];
        double* l = stateOf(leftChannel, slot);
        l[0] = lanes[0];
        l[1] = lanes[2];
        if (rightChannel != leftChannel) {
            double* r = stateOf(rightChannel, slot);
            r[0] = lanes[1];
            r[1] = lanes[3];
        }
    }

    const bool unity = gainStart_ == 1 && gainStep_ == 0;
    for (int f = 0; f < frames; ++f) {
        double l = buffer[f][0];
        double r = buffer[f][1];
        if (!unity) {
            const double gain = gainStart_ + gainStep_ * (f + 1);
            if (gain != 1) {
                l *= gain;
                r *= gain;
            }
        }
        left[f] = static_cast<float>(l);
        if (right != left)
            right[f] = static_cast<float>(r);
    }
}

void EQProcessor::commitChunk() {
    for (int b = 0; b < bandCount; ++b) {
        if (!ramping_[static_cast<size_t>(b)])
            continue;
        for (int k = 0; k < sectionsPerBand; ++k) {
            const auto slot = static_cast<size_t>(b * sectionsPerBand + k);
            coef_[slot] = coefEnd_[slot];
        }
        ramping_[static_cast<size_t>(b)] = false;
    }
    gainStart_ = std::pow(10.0, outDB_ / 20);
}

void EQProcessor::doProcess(ChannelSpan channels) noexcept {
    if (!prepared_ || channels.frameCount() < 1 || state_.empty())
        return;
    const ChannelSpan used = channels.firstChannels(channelCount_);
    for (int done = 0; done < used.frameCount();) {
        const int chunk = std::min(isMoving() ? movingChunk : maxFrames_, used.frameCount() - done);
        const ChannelSpan piece = used.frames(done, chunk);
        updateChunk(chunk);
        const bool bypass = activeCount_ == 0 && gainStart_ == 1 && gainStep_ == 0;
        if (!bypass) {
            bool still = true;
            for (int a = 0; a < activeCount_; ++a)
                still = still && !actRamp_[static_cast<size_t>(a)] && !actMixing_[static_cast<size_t>(a)];
            if (still) {
                flattenStaticChunk();
                for (int c = 0; c < piece.channelCount(); c += 2) {
                    const int right = std::min(c + 1, piece.channelCount() - 1);
                    runStaticPair(piece.channel(c), piece.channel(right), c, right, chunk);
                }
            } else {
                runChunk(piece);
            }
        }
        commitChunk();
        done += chunk;
    }
}

} // namespace harlune
