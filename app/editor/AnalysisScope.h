#pragma once

namespace harlune {

/// What the loudness panel measures: the whole file or the selection.
enum class AnalysisScope { file, selection };

} // namespace harlune
