#include "rectangleparts.h"

#include "json.h"

#include <QVariantList>

#include <algorithm>
#include <optional>

namespace Brevane::Kvo {

namespace {

// Keeps products with any picture size far from what an int holds.
constexpr double kLargestFraction = 1000.0;
// A viewport that is none may be so large that they are not; half of what an int holds, for differences.
constexpr double kFarthest = 1 << 30;

std::optional<QRectF> toPart(const Json &json)
{
    const bool fits = json.isArray() && json.elements.size() == 4
                      && std::all_of(json.elements.begin(), json.elements.end(), [](const Json &element) {
                             return element.isNumber() && qAbs(element.number) <= kLargestFraction;
                         });
    if (!fits)
        return {};
    return QRectF(json.elements[0].number, json.elements[1].number, json.elements[2].number, json.elements[3].number);
}

// Edges are rounded, not sizes: parts that touch leave no gap and do not overlap.
QRect partOf(const QRect &rectangle, const QRectF &part)
{
    // Corners are inclusive, and those of a host may be as far apart as ints are.
    const auto at = [](int first, int last, double fraction) {
        const double extent = double(last) - double(first) + 1.0;
        const int offset = qRound(std::clamp(fraction * extent, -kFarthest, kFarthest));
        return int(std::clamp(double(first) + offset, -kFarthest, kFarthest));
    };
    const auto x = [&](double fraction) { return at(rectangle.left(), rectangle.right(), fraction); };
    const auto y = [&](double fraction) { return at(rectangle.top(), rectangle.bottom(), fraction); };
    const QPoint corner(x(part.left()), y(part.top()));
    return QRect(corner, QSize(x(part.right()) - corner.x(), y(part.bottom()) - corner.y()));
}

} // namespace

bool RectangleParts::parse(const QString &text, QString *error)
{
    Json json;
    int line = 0;
    QString reason;
    std::vector<QRectF> parts;
    bool isList = false;
    if (Json::parse(text.toUtf8(), &json, &line, &reason) && json.isArray()) {
        isList = !json.elements.empty() && json.elements.front().isArray();
        if (!isList) {
            if (const auto part = toPart(json))
                parts.push_back(*part);
        } else {
            for (const Json &element : json.elements)
                if (const auto part = toPart(element))
                    parts.push_back(*part);
            if (parts.size() != json.elements.size())
                parts.clear();
        }
    }
    if (parts.empty()) {
        *error = QStringLiteral("'%1' is no part of a rectangle: use [x, y, width, height] in fractions of its size, "
                                "or a list of these")
                     .arg(text);
        return false;
    }
    *this = RectangleParts();
    _parts = parts;
    _isList = isList;
    _text = text;
    return true;
}

const QVariant &RectangleParts::of(const QRect &rectangle) const
{
    if (_value.isValid() && rectangle == _rectangle)
        return _value;
    _rectangle = rectangle;
    if (!_isList) {
        _value = partOf(rectangle, _parts.front());
        return _value;
    }
    QVariantList list;
    for (const QRectF &part : _parts)
        list.append(partOf(rectangle, part));
    _value = list;
    return _value;
}

} // namespace Brevane::Kvo
