#include "ui/inspector/ChannelLevelsSection.h"

#include "editor/CFormatted.h"
#include "editor/EditorModel.h"
#include "ui/inspector/MetricCell.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

namespace harlune {

namespace {
// Sliders move in tenths of a dB over the trim's range.
constexpr int trimSteps = 10;
constexpr int trimLimitDB = 24;
// Differences that "%.1f" would print as 0.0 are no difference.
constexpr double noticeableLU = 0.05;
} // namespace

ChannelLevelsSection::ChannelLevelsSection(EditorModel& model, QWidget* parent)
    : QGroupBox(tr("Channels"), parent), model_(model), grid_(new QGridLayout),
      link_(new QCheckBox(tr("Link"))), reset_(new QPushButton(tr("Reset"))),
      balance_(new QPushButton(tr("Balance Channels"))), difference_(new QLabel) {
    setObjectName(QStringLiteral("ChannelLevels"));
    link_->setToolTip(tr("Move all channel sliders together"));
    balance_->setToolTip(tr("Trim each channel so they all measure the same loudness"));
    difference_->setWordWrap(true);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(link_);
    buttons->addStretch(1);
    buttons->addWidget(reset_);
    auto* balanceRow = new QHBoxLayout;
    balanceRow->addStretch(1);
    balanceRow->addWidget(balance_);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(grid_);
    layout->addLayout(buttons);
    layout->addLayout(balanceRow);
    layout->addWidget(difference_);

    connect(link_, &QCheckBox::toggled, this, [this](bool on) { model_.setLinkChannelLevels(on); });
    connect(reset_, &QPushButton::clicked, this, [this] { model_.resetChannelTrims(); });
    connect(balance_, &QPushButton::clicked, this, [this] { model_.balanceChannels(); });
    connect(&model, &EditorModel::contentChanged, this, &ChannelLevelsSection::rebuildRows);
    for (const auto signal : {&EditorModel::envelopesChanged, &EditorModel::channelLoudnessChanged,
                              &EditorModel::linkChannelLevelsChanged})
        connect(&model, signal, this, &ChannelLevelsSection::refresh);
    rebuildRows();
}

void ChannelLevelsSection::rebuildRows() {
    const int channels = model_.content().channelCount();
    if (static_cast<int>(rows_.size()) == channels) {
        refresh();
        return;
    }
    if (editOrigin_)
        endDrag();
    for (const Row& row : rows_) {
        delete row.name;
        delete row.loudness;
        delete row.slider;
        delete row.value;
    }
    rows_.clear();
    for (int c = 0; c < channels; ++c) {
        Row row{new QLabel(model_.channelName(c)), new QLabel, new QSlider(Qt::Horizontal), new QLabel};
        row.slider->setRange(-trimLimitDB * trimSteps, trimLimitDB * trimSteps);
        row.slider->setPageStep(trimSteps);
        row.slider->setMinimumWidth(60);
        row.slider->setAccessibleName(tr("Trim ") + model_.channelName(c));
        row.value->setMinimumWidth(row.value->fontMetrics().horizontalAdvance(QStringLiteral("+24.0 dB")));
        row.value->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        grid_->addWidget(row.name, c, 0);
        grid_->addWidget(row.loudness, c, 1);
        grid_->addWidget(row.slider, c, 2);
        grid_->addWidget(row.value, c, 3);
        connect(row.slider, &QSlider::sliderPressed, this, [this] { editOrigin_ = model_.envelopes(); });
        connect(row.slider, &QSlider::valueChanged, this, [this, c](int steps) { sliderMoved(c, steps); });
        connect(row.slider, &QSlider::sliderReleased, this, &ChannelLevelsSection::endDrag);
        rows_.push_back(row);
    }
    grid_->setColumnStretch(2, 1);
    refresh();
}

void ChannelLevelsSection::sliderMoved(int channel, int steps) {
    // Keys and the wheel move without a press: each such move is a step of its own.
    const bool single = !editOrigin_;
    if (single)
        editOrigin_ = model_.envelopes();
    const int channels = model_.content().channelCount();
    EnvelopeSet set = model_.envelopes();
    const double wanted = static_cast<double>(steps) / trimSteps;
    if (model_.linkChannelLevels()) {
        const double by = wanted - set.trim(channel);
        for (int c = 0; c < channels; ++c)
            set.setTrim(c, set.trim(c) + by, channels);
    } else {
        set.setTrim(channel, wanted, channels);
    }
    model_.setEnvelopes(std::move(set));
    if (single)
        endDrag();
}

void ChannelLevelsSection::endDrag() {
    if (!editOrigin_)
        return;
    const EnvelopeSet origin = std::move(*editOrigin_);
    editOrigin_.reset();
    model_.endChannelTrimEdit(origin);
}

void ChannelLevelsSection::refresh() {
    const std::vector<double>& loudness = model_.channelLoudness();
    const EnvelopeSet& envelopes = model_.envelopes();
    for (size_t c = 0; c < rows_.size(); ++c) {
        const Row& row = rows_[c];
        const double figure = c < loudness.size() ? loudness[c] : -INFINITY;
        row.loudness->setText(figureText(figure) + QStringLiteral(" LUFS"));
        const double trim = envelopes.trim(static_cast<int>(c));
        {
            const QSignalBlocker blocker(row.slider);
            row.slider->setValue(static_cast<int>(std::lround(trim * trimSteps)));
        }
        row.value->setText(cFormatted("%+.1f dB", trim));
    }
    {
        const QSignalBlocker blocker(link_);
        link_->setChecked(model_.linkChannelLevels());
    }
    const bool complete =
        loudness.size() == rows_.size() && rows_.size() >= 2 &&
        std::all_of(loudness.begin(), loudness.end(), [](double v) { return std::isfinite(v); });
    double spread = 0;
    if (complete) {
        const auto [low, high] = std::minmax_element(loudness.begin(), loudness.end());
        spread = *high - *low;
    }
    difference_->setVisible(complete && spread >= noticeableLU);
    difference_->setText(cFormatted("Channels differ by %.1f LU \u2014 Balance evens them out.", spread));
    balance_->setEnabled(complete);
}

} // namespace harlune
