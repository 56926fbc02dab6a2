#include "host/pipelinegraph.h"

#include "host/pipeline.h"
#include "host/slotname.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace Brevane::Kvo {

namespace {

// All in pixels. Widths of texts are guesses, since fonts belong to whoever shows the drawing.
constexpr double kTitleLetter = 8.0;
constexpr double kLetter = 6.5;
constexpr double kTitleHeight = 22.0;
constexpr double kLineHeight = 15.0;
constexpr double kPadding = 8.0;
constexpr double kRowGap = 18.0;
constexpr double kColumnGap = 56.0;
constexpr double kMargin = 6.0;
constexpr int kHostsPerLine = 3;
constexpr int kSweeps = 12;

struct Link
{
    int from = -1; ///< Box.
    int output = -1; ///< Index among the box's outputs that are read.
    int to = -1;
    int input = -1; ///< Index among the box's inputs that are linked.
};

// A pass, or a bend: a place in a column that a link passes on its way to a later one.
struct Box
{
    QString name; ///< Empty for a bend.
    QString className;
    QStringList inputs; ///< Full names of slots.
    QStringList outputs;
    QStringList hosts; ///< Lines of text.
    int column = 0;
    double x = 0, y = 0, width = 0, height = 0;
    std::vector<int> before, after; ///< Neighbours in the columns beside.

    bool isBend() const { return name.isEmpty(); }
    double middle() const { return y + height / 2; }
    double portY(int index) const { return y + kTitleHeight + kLineHeight * (double(index) + 1.5); }
};

QString brief(const QString &slot)
{
    return SlotName::parse(slot).name;
}

double longest(const QStringList &names)
{
    qsizetype letters = 0;
    for (const QString &slot : names)
        letters = std::max(letters, brief(slot).size());
    return double(letters) * kLetter;
}

// Textures are what a chain is about; the rest steps back.
const char *colorOf(const QString &slot)
{
    return slotTypesMatch(slot, QStringLiteral("Kvo_KvoTexture*_Any")) ? "#3a6ea5" : "#a0783c";
}

class Graph
{
public:
    explicit Graph(const Pipeline &pipeline, const QStringList &order)
    {
        for (const QString &name : order)
            addPass(pipeline, name);
        for (const QString &name : order)
            addLinks(pipeline, name);
        chooseColumns();
        routeLinks();
        orderColumns();
        place();
    }

    QString svg() const
    {
        double width = 0, height = 0;
        for (const Box &box : _boxes) {
            width = std::max(width, box.x + box.width);
            height = std::max(height, box.y + box.height);
        }
        QString text = QStringLiteral("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %1 %2\" width=\"%1\" "
                                      "height=\"%2\" font-family=\"sans-serif\" font-size=\"11\">\n")
                           .arg(std::ceil(width + kMargin))
                           .arg(std::ceil(height + kMargin));
        for (size_t i = 0; i < _links.size(); ++i)
            text += line(_links[i], _routes[i]);
        for (int i = 0; i < _passes; ++i)
            text += drawing(_boxes[size_t(i)], i + 1);
        return text + QStringLiteral("</svg>\n");
    }

private:
    void addPass(const Pipeline &pipeline, const QString &name)
    {
        Box box;
        box.name = name;
        box.className = pipeline.className(name);
        QStringList hosts;
        for (const PassInput &input : pipeline.inputs(name)) {
            if (input.kind == PassInput::Kind::Link)
                box.inputs << input.slot;
            // "@viewport[0, 0, 0.5, 1]" is of interest in the table of slots, not here
            const QString host = input.source.section(QLatin1Char('['), 0, 0);
            if (input.kind == PassInput::Kind::Host && !hosts.contains(host))
                hosts << host;
        }
        for (qsizetype i = 0; i < hosts.size(); i += kHostsPerLine)
            box.hosts << QStringList(hosts.mid(i, kHostsPerLine)).join(QLatin1Char(' '));
        _boxes.push_back(box);
        ++_passes;
    }

    void addLinks(const Pipeline &pipeline, const QString &name)
    {
        const int to = indexOf(name);
        int linked = 0;
        for (const PassInput &input : pipeline.inputs(name)) {
            if (input.kind != PassInput::Kind::Link)
                continue;
            Link link{indexOf(input.sourcePass), -1, to, linked++};
            QStringList &outputs = _boxes[size_t(link.from)].outputs;
            if (!outputs.contains(input.source))
                outputs << input.source;
            link.output = int(outputs.indexOf(input.source));
            _links.push_back(link);
        }
    }

    int indexOf(const QString &name) const
    {
        return int(std::find_if(_boxes.begin(), _boxes.end(), [&](const Box &box) { return box.name == name; })
                   - _boxes.begin());
    }

    void chooseColumns()
    {
        // Boxes are in the order of running, so what feeds one has its column already.
        for (int i = 0; i < _passes; ++i)
            for (const Link &link : _links)
                if (link.to == i)
                    _boxes[size_t(i)].column = std::max(_boxes[size_t(i)].column, _boxes[size_t(link.from)].column + 1);
        for (const Box &box : _boxes)
            _columns.resize(std::max(_columns.size(), size_t(box.column) + 1));
        // What nothing feeds stands right before the first that reads it: short lines.
        for (int i = 0; i < _passes; ++i) {
            Box &box = _boxes[size_t(i)];
            int first = int(_columns.size());
            for (const Link &link : _links)
                if (link.from == i)
                    first = std::min(first, _boxes[size_t(link.to)].column);
            if (box.inputs.isEmpty() && !box.outputs.isEmpty())
                box.column = first - 1;
            _columns[size_t(box.column)].push_back(i);
            box.height = kTitleHeight
                         + kLineHeight * double(1 + std::max(box.inputs.size(), box.outputs.size()) + box.hosts.size())
                         + kPadding / 2;
            const QString title = QStringLiteral("%1 %2").arg(i + 1).arg(box.name);
            box.width = std::max({double(title.size()) * kTitleLetter, double(box.className.size()) * kLetter,
                                  longest(box.inputs) + longest(box.outputs) + 2 * kPadding, 90.0});
            for (const QString &hosts : box.hosts)
                box.width = std::max(box.width, double(hosts.size()) * kLetter);
            box.width += 2 * kPadding;
        }
    }

    // Links of one output share their bends.
    void routeLinks()
    {
        _routes.resize(_links.size());
        for (size_t i = 0; i < _links.size(); ++i) {
            int previous = _links[i].from;
            for (size_t j = 0; j < i; ++j)
                if (_links[j].from == _links[i].from && _links[j].output == _links[i].output
                    && _routes[j].size() > _routes[i].size())
                    _routes[i] = _routes[j];
            const int target = _boxes[size_t(_links[i].to)].column;
            std::erase_if(_routes[i], [&](int bend) { return _boxes[size_t(bend)].column >= target; });
            if (!_routes[i].empty())
                previous = _routes[i].back();
            for (int column = _boxes[size_t(previous)].column + 1; column < target; ++column) {
                Box bend;
                bend.column = column;
                const int index = int(_boxes.size());
                _boxes.push_back(bend);
                _columns[size_t(column)].push_back(index);
                join(previous, index);
                _routes[i].push_back(index);
                previous = index;
            }
            join(previous, _links[i].to);
        }
    }

    void join(int from, int to)
    {
        _boxes[size_t(from)].after.push_back(to);
        _boxes[size_t(to)].before.push_back(from);
    }

    // Few crossings: every box goes to the mean of its neighbours' places, column by column, there and back.
    void orderColumns()
    {
        std::vector<double> places(_boxes.size());
        const auto number = [&](const std::vector<int> &column) {
            for (size_t i = 0; i < column.size(); ++i)
                places[size_t(column[i])] = double(i) - double(column.size()) / 2;
        };
        const auto sort = [&](std::vector<int> &column, bool forwards) {
            std::vector<double> wanted(_boxes.size());
            for (const int index : column) {
                const std::vector<int> &near = forwards ? _boxes[size_t(index)].before : _boxes[size_t(index)].after;
                double sum = 0;
                for (const int other : near)
                    sum += places[size_t(other)];
                wanted[size_t(index)] = near.empty() ? places[size_t(index)] : sum / double(near.size());
            }
            std::stable_sort(column.begin(), column.end(),
                             [&](int a, int b) { return wanted[size_t(a)] < wanted[size_t(b)]; });
            number(column);
        };
        for (const auto &column : _columns)
            number(column);
        for (int sweep = 0; sweep < kSweeps; ++sweep) {
            if (sweep % 2 == 0)
                for (size_t i = 1; i < _columns.size(); ++i)
                    sort(_columns[i], true);
            else
                for (size_t i = _columns.size() - 1; i-- > 0;)
                    sort(_columns[i], false);
        }
    }

    void place()
    {
        double x = kMargin;
        for (const auto &column : _columns) {
            double width = 0, y = 0;
            for (const int index : column)
                width = std::max(width, _boxes[size_t(index)].width);
            for (const int index : column) {
                Box &box = _boxes[size_t(index)];
                box.width = width;
                box.x = x;
                box.y = y;
                y += box.height + kRowGap;
            }
            x += width + kColumnGap;
        }
        // Then each to the height of its neighbours, as far as those above and below allow.
        for (int sweep = 0; sweep < kSweeps; ++sweep)
            for (size_t i = 0; i < _columns.size(); ++i)
                settle(_columns[sweep % 2 == 0 ? i : _columns.size() - 1 - i]);
        double top = _boxes.front().y;
        for (const Box &box : _boxes)
            top = std::min(top, box.y);
        for (Box &box : _boxes)
            box.y += kMargin - top;
    }

    void settle(const std::vector<int> &column)
    {
        double bottom = 0, excess = 0;
        for (size_t i = 0; i < column.size(); ++i) {
            Box &box = _boxes[size_t(column[i])];
            double sum = 0;
            for (const int other : box.before)
                sum += _boxes[size_t(other)].middle();
            for (const int other : box.after)
                sum += _boxes[size_t(other)].middle();
            const size_t near = box.before.size() + box.after.size();
            const double wanted = near == 0 ? box.y : sum / double(near) - box.height / 2;
            box.y = i == 0 ? wanted : std::max(wanted, bottom);
            bottom = box.y + box.height + kRowGap;
            excess += box.y - wanted;
        }
        for (const int index : column)
            _boxes[size_t(index)].y -= excess / double(column.size());
    }

    QString line(const Link &link, const std::vector<int> &route) const
    {
        const Box &from = _boxes[size_t(link.from)], &to = _boxes[size_t(link.to)];
        const QString output = from.outputs[link.output], input = to.inputs[link.input];
        double x = from.x + from.width, y = from.portY(link.output);
        QString path = QStringLiteral("M%1 %2").arg(x, 0, 'f', 1).arg(y, 0, 'f', 1);
        const auto curveTo = [&](double toX, double toY) {
            const double half = (x + toX) / 2;
            path += QStringLiteral("C%1 %2 %1 %3 %4 %3")
                        .arg(half, 0, 'f', 1)
                        .arg(y, 0, 'f', 1)
                        .arg(toY, 0, 'f', 1)
                        .arg(toX, 0, 'f', 1);
            x = toX, y = toY;
        };
        for (const int index : route) {
            const Box &bend = _boxes[size_t(index)];
            curveTo(bend.x, bend.y);
            x = bend.x + bend.width;
            path += QStringLiteral("H%1").arg(x, 0, 'f', 1);
        }
        curveTo(to.x, to.portY(link.input));
        return QStringLiteral("<path d=\"%1\" fill=\"none\" stroke=\"%2\" stroke-width=\"1.5\"><title>%3.%4 -&gt; "
                              "%5.%6</title></path>\n")
            .arg(path, QLatin1StringView(colorOf(output)), from.name, output.toHtmlEscaped(), to.name,
                 input.toHtmlEscaped());
    }

    static QString port(const QString &slot, double x, double y, bool isInput)
    {
        return QStringLiteral("<circle cx=\"%1\" cy=\"%2\" r=\"3\" fill=\"%3\"/><text x=\"%4\" y=\"%5\"%6>%7<title>"
                              "%8</title></text>\n")
            .arg(x)
            .arg(y)
            .arg(QLatin1StringView(colorOf(slot)))
            .arg(isInput ? x + kPadding : x - kPadding)
            .arg(y + 4)
            .arg(isInput ? QString() : QStringLiteral(" text-anchor=\"end\""), brief(slot).toHtmlEscaped(),
                 slot.toHtmlEscaped());
    }

    static QString drawing(const Box &box, int number)
    {
        QString text = QStringLiteral("<g><rect x=\"%1\" y=\"%2\" width=\"%3\" height=\"%4\" rx=\"5\" fill=\"#f7f8fa\" "
                                      "stroke=\"#8a94a3\"/>")
                           .arg(box.x)
                           .arg(box.y)
                           .arg(box.width)
                           .arg(box.height);
        text += QStringLiteral("<text x=\"%1\" y=\"%2\" font-size=\"13\" font-weight=\"bold\">%3 %4</text>\n")
                    .arg(box.x + kPadding)
                    .arg(box.y + 17)
                    .arg(number)
                    .arg(box.name);
        text += QStringLiteral("<text x=\"%1\" y=\"%2\" fill=\"#5d6673\">%3</text>\n")
                    .arg(box.x + kPadding)
                    .arg(box.y + kTitleHeight + 11)
                    .arg(box.className);
        for (int i = 0; i < int(box.inputs.size()); ++i)
            text += port(box.inputs[i], box.x, box.portY(i), true);
        for (int i = 0; i < int(box.outputs.size()); ++i)
            text += port(box.outputs[i], box.x + box.width, box.portY(i), false);
        const int rows = int(std::max(box.inputs.size(), box.outputs.size()));
        for (int i = 0; i < int(box.hosts.size()); ++i)
            text += QStringLiteral("<text x=\"%1\" y=\"%2\" fill=\"#7b8490\">%3</text>\n")
                        .arg(box.x + kPadding)
                        .arg(box.portY(rows + i) + 4)
                        .arg(box.hosts[i]);
        return text + QStringLiteral("</g>\n");
    }

    std::vector<Box> _boxes; ///< The passes in the order of running, then the bends.
    int _passes = 0;
    std::vector<Link> _links;
    std::vector<std::vector<int>> _routes; ///< Bends of each link.
    std::vector<std::vector<int>> _columns;
};

} // namespace

QString pipelineGraph(const Pipeline &pipeline, QString * /*error*/)
{
    const QStringList order = pipeline.order();
    if (order.isEmpty())
        return QString();
    return Graph(pipeline, order).svg();
}

} // namespace Brevane::Kvo
