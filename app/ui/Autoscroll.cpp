#include "ui/Autoscroll.h"

namespace harlune {

Autoscroll::Autoscroll(std::function<void()> tick) {
    timer_.setInterval(1000 / 30);
    QObject::connect(&timer_, &QTimer::timeout, std::move(tick));
}

void Autoscroll::start() {
    if (!timer_.isActive())
        timer_.start();
}

void Autoscroll::stop() {
    timer_.stop();
}

double Autoscroll::overshoot(double x, double width) {
    if (x < 0)
        return x;
    if (x > width)
        return x - width;
    return 0;
}

} // namespace harlune
