#pragma once

#include <optional>

namespace harlune {

/// `harlune --render OUT.png FILE [--size WxH] [--range START:END] [--dpr R] [--dark]`: the
/// timeline of FILE drawn offscreen into a PNG, without a window or a display. Runs before any
/// application object exists (it picks the offscreen platform itself); absent when the command
/// line asks for something else, else the exit status.
std::optional<int> runRenderCommand(int argc, char** argv);

} // namespace harlune
