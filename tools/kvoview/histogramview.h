#pragma once

#include "texels.h"

#include <QWidget>

/// The values of a texture as a histogram, with the range that is shown between two lines that can be pulled.
class HistogramView : public QWidget
{
    Q_OBJECT

public:
    explicit HistogramView(QWidget *parent = nullptr);
    void setStatistics(const TexelStatistics &statistics);
    void setRange(double low, double high);
    QSize sizeHint() const override { return {200, 48}; }

Q_SIGNALS:
    void rangePulled(double low, double high);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;

private:
    double placeOf(double value) const;
    double valueAt(double place) const;

    TexelStatistics _statistics;
    double _low = 0.0;
    double _high = 1.0;
    bool _pullsHigh = false;
};
