#pragma once

#include "engine/RackFile.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace harlune::cli {

/// Gives the slots that the file stored without an id (a plain list of settings) the id of the
/// slot at the same place before, when it holds the same effect, so that a changed value in
/// such a file is a parameter change of the running slot rather than a new slot.
void carryOverIDs(const std::vector<EffectSlot>& before, const std::vector<bool>& storedIDs,
                  std::vector<EffectSlot>& slots);

/// One line per change from `before` to `after`, for the terminal: changed values as
/// "slot 2 (Delay): feedback 0.35 -> 0.5", slots switched on or off, a new chain, the preview
/// and tail mode. Empty when nothing changed.
std::vector<std::string> describeRackChange(const SavedRack& before, const SavedRack& after);

/// Notices a change of a file by polling its modification time and size.
class FileWatch {
public:
    explicit FileWatch(std::filesystem::path path);
    /// True once for each change seen since the last call (also when the file went or came back).
    bool changed();

private:
    struct Stamp {
        std::filesystem::file_time_type time;
        uintmax_t size;
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };
    std::optional<Stamp> stamp() const;

    std::filesystem::path path_;
    std::optional<Stamp> last_;
};

} // namespace harlune::cli
