#pragma once

#include <QFile>
#include <QPointF>
#include <QString>
#include <QVector>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Brevane::Kvo::Bench {

struct PlotLine
{
    QString name;
    const char *color;
    const char *dash; ///< As SVG has it; "none".
    QVector<QPointF> points;
};

struct PlotTick
{
    double at;
    QString text;
};

/// "0.1 ms", "10 s".
inline PlotTick timeTick(double milliseconds)
{
    return {milliseconds, milliseconds < 1000 ? QStringLiteral("%1 ms").arg(milliseconds)
                                              : QStringLiteral("%1 s").arg(milliseconds / 1000)};
}

/// Lines over two logarithmic axes, as SVG. What lies outside of the ticks is drawn at the edge.
class LogLogPlot
{
public:
    LogLogPlot(const QString &xLabel, QVector<PlotTick> xTicks, QVector<PlotTick> yTicks)
        : _xLabel(xLabel), _xTicks(std::move(xTicks)), _yTicks(std::move(yTicks))
    {}

    void add(const PlotLine &line) { _lines.append(line); }

    bool save(const QString &path) const
    {
        QString svg =
            QStringLiteral("<svg xmlns='http://www.w3.org/2000/svg' width='%1' height='%2' font-family='sans-serif' "
                           "font-size='12'><rect width='100%' height='100%' fill='white'/>\n")
                .arg(kWide)
                .arg(kHigh);
        for (const PlotTick &tick : _yTicks)
            svg += QStringLiteral("<line x1='%1' x2='%2' y1='%3' y2='%3' stroke='#ddd'/><text x='%4' y='%5' "
                                  "text-anchor='end'>%6</text>\n")
                       .arg(kMargin)
                       .arg(kWide - kLegend)
                       .arg(y(tick.at))
                       .arg(kMargin - 6)
                       .arg(y(tick.at) + 4)
                       .arg(tick.text);
        for (const PlotTick &tick : _xTicks)
            svg += QStringLiteral("<text x='%1' y='%2' text-anchor='middle'>%3</text>\n")
                       .arg(x(tick.at))
                       .arg(kHigh - kMargin + 18)
                       .arg(tick.text);
        svg += QStringLiteral("<text x='%1' y='%2' text-anchor='middle'>%3</text>\n")
                   .arg((kWide - kLegend + kMargin) / 2)
                   .arg(kHigh - 20)
                   .arg(_xLabel);
        int row = 0;
        for (const PlotLine &line : _lines) {
            QString points;
            for (const QPointF &p : line.points)
                points += QStringLiteral("%1,%2 ").arg(x(p.x())).arg(y(p.y()));
            svg += QStringLiteral(
                       "<polyline fill='none' stroke='%1' stroke-width='2' stroke-dasharray='%2' points='%3'/>\n"
                       "<line x1='%4' x2='%5' y1='%6' y2='%6' stroke='%1' stroke-width='2' "
                       "stroke-dasharray='%2'/><text x='%7' y='%8'>%9</text>\n")
                       .arg(QLatin1String(line.color), QLatin1String(line.dash), points)
                       .arg(kWide - kLegend + 10)
                       .arg(kWide - kLegend + 35)
                       .arg(70 + 18 * row)
                       .arg(kWide - kLegend + 42)
                       .arg(74 + 18 * row)
                       .arg(line.name);
            ++row;
        }
        svg += QStringLiteral("</svg>\n");
        QFile file(path);
        if (file.open(QIODevice::WriteOnly) && file.write(svg.toUtf8()) >= 0)
            return true;
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        return false;
    }

private:
    static constexpr int kWide = 840;
    static constexpr int kHigh = 440;
    static constexpr int kMargin = 60;
    static constexpr int kLegend = 240;

    static double place(const QVector<PlotTick> &ticks, double value)
    {
        const double first = std::log(ticks.first().at);
        const double last = std::log(ticks.last().at);
        return (std::log(std::clamp(value, ticks.first().at, ticks.last().at)) - first) / (last - first);
    }
    double x(double value) const { return kMargin + (kWide - kLegend - kMargin) * place(_xTicks, value); }
    double y(double value) const { return kHigh - kMargin - (kHigh - 2 * kMargin) * place(_yTicks, value); }

    QString _xLabel;
    QVector<PlotTick> _xTicks;
    QVector<PlotTick> _yTicks;
    QVector<PlotLine> _lines;
};

} // namespace Brevane::Kvo::Bench
