#pragma once

#include "base/ProgressToken.h"
#include "base/Uuid.h"

#include <QString>
#include <memory>

namespace harlune {

/// The one long operation under way. `fraction` is copied from the token by a main-thread timer,
/// so the worker never touches observable state.
struct BusyState {
    Uuid id = Uuid::random();
    QString title;
    std::shared_ptr<ProgressToken> token;
    double fraction = 0;

    friend bool operator==(const BusyState&, const BusyState&) = default;
};

} // namespace harlune
