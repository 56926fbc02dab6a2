#include "host/slotvalue.h"

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
    return n ? Parsed(QRect((*n)[0], (*n)[1], (*n)[2], (*n)[3])) : Parsed();
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

struct UntypedSlot
{
    const char *slot;
    const char *type;
};

// Slots of our passes with neither a type in their name nor a default value.
constexpr UntypedSlot kUntypedSlots[] = {
    {"Int_BlendMode", "int"},
    {"brightness", "float"},
};

QString typeOf(const QString &slot)
{
    for (const UntypedSlot &untyped : kUntypedSlots)
        if (slot == QLatin1StringView(untyped.slot))
            return QLatin1StringView(untyped.type);
    return SlotName::parse(slot).type;
}

const TypeReader *readerFor(const QString &slot, const QVariant &hint)
{
    const QString type = typeOf(slot);
    for (const TypeReader &reader : kReaders)
        if (type == QLatin1StringView(reader.type))
            return &reader;
    if (!type.isEmpty())
        return nullptr;
    if (hint.isValid())
        for (const TypeReader &reader : kReaders)
            if (reader.metaType == hint.metaType().id())
                return &reader;
    return &kAnyReader;
}

QString joined(std::initializer_list<double> values)
{
    QStringList texts;
    for (const double value : values)
        texts << QString::number(value);
    return QStringLiteral("[%1]").arg(texts.join(QLatin1StringView(", ")));
}

} // namespace

bool slotValueFromJson(const QString &slot, const Json &json, QVariant *value, QString *error, const QVariant &hint)
{
    const TypeReader *reader = readerFor(slot, hint);
    if (!reader) {
        *error = QStringLiteral("'%1' takes a link or a host value, not %2").arg(slot, json.describe());
        return false;
    }
    const Parsed parsed = json.isNull() ? Parsed(QVariant()) : reader->read(json);
    if (!parsed) {
        *error = QStringLiteral("'%1' takes %2, not %3").arg(slot, QLatin1StringView(reader->expects), json.describe());
        return false;
    }
    *value = *parsed;
    return true;
}

bool parseSlotValue(const QString &slot, const QString &text, QVariant *value, QString *error, const QVariant &hint)
{
    Json json;
    int line = 0;
    QString reason;
    const TypeReader *reader = readerFor(slot, hint);
    const bool takesText = reader && reader->read == toText;
    const bool quoted = text.trimmed().startsWith(QLatin1Char('"'));
    if ((takesText && !quoted) || !Json::parse(text.toUtf8(), &json, &line, &reason)) {
        json = Json();
        json.type = Json::Type::String;
        json.string = text;
    }
    return slotValueFromJson(slot, json, value, error, hint);
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
        return joined({double(r.x()), double(r.y()), double(r.width()), double(r.height())});
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
