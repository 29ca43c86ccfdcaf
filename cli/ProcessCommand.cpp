// harlune-cli process: the editor's process and edit commands, run in command-line order on one
// file, each with the selection as it stands at that point, then written as convert writes.
//
// The command line has no channel restriction, so every operation acts on all channels. Where
// the editor quietly does nothing (a fade or delete without a selection, a swap on mono), the
// command line stops with an error instead, since a script would otherwise never learn of it.
// A --tempo and a --pitch next to each other form one time/pitch operation, as the editor's
// one dialog does; a flag repeated starts a new one.
#include "CliSupport.h"
#include "Commands.h"
#include "EffectArguments.h"
#include "EncodeOptions.h"
#include "NoiseProfileOptions.h"
#include "OpenAudio.h"
#include "base/HarluneError.h"
#include "core/AudioContentBuilder.h"
#include "core/GainEnvelope.h"
#include "core/Processing.h"
#include "core/TimePitchProcessing.h"
#include "dsp/ChannelLoudness.h"
#include "dsp/Resampler.h"
#include "dsp/effects/EffectFactory.h"
#include "dsp/effects/EffectSettings.h"
#include "dsp/plugins/PluginEffect.h"
#include "engine/RackFile.h"
#include "io/AudioEncoder.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace harlune::cli {

namespace {

constexpr std::string_view usage =
    "harlune-cli process [OPS...] [--format F] [--bits 16|24|32|float] [--bitrate KBPS] [--rate HZ] "
    "[--dither none|tpdf] IN OUT\n"
    "operations, run in order:\n"
    "  --select START:END      select (seconds); without one there is no selection\n"
    "  --gain DB               --normalize-peak DBFS [--independent]\n"
    "  --fade-shape NAME       linear, logarithmic, exponential, sCurve (default), equalPower\n"
    "  --fade-in --fade-out --silence --delete --trim   (need a selection)\n"
    "  --reverse --invert --remove-dc --swap-channels --channels N (or --convert-channels N)\n"
    "  --balance-channels      trims that level the channels' loudness, applied (2 to 8 channels)\n"
    "  --envelope FILE.json    the gain envelopes of the file, applied (or --apply-envelope FILE)\n"
    "  --effect KIND[=JSON|@FILE]  a built-in effect; JSON holds some or all of its settings keys,\n"
    "                          the rest keep their defaults (harlune-cli effects lists kinds and keys)\n"
    "  --effect lv2:URI[=JSON] an LV2 plug-in; JSON holds control values by port symbol\n"
    "                          adjacent --effect options form one chain, in order\n"
    "  --effects RACK.json     a saved rack (or a list of effect settings): its enabled slots\n"
    "  --tail mix|keep|cut     effect tails: mixed over what follows (default; a rack file's own\n"
    "                          tail mode otherwise), kept whole and inserted after the range, or cut\n"
    "  --learn-noise START:END --noise-profile FILE.json   the profile of later noise reduction\n"
    "  --resample HZ           --tempo PERCENT --pitch CENTS (adjacent ones combine)\n"
    "  --time-pitch RATE:CENTS the same as one pair: 1.25:-100 plays 25 % faster, a semitone down\n"
    "  --stretch-engine NAME   finer (Rubber Band R3, default) or faster (R2), for later --tempo/--pitch";

/// What each operation sees and changes.
struct Document {
    AudioContent content;
    std::optional<FrameRange> selection;

    FrameRange scope() const { return selection.value_or(FrameRange{0, content.frameCount()}); }
    FrameRange requireSelection(const std::string& operation) const {
        if (!selection)
            throw std::runtime_error(operation + " needs a selection: use --select START:END first");
        return *selection;
    }
};

struct Operation {
    std::string name; ///< the flag, for messages and the progress bar
    /// Gets a progress bar when `showsProgress`, null otherwise.
    std::function<void(Document&, ProgressBar*)> run;
    bool showsProgress = false;
    std::optional<double> resampleRate = std::nullopt; ///< Hz, for a change of rate
};

struct ProcessRequest {
    std::vector<Operation> operations;
    EncodeOptions encode;
    std::string input;
    std::string output;
};

double parseNumber(const std::string& text, const std::string& option) {
    size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || !std::isfinite(value))
        throw UsageError{option + " needs a number, not \u2018" + text + "\u2019"};
    return value;
}

std::string formatSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

Operation selectOperation(const std::string& value) {
    const size_t colon = value.find(':');
    if (colon == std::string::npos)
        throw UsageError{"--select takes START:END in seconds, not \u2018" + value + "\u2019"};
    const double start = parseNumber(value.substr(0, colon), "--select");
    const double end = parseNumber(value.substr(colon + 1), "--select");
    if (start < 0 || end <= start)
        throw UsageError{"--select needs 0 <= START < END, not \u2018" + value + "\u2019"};
    return {"--select", [start, end](Document& document, ProgressBar*) {
                const double rate = document.content.sampleRate();
                const auto lo = static_cast<int64_t>(std::llround(start * rate));
                const auto hi = static_cast<int64_t>(std::llround(end * rate));
                const int64_t frames = document.content.frameCount();
                if (hi > frames || lo >= hi)
                    throw std::runtime_error("the selection " + formatSeconds(start) + " to " +
                                             formatSeconds(end) + " s lies outside the file (0 to " +
                                             formatSeconds(static_cast<double>(frames) / rate) + " s)");
                document.selection = FrameRange{lo, hi};
            }};
}

nlohmann::json readJSON(const std::string& path, const std::string& option) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(option + ": can\u2019t read \u2018" + path + "\u2019");
    try {
        return nlohmann::json::parse(file);
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(option + ": \u2018" + path + "\u2019 is not valid JSON: " + error.what());
    }
}

Operation envelopeOperation(const std::string& path) {
    EnvelopeSet envelopes;
    try {
        envelopes = readJSON(path, "--envelope").get<EnvelopeSet>();
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error("--envelope: \u2018" + path +
                                 "\u2019 is not an envelope set: " + error.what());
    }
    return {"--envelope", [envelopes](Document& document, ProgressBar*) {
                document.content = applyingEnvelopes(document.content, envelopes);
            }};
}

/// The noise profile that later noise-reduction effects take, once an operation has set it.
using NoiseProfileSlot = std::shared_ptr<std::optional<NoiseProfile>>;

Operation learnNoiseOperation(const std::string& value, NoiseProfileSlot slot) {
    const SecondsSpan span = parseSecondsSpan(value, "--learn-noise");
    return {"--learn-noise", [span, slot](Document& document, ProgressBar*) {
                *slot = learnNoiseProfile(document.content, span, "--learn-noise");
            }};
}

Operation noiseProfileOperation(const std::string& path, NoiseProfileSlot slot) {
    const NoiseProfile profile = readNoiseProfile(path, "--noise-profile");
    return {"--noise-profile", [profile, slot](Document& document, ProgressBar*) {
                requireProfileRate(profile, document.content.sampleRate(), "--noise-profile");
                *slot = profile;
            }};
}

/// The slots with the profile that `--learn-noise` or `--noise-profile` set, if any, given to
/// every noise reduction among them.
std::vector<EffectSlot> withNoiseProfile(std::vector<EffectSlot> slots, const NoiseProfileSlot& profile) {
    if (!*profile)
        return slots;
    for (EffectSlot& slot : slots) {
        if (auto* settings = std::get_if<EffectSettings>(&slot.source)) {
            std::vector<EffectSettings> one{*settings};
            useNoiseProfile(one, **profile);
            *settings = one.front();
        }
    }
    return slots;
}

/// The channels brought to the same loudness by gains (the trims `balanceChannels` would set,
/// applied to the samples).
AudioContent balancedChannels(const AudioContent& content) {
    const std::vector<double> trims = balancingTrims(measureChannels(content));
    if (trims.empty())
        throw std::runtime_error("--balance-channels needs 2 to 8 channels, each with a measurable loudness");
    AudioContent result = content;
    for (size_t c = 0; c < trims.size(); ++c)
        result = applyingGain(result, std::clamp(trims[c], -24.0, 24.0), std::nullopt,
                              ChannelSet{static_cast<int>(c)});
    return result;
}

/// RATE:CENTS, a rate above 0 and finite cents.
std::pair<double, double> parseTimePitch(const std::string& text) {
    const auto colon = text.find(':');
    if (colon == std::string::npos)
        throw UsageError{"--time-pitch takes RATE:CENTS, as 1.25:-100"};
    const double rate = parseNumber(text.substr(0, colon), "--time-pitch");
    const double cents = parseNumber(text.substr(colon + 1), "--time-pitch");
    if (!(rate > 0))
        throw UsageError{"--time-pitch needs a rate above 0"};
    return {rate, cents};
}

/// Runs `slots` over the scope. `tail` absent: `fallback` (a rack file's own mode, or mix).
Operation chainOperation(std::string name, std::vector<EffectSlot> slots,
                         const std::optional<TailChoice>& tail, TailChoice fallback,
                         NoiseProfileSlot noiseProfile) {
    return {std::move(name),
            [slots = std::move(slots), tail, fallback, noiseProfile](Document& document, ProgressBar* bar) {
                const auto processors = makeOfflineChain(withNoiseProfile(slots, noiseProfile));
                if (processors.empty())
                    return;
                const auto progress = [bar](double fraction) {
                    return bar->update(fraction);
                };
                const FrameRange range = document.scope();
                switch (tail.value_or(fallback)) {
                case TailChoice::mix:
                case TailChoice::cut:
                    document.content = applyingEffects(document.content, processors, range, std::nullopt,
                                                       tail.value_or(fallback) == TailChoice::cut
                                                           ? EffectTailMode::truncate
                                                           : EffectTailMode::mixIntoFollowing,
                                                       progress);
                    return;
                case TailChoice::keep: {
                    // The range alone, with its whole tail, takes the range's place.
                    const AudioContent processed =
                        applyingEffects(document.content.slice(range), processors, std::nullopt, std::nullopt,
                                        EffectTailMode::mixIntoFollowing, progress);
                    document.content.replaceSubrange(range, processed);
                    if (document.selection)
                        document.selection = FrameRange{range.lower, range.lower + processed.frameCount()};
                    return;
                }
                }
            },
            true};
}

/// A rack file for an offline render: anything the lenient reader had to skip or repair is an
/// error here, since the file written would not be what the rack was meant to do.
Operation effectsOperation(const std::string& path, const std::optional<TailChoice>& tail,
                           NoiseProfileSlot noiseProfile) {
    const auto installed = PluginEffect::installedPlugins();
    const auto reading = RackFile::readFile(path, [&](const PluginDescriptor& plugin) {
        return std::any_of(installed.begin(), installed.end(),
                           [&](const PluginDescriptor& p) { return p.id == plugin.id; });
    });
    if (!reading.rack || !reading.messages.empty()) {
        std::string text;
        for (const auto& message : reading.messages)
            text += (text.empty() ? "" : "; ") + message;
        throw std::runtime_error("--effects: \u2018" + path + "\u2019: " + text);
    }
    return chainOperation("--effects", reading.rack->slots, tail, tailChoice(reading.rack->tailMode),
                          std::move(noiseProfile));
}

Operation resampleOperation(double rate) {
    return {"--resample",
            [rate](Document& document, ProgressBar* bar) {
                const AudioContent& content = document.content;
                if (rate == content.sampleRate())
                    return;
                const double ratio = rate / content.sampleRate();
                AudioContentBuilder builder(content.channelCount(), rate);
                auto update = [bar](double fraction) {
                    return bar->update(std::clamp(fraction, 0.0, 1.0));
                };
                auto emit = [&builder](ChunkViews chunk) {
                    builder.append(chunk);
                };
                Resampler::resample(content, std::nullopt, rate, FunctionRef<bool(double)>(update),
                                    Resampler::Emit(emit));
                if (document.selection)
                    document.selection = FrameRange{
                        static_cast<int64_t>(static_cast<double>(document.selection->lower) * ratio),
                        static_cast<int64_t>(static_cast<double>(document.selection->upper) * ratio)};
                document.content = builder.build();
            },
            true, rate};
}

Operation timePitchOperation(double rate, double cents, TimePitch::Engine engine) {
    return {"--time-pitch",
            [rate, cents, engine](Document& document, ProgressBar* bar) {
                if (rate == 1 && cents == 0)
                    return;
                const FrameRange range = document.scope();
                const auto expected =
                    static_cast<int64_t>(std::llround(static_cast<double>(range.length()) / rate));
                auto update = [bar](double fraction) {
                    return bar->update(std::clamp(fraction, 0.0, 1.0));
                };
                document.content = timePitched(document.content, range, rate, cents,
                                               FunctionRef<bool(double)>(update), engine);
                if (document.selection)
                    document.selection = FrameRange{range.lower, range.lower + expected};
            },
            true};
}

/// For the operations whose whole work is one content function of the scope.
Operation scoped(std::string name, std::function<AudioContent(const AudioContent&, FrameRange)> work,
                 bool needsSelection = false) {
    return {name, [name, work = std::move(work), needsSelection](Document& document, ProgressBar*) {
                const FrameRange range = needsSelection ? document.requireSelection(name) : document.scope();
                document.content = work(document.content, range);
            }};
}

ProcessRequest parse(std::span<const std::string> arguments) {
    ProcessRequest request;
    std::vector<std::string> positional;
    FadeShape fadeShape = FadeShape::sCurve;
    TimePitch::Engine stretchEngine = TimePitch::Engine::finer;
    std::optional<double> pendingTempo;
    std::optional<double> pendingCents;
    const auto noiseProfile = std::make_shared<std::optional<NoiseProfile>>();
    // --tail holds for every chain, so the chains are made once the whole line is read.
    std::optional<TailChoice> tail;
    std::vector<std::function<Operation()>> deferred;
    std::vector<EffectSlot> pendingEffects;
    auto flushEffects = [&] {
        if (pendingEffects.empty())
            return;
        deferred.resize(request.operations.size() + 1);
        deferred.back() = [&tail, noiseProfile, slots = std::move(pendingEffects)] {
            return chainOperation("--effect", slots, tail, TailChoice::mix, noiseProfile);
        };
        request.operations.push_back({});
        pendingEffects.clear();
    };
    auto flushTimePitch = [&] {
        if (pendingTempo || pendingCents)
            request.operations.push_back(
                timePitchOperation(pendingTempo.value_or(1.0), pendingCents.value_or(0.0), stretchEngine));
        pendingTempo.reset();
        pendingCents.reset();
    };
    ArgumentReader reader(arguments);
    while (reader.next()) {
        const std::string& argument = reader.current();
        if (!reader.isOption()) {
            positional.push_back(argument);
            continue;
        }
        auto value = [&]() -> const std::string& {
            return reader.value();
        };
        if (argument == "--tempo" || argument == "--pitch") {
            const bool tempo = argument == "--tempo";
            flushEffects();
            if ((tempo && pendingTempo) || (!tempo && pendingCents))
                flushTimePitch();
            if (tempo)
                pendingTempo = parsePositiveNumber(value(), argument) / 100.0;
            else
                pendingCents = parseNumber(value(), argument);
            continue;
        }
        flushTimePitch();
        if (argument == "--effect") {
            pendingEffects.push_back(parseEffectArgument(value()));
            continue;
        }
        if (argument == "--tail") {
            tail = parseTailChoice(value());
            continue;
        }
        flushEffects();
        if (argument == "--select") {
            request.operations.push_back(selectOperation(value()));
        } else if (argument == "--gain") {
            const double db = parseNumber(value(), argument);
            request.operations.push_back(
                scoped(argument, [db](const AudioContent& content, FrameRange range) {
                    return applyingGain(content, db, range);
                }));
        } else if (argument == "--normalize-peak") {
            const double db = parseNumber(value(), argument);
            const bool independent = reader.takeFlag("--independent");
            request.operations.push_back(
                scoped(argument, [db, independent](const AudioContent& content, FrameRange range) {
                    return normalizingPeak(content, db, range, std::nullopt, independent);
                }));
        } else if (argument == "--independent") {
            throw UsageError{"--independent belongs right after --normalize-peak DBFS"};
        } else if (argument == "--fade-shape") {
            const std::string& name = value();
            const auto shape = fadeShapeFromRawValue(name);
            if (!shape)
                throw UsageError{"unknown fade shape \u2018" + name +
                                 "\u2019 (linear, logarithmic, exponential, sCurve, equalPower)"};
            fadeShape = *shape;
        } else if (argument == "--stretch-engine") {
            const std::string& name = value();
            const auto engine = TimePitch::engineFromRawValue(name);
            if (!engine)
                throw UsageError{"unknown stretch engine \u2018" + name + "\u2019 (finer, faster)"};
            stretchEngine = *engine;
        } else if (argument == "--fade-in" || argument == "--fade-out") {
            const FadeDirection direction =
                argument == "--fade-in" ? FadeDirection::fadeIn : FadeDirection::fadeOut;
            request.operations.push_back(scoped(
                argument,
                [direction, fadeShape](const AudioContent& content, FrameRange range) {
                    return applyingFade(content, direction, fadeShape, range);
                },
                true));
        } else if (argument == "--silence") {
            request.operations.push_back(scoped(
                argument,
                [](const AudioContent& content, FrameRange range) { return silenced(content, range); },
                true));
        } else if (argument == "--reverse") {
            request.operations.push_back(scoped(argument, [](const AudioContent& content, FrameRange range) {
                return reversed(content, range);
            }));
        } else if (argument == "--invert") {
            request.operations.push_back(scoped(argument, [](const AudioContent& content, FrameRange range) {
                return inverted(content, range);
            }));
        } else if (argument == "--remove-dc") {
            request.operations.push_back(scoped(argument, [](const AudioContent& content, FrameRange range) {
                return removingDCOffset(content, range);
            }));
        } else if (argument == "--balance-channels") {
            request.operations.push_back({argument, [](Document& document, ProgressBar*) {
                                              document.content = balancedChannels(document.content);
                                          }});
        } else if (argument == "--time-pitch") {
            flushEffects();
            flushTimePitch();
            const auto [rate, cents] = parseTimePitch(value());
            request.operations.push_back(timePitchOperation(rate, cents, stretchEngine));
        } else if (argument == "--channels" || argument == "--convert-channels") {
            const int count = parsePositiveInteger(value(), argument);
            request.operations.push_back({argument, [count](Document& document, ProgressBar*) {
                                              if (count != document.content.channelCount())
                                                  document.content = remixed(document.content, count);
                                          }});
        } else if (argument == "--swap-channels") {
            request.operations.push_back(
                {argument, [](Document& document, ProgressBar*) {
                     const int channels = document.content.channelCount();
                     if (channels != 2)
                         throw std::runtime_error("--swap-channels needs exactly 2 channels; the audio has " +
                                                  std::to_string(channels));
                     const int order[] = {1, 0};
                     document.content = rearrangingChannels(document.content, order);
                 }});
        } else if (argument == "--delete") {
            request.operations.push_back({argument, [](Document& document, ProgressBar*) {
                                              const FrameRange range = document.requireSelection("--delete");
                                              document.content.deleteRange(range);
                                              document.selection.reset();
                                          }});
        } else if (argument == "--trim") {
            request.operations.push_back({argument, [](Document& document, ProgressBar*) {
                                              const FrameRange range = document.requireSelection("--trim");
                                              document.content = document.content.slice(range);
                                              document.selection.reset();
                                          }});
        } else if (argument == "--envelope" || argument == "--apply-envelope") {
            request.operations.push_back(envelopeOperation(value()));
        } else if (argument == "--effects") {
            const std::string path = value();
            deferred.resize(request.operations.size() + 1);
            deferred.back() = [&tail, path, noiseProfile] {
                return effectsOperation(path, tail, noiseProfile);
            };
            request.operations.push_back({});
        } else if (argument == "--learn-noise") {
            request.operations.push_back(learnNoiseOperation(value(), noiseProfile));
        } else if (argument == "--noise-profile") {
            request.operations.push_back(noiseProfileOperation(value(), noiseProfile));
        } else if (argument == "--resample") {
            request.operations.push_back(resampleOperation(parsePositiveNumber(value(), argument)));
        } else if (!request.encode.parse(reader)) {
            throw reader.unknownOption();
        }
    }
    flushTimePitch();
    flushEffects();
    for (size_t i = 0; i < deferred.size(); ++i)
        if (deferred[i])
            request.operations[i] = deferred[i]();
    if (positional.size() != 2)
        throw UsageError{"expected an input and an output file"};
    request.input = positional[0];
    request.output = positional[1];
    request.encode.resolveFormat(request.output);
    return request;
}

int runProcess(std::span<const std::string> arguments) {
    const ProcessRequest request = parse(arguments);
    // A lone change of rate needs neither the whole file nor an edit: it streams as convert does,
    // converting the channels in parallel (where the format would change the rate again, the
    // two steps stay apart).
    if (request.operations.size() == 1 && request.operations.front().resampleRate &&
        !request.encode.sampleRate) {
        const double rate = *request.operations.front().resampleRate;
        if (EncodePlan::resolveRate(*request.encode.format, rate) == rate) {
            EncodeOptions options = request.encode;
            options.sampleRate = rate;
            convertAudio(request.input, request.output, options);
            return exitSuccess;
        }
    }
    Document document{openAudioShowingProgress(request.input).content, std::nullopt};
    refuseNonFiniteSamples(document.content);
    for (const Operation& operation : request.operations) {
        std::optional<ProgressBar> bar;
        if (operation.showsProgress)
            bar.emplace(operation.name.substr(2) + " ");
        operation.run(document, bar ? &*bar : nullptr);
    }
    writeAudio(document.content, request.output, request.encode);
    keepUntilExit(std::move(document.content));
    return exitSuccess;
}

} // namespace

Command processCommand() {
    return {"process", "apply the editor's operations to a file and write the result", usage, runProcess};
}

} // namespace harlune::cli
