#include "base/HarluneError.h"

namespace harlune {

namespace {

// The apostrophes are U+2019, as the user reads them everywhere else in the program.
std::string describe(HarluneError::Kind kind, const std::string& detail) {
    switch (kind) {
    case HarluneError::Kind::unsupportedFormat:
        return "Unsupported format: " + detail;
    case HarluneError::Kind::decodeFailed:
        return "Couldn\u2019t read the audio: " + detail;
    case HarluneError::Kind::encodeFailed:
        return "Couldn\u2019t write the audio: " + detail;
    case HarluneError::Kind::codecUnavailable:
        return "Codec unavailable: " + detail;
    case HarluneError::Kind::cancelled:
        return "Cancelled";
    }
    return detail;
}

} // namespace

HarluneError::HarluneError(Kind kind, std::string detail)
    : kind_(kind), detail_(std::move(detail)), text_(describe(kind_, detail_)) {}

} // namespace harlune
