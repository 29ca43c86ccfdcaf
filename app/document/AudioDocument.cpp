#include "document/AudioDocument.h"

#include "base/HarluneError.h"
#include "core/AudioContentBuilder.h"
#include "core/EnvelopedSource.h"
#include "document/SaveSettings.h"
#include "editor/BackgroundJob.h"
#include "io/AudioDecoder.h"
#include "io/AudioEncoder.h"
#include "io/DecodeInParts.h"

#include <algorithm>

namespace harlune {

namespace {

struct Decoded {
    AudioContent content;
    AudioFileInfo info;
};

QString fileName(const std::filesystem::path& url) {
    return QString::fromStdString(url.filename().string());
}

// "Opening “name”": the quotes are U+201C and U+201D.
QString busyTitle(const char* verb, const QString& name) {
    return QStringLiteral("%1 \u201C%2\u201D").arg(QLatin1String(verb), name);
}

// The message of a failed job, or none for a cancellation.
std::optional<QString> failureText(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const HarluneError& failure) {
        if (failure.isCancelled())
            return std::nullopt;
        return QString::fromStdString(failure.what());
    } catch (const std::exception& failure) {
        return QString::fromStdString(failure.what());
    }
}

// Stores the fraction and answers whether to go on.
auto reporter(const std::shared_ptr<ProgressToken>& token) {
    return [token](double fraction) {
        token->setFraction(std::clamp(fraction, 0.0, 1.0));
        return !token->isCancelled();
    };
}

} // namespace

AudioDocument::AudioDocument(EditorCollaborators collaborators, QObject* parent)
    : QObject(parent),
      model_(std::make_unique<EditorModel>(AudioContent(2, 48000), std::nullopt, std::move(collaborators))) {
    model_->setUndoManager(&undoStack_);
}

AudioDocument::~AudioDocument() {
    model_->stop(false);
}

QString AudioDocument::displayName() const {
    return file_ ? fileName(*file_) : name_;
}

void AudioDocument::adopt(AudioContent content, const QString& name) {
    file_.reset();
    saveSettings_.reset();
    name_ = name;
    model_->load(std::move(content), std::nullopt);
    undoStack_.clear();
    emit opened();
}

void AudioDocument::open(const std::filesystem::path& url) {
    const AudioFileInfo probed = AudioDecoder::probe(url);
    file_ = url;
    saveSettings_ = settingsMatching(probed);

    auto token = std::make_shared<ProgressToken>();
    model_->beginExternalBusy(busyTitle("Opening", fileName(url)), token);
    auto decode = [url, token]() {
        // One builder per part of the file, each filled by its own thread; the parts' contents
        // are joined in order at the end (a join of piece tables, no samples copied).
        std::vector<AudioContentBuilder> builders;
        const auto progress = reporter(token);
        const auto onFormat = [&builders](const AudioFileInfo& info, int parts) {
            builders.clear();
            for (int part = 0; part < parts; ++part)
                builders.emplace_back(info.channelCount, info.sampleRate);
        };
        const auto onChunk = [&builders](int part, ChunkViews chunk) {
            builders[static_cast<size_t>(part)].append(chunk);
        };
        AudioFileInfo info = AudioDecoder::decodeInParts(url, progress, onFormat, onChunk);
        if (builders.empty())
            throw HarluneError::decodeFailed("no audio stream");
        AudioContent content = builders.front().build();
        for (size_t part = 1; part < builders.size(); ++part)
            content.append(builders[part].build());
        return Decoded{std::move(content), std::move(info)};
    };
    auto finish = [this, token](std::optional<Decoded> result, std::exception_ptr error) {
        model_->endExternalBusy();
        if (result && !token->isCancelled()) {
            model_->load(std::move(result->content), result->info);
            undoStack_.clear();
            saveSettings_ = settingsMatching(result->info);
            emit opened();
            return;
        }
        model_->stop(false);
        const std::optional<QString> message =
            token->isCancelled() || !error ? std::nullopt : failureText(error);
        emit openFailed(message.value_or(QString()), !message);
    };
    runInBackground<Decoded>(*this, std::move(decode), std::move(finish));
}

void AudioDocument::save(const std::filesystem::path& url, const EncodeSettings& settings) {
    write(url, settings, std::nullopt, WriteKind::save);
}

void AudioDocument::exportAudio(const std::filesystem::path& url, const EncodeSettings& settings,
                                std::optional<FrameRange> range) {
    write(url, settings, range, WriteKind::exportAudio);
}

void AudioDocument::write(const std::filesystem::path& url, const EncodeSettings& settings,
                          std::optional<FrameRange> range, WriteKind kind) {
    // Frozen now: edits made while the encoder runs cannot reach what it writes.
    const EnvelopedSource snapshot(model_->content(), model_->envelopes());
    auto token = std::make_shared<ProgressToken>();
    const char* verb = kind == WriteKind::save ? "Saving" : "Exporting";
    model_->beginExternalBusy(busyTitle(verb, fileName(url)), token);

    auto encode = [snapshot, range, url, settings, token, kind]() {
        AudioEncoder::write(snapshot, range, url, settings, reporter(token));
        // The codec, size and bit rate shown after a save are the new file's; a file that cannot
        // be probed keeps the old figures.
        std::optional<AudioFileInfo> written;
        if (kind == WriteKind::save) {
            try {
                written = AudioDecoder::probe(url);
            } catch (const HarluneError&) {
            }
        }
        return written;
    };
    auto finish = [this, url, settings, kind](std::optional<std::optional<AudioFileInfo>> result,
                                              std::exception_ptr error) {
        model_->endExternalBusy();
        // A cancel that came after the encoder finished changes nothing: the file is written.
        if (error) {
            const std::optional<QString> message = failureText(error);
            emit writeFailed(message.value_or(QString()), !message);
            return;
        }
        if (kind == WriteKind::save) {
            file_ = url;
            saveSettings_ = settings;
            undoStack_.setClean();
            if (result && *result)
                model_->setFileInfo(**result);
        }
        emit written();
    };
    runInBackground<std::optional<AudioFileInfo>>(*this, std::move(encode), std::move(finish));
}

} // namespace harlune
