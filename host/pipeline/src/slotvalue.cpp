#include "host/slotvalue.h"

#include "core/slotinfo.h"
#include "host/slotname.h"
#include "json.h"
#include "slotvaluejson.h"

#include <QColor>
#include <QMatrix4x4>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>

namespace Brevane::Kvo {

namespace {

using Parsed = std::optional<QVariant>;

// The first count numbers of a list that has exactly so many.
template <typename T, size_t count>
std::optional<std::array<T, count>> numbers(const Json &json)
{
    if (!json.isArray() || json.elements.size() != count)
        return {};
    std::array<T, count> result;
    for (size_t i = 0; i < count; ++i) {
        const Json &element = json.elements[i];
        const bool fits =
            !std::is_integral_v<
                T> || (element.number == std::floor(element.number) && std::abs(element.number) <= std::numeric_limits<int>::max());
        if (!element.isNumber() || !fits)
            return {};
        result[i] = T(element.number);
    }
    return result;
}

Parsed toBool(const Json &json)
{
    return json.type == Json::Type::Bool ? Parsed(json.boolean) : Parsed();
}

Parsed toInt(const Json &json)
{
    const bool whole = json.isNumber() && json.number == std::floor(json.number)
                       && std::abs(json.number) <= std::numeric_limits<int>::max();
    return whole ? Parsed(int(json.number)) : Parsed();
}

Parsed toFloat(const Json &json)
{
    return json.isNumber() ? Parsed(float(json.number)) : Parsed();
}

Parsed toText(const Json &json)
{
    return json.isString() ? Parsed(json.string) : Parsed();
}

Parsed toColor(const Json &json)
{
    if (json.isString()) {
        // Qt reads eight digits as alpha first; people write it last.
        QString text = json.string;
        if (text.startsWith(QLatin1Char('#')) && text.size() == 9)
            text = QLatin1Char('#') + text.mid(7, 2) + text.mid(1, 6);
        const QColor color(text);
        return color.isValid() ? Parsed(color) : Parsed();
    }
    std::array<float, 4> rgba{0, 0, 0, 1};
    if (const auto three = numbers<float, 3>(json))
        std::copy(three->begin(), three->end(), rgba.begin());
    else if (const auto four = numbers<float, 4>(json))
        rgba = *four;
    else
        return {};
    if (std::any_of(rgba.begin(), rgba.end(), [](float c) { return c < 0.0f || c > 1.0f; }))
        return {};
    return QColor::fromRgbF(rgba[0], rgba[1], rgba[2], rgba[3]);
}

Parsed toRect(const Json &json)
{
    const auto n = numbers<int, 4>(json);
    if (!n)
        return {};
    // A rectangle keeps its last column and row, which no int may hold. From its size it would be made by way of one more.
    const auto [x, y, width, height] = *n;
    const qint64 right = qint64(x) + width - 1;
    const qint64 bottom = qint64(y) + height - 1;
    const auto fits = [](qint64 last) {
        return last >= std::numeric_limits<int>::min() && last <= std::numeric_limits<int>::max();
    };
    return fits(right) && fits(bottom) ? Parsed(QRect(QPoint(x, y), QPoint(int(right), int(bottom)))) : Parsed();
}

Parsed toRectOrList(const Json &json)
{
    if (!json.isArray() || json.elements.empty() || !json.elements.front().isArray())
        return toRect(json);
    QVariantList list;
    for (const Json &element : json.elements) {
        const Parsed rect = toRect(element);
        if (!rect)
            return {};
        list.append(*rect);
    }
    return QVariant(list);
}

Parsed toMatrix(const Json &json)
{
    const auto n = numbers<float, 16>(json);
    return n ? Parsed(QVariant::fromValue(QMatrix4x4(n->data()))) : Parsed();
}

template <typename Vector, size_t count>
Parsed toVector(const Json &json)
{
    const auto n = numbers<float, count>(json);
    if (!n)
        return {};
    Vector vector;
    for (size_t i = 0; i < count; ++i)
        vector[int(i)] = (*n)[i];
    return QVariant::fromValue(vector);
}

Parsed toSize(const Json &json)
{
    const auto n = numbers<int, 2>(json);
    return n ? Parsed(QSize((*n)[0], (*n)[1])) : Parsed();
}

Parsed toPoint(const Json &json)
{
    const auto n = numbers<int, 2>(json);
    return n ? Parsed(QPoint((*n)[0], (*n)[1])) : Parsed();
}

Parsed toAnything(const Json &json)
{
    switch (json.type) {
    case Json::Type::Null: return QVariant();
    case Json::Type::Bool: return QVariant(json.boolean);
    case Json::Type::Number: return QVariant(json.number);
    case Json::Type::String: return QVariant(json.string);
    case Json::Type::Object: return {};
    case Json::Type::Array: break;
    }
    if (Parsed rect = toRect(json))
        return rect;
    QVariantList list;
    for (const Json &element : json.elements) {
        const Parsed item = toAnything(element);
        if (!item)
            return {};
        list.append(*item);
    }
    return QVariant(list);
}

Parsed toList(const Json &json)
{
    if (!json.isArray())
        return {};
    QVariantList list;
    for (const Json &element : json.elements) {
        const Parsed item = toAnything(element);
        if (!item)
            return {};
        list.append(*item);
    }
    return QVariant(list);
}

struct TypeReader
{
    const char *type;
    int metaType; ///< For slots whose type is known by their default value only.
    Parsed (*read)(const Json &);
    const char *expects;
};

constexpr TypeReader kReaders[] = {
    {"float", QMetaType::Float, toFloat, "a number"},
    {"Float", QMetaType::Float, toFloat, "a number"},
    {"int", QMetaType::Int, toInt, "a whole number"},
    {"bool", QMetaType::Bool, toBool, "true or false"},
    {"Bool", QMetaType::Bool, toBool, "true or false"},
    {"QColor", QMetaType::QColor, toColor, "\"#rrggbb\", \"#rrggbbaa\", a colour name, or [r, g, b, a] from 0 to 1"},
    {"QRect", QMetaType::QRect, toRectOrList, "[x, y, width, height]"},
    {"QSize", QMetaType::QSize, toSize, "[width, height]"},
    {"QPoint", QMetaType::QPoint, toPoint, "[x, y]"},
    {"QMatrix4x4", QMetaType::QMatrix4x4, toMatrix, "16 numbers, row by row"},
    {"QVector2D", QMetaType::QVector2D, toVector<QVector2D, 2>, "[x, y]"},
    {"QVector3D", QMetaType::QVector3D, toVector<QVector3D, 3>, "[x, y, z]"},
    {"QVector4D", QMetaType::QVector4D, toVector<QVector4D, 4>, "[x, y, z, w]"},
    {"QString", QMetaType::QString, toText, "text"},
    {"string", QMetaType::QString, toText, "text"},
    {"QList", QMetaType::QVariantList, toList, "a list"},
    {"QVariant", QMetaType::UnknownType, toAnything, "a plain value"},
};

constexpr TypeReader kAnyReader = {"", QMetaType::UnknownType, toAnything, "a plain value"};

const TypeReader *readerFor(const QString &slot, const QVariant &hint, const SlotInfo *info)
{
    const QString type = SlotName::parse(slot).type;
    for (const TypeReader &reader : kReaders)
        if (type == QLatin1StringView(reader.type))
            return &reader;
    if (!type.isEmpty())
        return nullptr;
    // Numbers of the library that do not say their type are fractions.
    const int hinted = hint.isValid()                             ? hint.metaType().id()
                       : info && std::isfinite(info->range.least) ? int(QMetaType::Float)
                                                                  : int(QMetaType::UnknownType);
    for (const TypeReader &reader : kReaders)
        if (hinted != QMetaType::UnknownType && reader.metaType == hinted)
            return &reader;
    return &kAnyReader;
}

QStringList namesOf(std::span<const SlotChoice> choices)
{
    QStringList names;
    for (const SlotChoice &choice : choices)
        names << QLatin1StringView(choice.name);
    return names;
}

// One of the choices by its name, or any number. Null for another type of value.
Parsed toChoice(const Json &json, const SlotInfo &info)
{
    for (const SlotChoice &choice : info.choices)
        if (json.isString() && json.string == QLatin1StringView(choice.name))
            return Parsed(choice.value);
    return toInt(json);
}

QString joined(std::initializer_list<double> values)
{
    QStringList texts;
    for (const double value : values)
        texts << QString::number(value);
    return QStringLiteral("[%1]").arg(texts.join(QLatin1StringView(", ")));
}

QString quotedJson(const QString &text)
{
    QString result(QLatin1Char('"'));
    for (const QChar c : text) {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
            result += QLatin1Char('\\') + c;
        else if (c == QLatin1Char('\n'))
            result += QLatin1StringView("\\n");
        else if (c.unicode() < 0x20)
            result += QStringLiteral("\\u%1").arg(int(c.unicode()), 4, 16, QLatin1Char('0'));
        else
            result += c;
    }
    return result + QLatin1Char('"');
}

} // namespace

bool slotValueFromJson(const QString &slot, const Json &json, QVariant *value, QString *error, const QVariant &hint,
                       const SlotInfo *info)
{
    const TypeReader *reader = readerFor(slot, hint, info);
    if (!reader) {
        *error = QStringLiteral("'%1' takes a link or a host value, not %2").arg(slot, json.describe());
        return false;
    }
    const bool isChoice = info && !info->choices.empty();
    const Parsed parsed = json.isNull() ? Parsed(QVariant()) : isChoice ? toChoice(json, *info) : reader->read(json);
    if (!parsed && isChoice) {
        const QStringList names = namesOf(info->choices);
        *error = QStringLiteral("'%1' takes one of %2, or a whole number, not %3%4")
                     .arg(slot, names.join(QLatin1StringView(", ")), json.describe(),
                          json.isString() ? nearestNameHint(json.string, names) : QString());
        return false;
    }
    if (!parsed) {
        *error = QStringLiteral("'%1' takes %2, not %3").arg(slot, QLatin1StringView(reader->expects), json.describe());
        return false;
    }
    *value = *parsed;
    return true;
}

bool parseSlotValue(const QString &slot, const QString &text, QVariant *value, QString *error, const QVariant &hint,
                    const SlotInfo *info)
{
    Json json;
    int line = 0;
    QString reason;
    const TypeReader *reader = readerFor(slot, hint, info);
    const bool takesText = reader && reader->read == toText;
    const bool quoted = text.trimmed().startsWith(QLatin1Char('"'));
    if ((takesText && !quoted) || !Json::parse(text.toUtf8(), &json, &line, &reason)) {
        json = Json();
        json.type = Json::Type::String;
        json.string = text;
    }
    return slotValueFromJson(slot, json, value, error, hint, info);
}

bool slotValueToJson(const QVariant &value, QString *text)
{
    // As few digits as give the same float again.
    const auto number = [](float f) {
        return QString::number(double(f), 'g', QString::number(double(f), 'g', 7).toFloat() == f ? 7 : 9);
    };
    const auto list = [&](std::initializer_list<float> parts) {
        QStringList texts;
        for (const float part : parts)
            texts << number(part);
        return QStringLiteral("[%1]").arg(texts.join(QLatin1StringView(", ")));
    };
    switch (value.metaType().id()) {
    case QMetaType::UnknownType: *text = QStringLiteral("null"); return true;
    case QMetaType::Bool: *text = value.toBool() ? QStringLiteral("true") : QStringLiteral("false"); return true;
    case QMetaType::Int: *text = QString::number(value.toInt()); return true;
    case QMetaType::Double: *text = QString::number(value.toDouble(), 'g', 17); return std::isfinite(value.toDouble());
    case QMetaType::Float: *text = number(value.toFloat()); return std::isfinite(value.toFloat());
    case QMetaType::QString: *text = quotedJson(value.toString()); return true;
    case QMetaType::QColor: {
        const QColor color = qvariant_cast<QColor>(value);
        // What eight bits do not hold goes as fractions.
        const QColor rounded(color.red(), color.green(), color.blue(), color.alpha());
        const auto same = [](float a, float b) { return std::abs(a - b) < 1e-6f; };
        const bool isWhole = same(color.redF(), rounded.redF()) && same(color.greenF(), rounded.greenF())
                             && same(color.blueF(), rounded.blueF()) && same(color.alphaF(), rounded.alphaF());
        *text = isWhole ? quotedJson(describeSlotValue(color))
                        : list({color.redF(), color.greenF(), color.blueF(), color.alphaF()});
        return color.isValid();
    }
    case QMetaType::QRect:
    case QMetaType::QSize: *text = describeSlotValue(value); return true;
    case QMetaType::QPoint: *text = joined({double(value.toPoint().x()), double(value.toPoint().y())}); return true;
    case QMetaType::QVector2D: {
        const QVector2D v = qvariant_cast<QVector2D>(value);
        *text = list({v.x(), v.y()});
        return true;
    }
    case QMetaType::QVector3D: {
        const QVector3D v = qvariant_cast<QVector3D>(value);
        *text = list({v.x(), v.y(), v.z()});
        return true;
    }
    case QMetaType::QVector4D: {
        const QVector4D v = qvariant_cast<QVector4D>(value);
        *text = list({v.x(), v.y(), v.z(), v.w()});
        return true;
    }
    case QMetaType::QMatrix4x4: {
        QStringList parts;
        const auto m = qvariant_cast<QMatrix4x4>(value);
        for (int row = 0; row < 4; ++row)
            for (int column = 0; column < 4; ++column)
                parts << number(m(row, column));
        *text = QStringLiteral("[%1]").arg(parts.join(QLatin1StringView(", ")));
        return true;
    }
    case QMetaType::QVariantList: {
        QStringList parts;
        for (const QVariant &part : value.toList())
            if (!slotValueToJson(part, &parts.emplace_back()))
                return false;
        *text = QStringLiteral("[%1]").arg(parts.join(QLatin1StringView(", ")));
        return true;
    }
    default: return false;
    }
}

QString describeSlotValue(const QVariant &value)
{
    switch (value.metaType().id()) {
    case QMetaType::UnknownType: return QStringLiteral("none");
    // As many digits as a float has; as a double it would show what it is not.
    case QMetaType::Float: return QString::number(double(value.toFloat()), 'g', 7);
    case QMetaType::QColor: {
        const QColor c = qvariant_cast<QColor>(value);
        if (!c.isValid())
            return QStringLiteral("none");
        const QString alpha = c.alpha() == 255 ? QString() : c.name(QColor::HexArgb).mid(1, 2);
        return c.name() + alpha;
    }
    case QMetaType::QRect: {
        const QRect r = value.toRect();
        // Its corners may be as far apart as two ints are.
        const auto extent = [](int first, int last) { return double(last) - double(first) + 1.0; };
        return joined({double(r.x()), double(r.y()), extent(r.left(), r.right()), extent(r.top(), r.bottom())});
    }
    case QMetaType::QSize: return joined({double(value.toSize().width()), double(value.toSize().height())});
    case QMetaType::QVector2D: {
        const QVector2D v = qvariant_cast<QVector2D>(value);
        return joined({v.x(), v.y()});
    }
    case QMetaType::QVector3D: {
        const QVector3D v = qvariant_cast<QVector3D>(value);
        return joined({v.x(), v.y(), v.z()});
    }
    case QMetaType::QString: return QStringLiteral("\"%1\"").arg(value.toString());
    case QMetaType::QVariantList: return QStringLiteral("a list of %1").arg(value.toList().size());
    default:
        return value.canConvert<QString>() && !value.toString().isEmpty() ? value.toString()
                                                                          : QLatin1StringView(value.typeName());
    }
}

} // namespace Brevane::Kvo
