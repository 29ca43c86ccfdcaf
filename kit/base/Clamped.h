#pragma once

namespace harlune {

/// The greatest of the value and `lower`, then the least of that and `upper`. Every clamp of
/// the system uses this order, which decides what an unordered value (NaN) becomes.
template <class T> constexpr T clamped(T value, T lower, T upper) {
    const T raised = value < lower ? lower : value;
    return upper < raised ? upper : raised;
}

} // namespace harlune
