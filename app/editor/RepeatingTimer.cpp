#include "editor/RepeatingTimer.h"

#include <QTimer>

namespace harlune {

namespace {

class QtRepeatingTimer final : public RepeatingTimer {
public:
    QtRepeatingTimer(std::chrono::microseconds interval, std::function<void()> tick) : timer_(new QTimer) {
        timer_->setTimerType(Qt::PreciseTimer);
        timer_->setInterval(std::chrono::duration_cast<std::chrono::milliseconds>(interval));
        QObject::connect(timer_, &QTimer::timeout, [tick = std::move(tick)] { tick(); });
        timer_->start();
    }

    // The owner often lets go of its timer from inside a tick: the QTimer is still emitting then,
    // so it goes later, silenced now.
    ~QtRepeatingTimer() override {
        timer_->stop();
        timer_->disconnect();
        timer_->deleteLater();
    }

private:
    QTimer* timer_;
};

} // namespace

RepeatingTimerFactory qtRepeatingTimers() {
    return [](std::chrono::microseconds interval,
              std::function<void()> tick) -> std::unique_ptr<RepeatingTimer> {
        return std::make_unique<QtRepeatingTimer>(interval, std::move(tick));
    };
}

} // namespace harlune
