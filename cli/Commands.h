#pragma once

#include "CliSupport.h"

namespace harlune::cli {

// One factory per subcommand, each in its own file.
Command infoCommand();
Command convertCommand();
Command loudnessCommand();
Command playCommand();
Command processCommand();
Command normalizeCommand();
Command tempoCommand();
Command noiseProfileCommand();
Command effectsCommand();
Command recordCommand();

/// "effects --plugins": the installed LV2 effect plug-ins, a name and a URI per line.
int listPlugins();

} // namespace harlune::cli
