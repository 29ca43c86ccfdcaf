#pragma once

namespace harlune::QuietMpegDecoder {

/// True when the MPEG decoder that libsndfile uses is made quiet in this process (see the source
/// file for how). Calling it also keeps the quieting linked into every program that reads files.
bool isInstalled();

} // namespace harlune::QuietMpegDecoder
