#pragma once

#include "base/AudioFormats.h"

#include <filesystem>

namespace harlune {

/// How a finished export takes the place of the destination: the data is written to a temporary
/// file in the destination's own folder (so the final rename stays on one file system) and moved
/// over the destination only at the end, keeping the old file's mode and owner.
///
/// Where the system allows it, the temporary has no name at all until it is complete (an
/// `O_TMPFILE` inode, linked in at the end), so a writer killed at any moment leaves nothing
/// behind. Elsewhere it is a hidden named file carrying the writer's process id, and every later
/// temporary made in that folder first removes those whose writer is gone.
namespace FileReplacement {

/// Which kind of temporary to make. `automatic` takes an unnamed one where the system allows it;
/// `named` forces the named kind (also forced by the environment variable
/// HARLUNE_TEMPORARY_FILES=named, for a test driving the built program).
enum class Naming { automatic, named };

/// ".<name without extension>-<UUID>.<pid>.tmp.<extension>" in the destination's folder; a
/// destination without an extension takes the format's.
std::filesystem::path temporaryPath(const std::filesystem::path& destination, ExportFormat format);

/// Removes the named temporaries in `folder` whose writing process no longer exists. Failures
/// are ignored: this is tidying, never a reason to fail a write.
void removeAbandoned(const std::filesystem::path& folder);

/// One temporary file beside a destination. Writers open `writePath()` and write through it; a
/// `commit` moves the result over the destination; destruction without a commit leaves no trace
/// of the temporary. Used by one thread.
class TemporaryFile {
public:
    /// Tidies the folder (`removeAbandoned`) and makes the temporary. Throws
    /// `HarluneError.encodeFailed` "can’t create NAME: REASON".
    TemporaryFile(const std::filesystem::path& destination, ExportFormat format,
                  Naming naming = Naming::automatic);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    /// Where a writer opens the file: the named temporary, or a path that reopens the unnamed one.
    const std::filesystem::path& writePath() const { return writePath_; }
    /// Whether the temporary has a name in the folder while it is written.
    bool isNamed() const { return unnamedFd_ < 0; }

    /// Starts writing what is in the file so far to disk, without waiting: the flush before the
    /// final move then has less left to wait for. Failures are ignored.
    void startWriteback() const;

    /// Moves the finished file over the destination atomically, with the old file's mode and
    /// owner, flushed to disk before the move and the folder after it. Throws
    /// `HarluneError.encodeFailed` "couldn’t move the finished file into place: REASON".
    void commit();

private:
    std::filesystem::path destination_;
    ExportFormat format_;
    std::filesystem::path writePath_;
    std::filesystem::path namedPath_; ///< set while a named file exists
    int unnamedFd_ = -1;
    bool committed_ = false;
};

} // namespace FileReplacement

} // namespace harlune
