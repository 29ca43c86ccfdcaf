#pragma once

#include "base/AudioFormats.h"
#include "base/FrameRange.h"
#include "editor/EditorModel.h"

#include <QObject>
#include <QString>
#include <QUndoStack>
#include <filesystem>
#include <memory>
#include <optional>

namespace harlune {

/// One open audio file on one `EditorModel`. There is no project format: the document is the file,
/// and markers, envelopes and grid last only while it is open.
///
/// Opening probes at once, then decodes in the background behind the model's busy state (with
/// progress and cancel) into `EditorModel::load`. Saving and exporting freeze the content with its
/// envelopes and write them through the kit's encoder, also in the background; the encoder writes
/// a temporary file beside the destination and moves it into place only when all went well, so a
/// failed or cancelled write leaves the old file as it was. Main thread only.
class AudioDocument : public QObject {
    Q_OBJECT

public:
    /// A document without a file: empty content of 2 channels at 48000 Hz.
    explicit AudioDocument(EditorCollaborators collaborators = {}, QObject* parent = nullptr);
    ~AudioDocument() override;

    EditorModel& model() { return *model_; }
    QUndoStack& undoStack() { return undoStack_; }
    const std::optional<std::filesystem::path>& file() const { return file_; }
    /// The file's name; without a file the name given to `adopt`, or "Untitled".
    QString displayName() const;
    bool isDirty() const { return !undoStack_.isClean(); }
    /// How a plain Save writes the file back; absent when it cannot be written in its own format.
    const std::optional<EncodeSettings>& saveSettings() const { return saveSettings_; }

    /// Probes `url` at once (a failure throws `HarluneError` and changes nothing), then reads it
    /// in the background under the busy title "Opening “name”". Ends in `opened` or `openFailed`.
    void open(const std::filesystem::path& url);
    /// Takes `content` as a document without a file (the demo sound, a paste as a new document),
    /// shown as `name` until it is saved.
    void adopt(AudioContent content, const QString& name);
    /// Writes the whole document, envelopes rendered in, to `url` under "Saving “name”"; on success
    /// `url` becomes the document's file and the undo stack is marked clean. Ends in `written`
    /// or `writeFailed`.
    void save(const std::filesystem::path& url, const EncodeSettings& settings);
    /// Writes `range` (the whole content when absent) under "Exporting “name”", leaving the
    /// document's file and dirty state alone. Ends in `written` or `writeFailed`.
    void exportAudio(const std::filesystem::path& url, const EncodeSettings& settings,
                     std::optional<FrameRange> range);

Q_SIGNALS:
    void opened();
    /// The content stays as it was; a cancelled open has an empty message and is not shown.
    void openFailed(const QString& message, bool cancelled);
    void written();
    /// The destination stays as it was; a cancelled write has an empty message.
    void writeFailed(const QString& message, bool cancelled);

private:
    enum class WriteKind { save, exportAudio };
    void write(const std::filesystem::path& url, const EncodeSettings& settings,
               std::optional<FrameRange> range, WriteKind kind);

    std::unique_ptr<EditorModel> model_;
    QUndoStack undoStack_;
    std::optional<std::filesystem::path> file_;
    QString name_ = QStringLiteral("Untitled");
    std::optional<EncodeSettings> saveSettings_;
};

} // namespace harlune
