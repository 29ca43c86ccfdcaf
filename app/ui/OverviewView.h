#pragma once

#include <QString>
#include <QWidget>
#include <cstdint>
#include <vector>

namespace harlune {

class EditorModel;

/// The whole document at a glance: one lane per channel with the peaks of each pixel column.
/// It reads the model and holds nothing but a cache of the columns, rebuilt when the content's
/// version or the width changes. Its accessible value names the length in frames.
class OverviewView final : public QWidget {
    Q_OBJECT

public:
    explicit OverviewView(EditorModel& model, QWidget* parent = nullptr);

    /// "N frames": what assistive technology reads as the view's value.
    QString accessibleValue() const;
    QSize sizeHint() const override { return {800, 120}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    struct Column {
        float min = 0;
        float max = 0;
    };
    void rebuildColumns();

    EditorModel& model_;
    /// Per channel, one entry per pixel column; valid for `cachedVersion_` and `cachedWidth_`.
    std::vector<std::vector<Column>> columns_;
    int64_t cachedVersion_ = -1;
    int cachedWidth_ = -1;
};

} // namespace harlune
