#include "histogramview.h"

#include <QMouseEvent>
#include <QPainter>

#include <algorithm>
#include <cmath>

HistogramView::HistogramView(QWidget *parent) : QWidget(parent)
{
    setMinimumHeight(40);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setAccessibleName(tr("Histogram"));
    setToolTip(tr("Pull the lines to choose what is black and what is white"));
}

void HistogramView::setStatistics(const TexelStatistics &statistics)
{
    _statistics = statistics;
    update();
}

void HistogramView::setRange(double low, double high)
{
    _low = low;
    _high = high;
    update();
}

double HistogramView::placeOf(double value) const
{
    const double width = _statistics.most - _statistics.least;
    const double share = width > 0.0 ? (value - _statistics.least) / width : value >= _statistics.most ? 1.0 : 0.0;
    return std::clamp(share, 0.0, 1.0) * (this->width() - 1);
}

double HistogramView::valueAt(double place) const
{
    return _statistics.least + (_statistics.most - _statistics.least) * std::clamp(place / (width() - 1), 0.0, 1.0);
}

void HistogramView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), palette().color(QPalette::Base));
    const qint64 most = *std::max_element(_statistics.histogram.begin(), _statistics.histogram.end());
    if (most > 0) {
        // Roots, so that a few texels beside an empty background show.
        const double bar = double(width()) / TexelStatistics::kBins;
        for (int i = 0; i < TexelStatistics::kBins; ++i) {
            const double share = std::sqrt(double(_statistics.histogram[size_t(i)]) / double(most));
            const double height = share * (this->height() - 2);
            painter.fillRect(QRectF(i * bar, this->height() - height, std::ceil(bar), height),
                             palette().color(QPalette::Mid));
        }
    }
    painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
    for (const double value : {_low, _high})
        painter.drawLine(QPointF(placeOf(value), 0), QPointF(placeOf(value), height()));
}

void HistogramView::mousePressEvent(QMouseEvent *event)
{
    const double x = event->position().x();
    _pullsHigh = std::abs(x - placeOf(_high)) < std::abs(x - placeOf(_low));
    mouseMoveEvent(event);
}

void HistogramView::mouseMoveEvent(QMouseEvent *event)
{
    (_pullsHigh ? _high : _low) = valueAt(event->position().x());
    update();
    Q_EMIT rangePulled(_low, _high);
}
