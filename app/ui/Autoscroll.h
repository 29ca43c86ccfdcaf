#pragma once

#include <QTimer>
#include <functional>

namespace harlune {

/// Scrolling while a drag holds the pointer beyond the view's side: a 1/30 s timer, at most one,
/// that keeps going while the pointer rests. Main thread only.
class Autoscroll {
public:
    /// `tick` runs at each beat of the timer; it calls `stop` once nothing lies beyond the sides.
    explicit Autoscroll(std::function<void()> tick);

    void start();
    void stop();
    bool isRunning() const { return timer_.isActive(); }

    /// Points the x lies beyond the sides of a view `width` wide: negative on the left, 0 inside.
    static double overshoot(double x, double width);
    /// Points to scroll by at each tick for an overshoot.
    static double stepFor(double overshoot) { return overshoot * 0.6; }

private:
    QTimer timer_;
};

} // namespace harlune
