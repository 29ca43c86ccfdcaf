#pragma once

#include <QString>
#include <QUuid>
#include <cstdint>

namespace harlune {

/// A named position on the frame axis. Identity is `id`; equality compares all three fields.
struct Marker {
    QUuid id = QUuid::createUuid();
    int64_t frame = 0;
    QString name;

    friend bool operator==(const Marker&, const Marker&) = default;
};

} // namespace harlune
