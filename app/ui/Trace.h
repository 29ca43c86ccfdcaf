#pragma once

#include <QString>
#include <functional>

namespace harlune {

/// One line per user-visible event ("window shown", "command done Gain"), for scripts and bug
/// reports that follow the program. Off unless given a sink; main thread only.
class Trace {
public:
    using Sink = std::function<void(const QString& line)>;

    Trace() = default;
    explicit Trace(Sink sink) : sink_(std::move(sink)) {}

    /// A trace that writes each line to standard error.
    static Trace toStandardError();

    bool isOn() const { return bool(sink_); }
    void line(const QString& text) const {
        if (sink_)
            sink_(text);
    }

private:
    Sink sink_;
};

} // namespace harlune
