#pragma once

namespace harlune {

/// Where a take goes: in at the position, over the selection, or after the end.
enum class RecordMode { insert, replace, append };

} // namespace harlune
