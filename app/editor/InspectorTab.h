#pragma once

namespace harlune {

enum class InspectorTab { loudness, spectrum, info, markers, effects };

} // namespace harlune
