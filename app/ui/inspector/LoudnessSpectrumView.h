#pragma once

#include "dsp/LoudnessResult.h"
#include "ui/inspector/PaintedWidget.h"

#include <optional>
#include <vector>

namespace harlune {

/// The distribution of a measurement's short-term loudness: a histogram in 1 LU bins, with the
/// integrated loudness, the target and the loudness the adjustment would give as marks.
class LoudnessSpectrumView final : public PaintedWidget {
    Q_OBJECT

public:
    static constexpr double lowestLUFS = -60;
    static constexpr double highestLUFS = 0;

    explicit LoudnessSpectrumView(QWidget* parent = nullptr);

    void setResult(std::optional<LoudnessResult> result);
    void setTarget(double target);
    /// The integrated loudness after the planned gain; absent without a plan.
    void setPredicted(std::optional<double> predicted);

    const std::optional<LoudnessResult>& result() const { return result_; }
    double target() const { return target_; }
    std::optional<double> predicted() const { return predicted_; }
    /// Short-term values per 1 LU bin from `lowestLUFS` up; values outside fall into the end
    /// bins, values at the curve's floor (silence) into none.
    const std::vector<int>& histogram() const { return histogram_; }

    /// "Integrated -23.0 LUFS, target -14.0 LUFS, LRA 0.0 LU".
    QString accessibleValue() const override;
    QSize sizeHint() const override { return {260, 110}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void refresh();

    std::optional<LoudnessResult> result_;
    double target_ = -14;
    std::optional<double> predicted_;
    std::vector<int> histogram_;
};

} // namespace harlune
