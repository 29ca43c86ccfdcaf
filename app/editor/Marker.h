#pragma once

#include "base/Uuid.h"

#include <QString>
#include <cstdint>

namespace harlune {

/// A named position on the frame axis. Identity is `id`; equality compares all three fields.
struct Marker {
    Uuid id = Uuid::random();
    int64_t frame = 0;
    QString name;

    friend bool operator==(const Marker&, const Marker&) = default;
};

} // namespace harlune
