#include "core/slottypes.h"

#include "core/liveobjects.h"
#include "core/slotinfo.h"

#include <QByteArrayView>
#include <QMetaType>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

struct ObjectType
{
    QLatin1StringView word; // in names of slots
    LiveKind kind;
    const char *meaning;
};

constexpr std::array kObjects{ObjectType{"KvoTexture*"_L1, LiveKind::Texture, "texture"},
                              ObjectType{"KvoGPUModel*"_L1, LiveKind::Model, "model"},
                              ObjectType{"KvoDrawBuffers*"_L1, LiveKind::DrawBuffers, "geometry"},
                              ObjectType{"KvoFramebuffer*"_L1, LiveKind::Framebuffer, "framebuffer"}};
constexpr ObjectType kRecord{{}, LiveKind::Record, "record"};

struct ValueType
{
    QLatin1StringView word;
    QMetaType::Type type;
    const char *meaning;
};

constexpr std::array kValues{ValueType{"float"_L1, QMetaType::Float, "number"},
                             ValueType{"Float"_L1, QMetaType::Float, "number"},
                             ValueType{"int"_L1, QMetaType::Int, "number"},
                             ValueType{"Int"_L1, QMetaType::Int, "number"},
                             ValueType{"bool"_L1, QMetaType::Bool, "switch"},
                             ValueType{"Bool"_L1, QMetaType::Bool, "switch"},
                             ValueType{"QString"_L1, QMetaType::QString, "text"},
                             ValueType{"string"_L1, QMetaType::QString, "text"},
                             ValueType{"QRect"_L1, QMetaType::QRect, "rectangle"},
                             ValueType{"QColor"_L1, QMetaType::QColor, "colour"},
                             ValueType{"QMatrix4x4"_L1, QMetaType::QMatrix4x4, "matrix"},
                             ValueType{"QVector2D"_L1, QMetaType::QVector2D, "vector of two"},
                             ValueType{"QVector3D"_L1, QMetaType::QVector3D, "vector of three"},
                             ValueType{"QList"_L1, QMetaType::QVariantList, "list"}};

bool takesSeveralRectangles(const QString &slot)
{
    return slot == "Kvo_QRect_ViewportOut"_L1 || slot == "Kvo_QVariant_Rects"_L1;
}

// "float" of "Kvo_float_BlurRadius".
QStringView typeWordOf(QStringView slot)
{
    constexpr QLatin1StringView kPrefix("Kvo_");
    if (slot.startsWith(kPrefix))
        slot = slot.sliced(kPrefix.size());
    const qsizetype end = slot.indexOf(u'_');
    return end < 0 ? QStringView() : slot.first(end);
}

template <typename Types>
auto *entryOf(const Types &types, QStringView word)
{
    const auto found = std::find_if(types.begin(), types.end(), [&](const auto &type) { return word == type.word; });
    return found == types.end() ? nullptr : &*found;
}

bool isNumber(QMetaType type)
{
    switch (type.id()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Float:
    case QMetaType::Double: return true;
    default: return false;
    }
}

bool becomes(const QVariant &value, QMetaType wanted)
{
    const QMetaType type = value.metaType();
    if (type == wanted || (isNumber(type) && isNumber(wanted)))
        return true;
    if (wanted == QMetaType(QMetaType::QVariantList))
        return isList(value);
    QVariant converted = value;
    return QMetaType::canConvert(type, wanted) && converted.convert(wanted);
}

// Nothing is asked of the object itself, which may be gone.
bool isObject(const QVariant &value, LiveKind kind)
{
    const QMetaType type = value.metaType();
    if (type == QMetaType(QMetaType::Nullptr))
        return true;
    if (!(type.flags() & (QMetaType::IsPointer | QMetaType::PointerToQObject)))
        return isGuarded(type) && (!objectIn(value) || liveKindOf(objectIn(value)) == kind);
    if (QByteArrayView(type.name()).startsWith("const "))
        return false;
    const void *object = *static_cast<const void *const *>(value.constData());
    return !object || liveKindOf(object) == kind;
}

template <typename Fits>
TypeMismatch firstMisfit(const QVariantList &elements, const char *wanted, Fits &&fits)
{
    const auto found = std::find_if_not(elements.begin(), elements.end(),
                                        [&](const QVariant &each) { return !each.isValid() || fits(each); });
    if (found == elements.end())
        return {};
    return {wanted, found->metaType(), found - elements.begin()};
}

} // namespace

bool isList(const QVariant &value)
{
    const int type = value.metaType().id();
    return type != QMetaType::QString && type != QMetaType::QByteArray && value.canConvert<QVariantList>();
}

QVariantList listIn(const QVariant &value)
{
    return isList(value) ? value.toList() : QVariantList();
}

TypeMismatch typeMismatch(const QString &slot, const SlotInfo *info, const QVariant &value)
{
    if (!value.isValid())
        return {};
    const QMetaType type = value.metaType();
    const bool isSeveral = isList(value);
    const auto unless = [type](bool fits, const char *wanted) {
        return fits ? TypeMismatch() : TypeMismatch{wanted, type};
    };
    const QStringView word = typeWordOf(slot);
    const bool isRecord = info ? info->kind == SlotKind::Record : slot.endsWith("_ShadowMapData"_L1);
    if (const ObjectType *object = isRecord ? &kRecord : entryOf(kObjects, word)) {
        const auto fits = [object](const QVariant &each) { return isObject(each, object->kind); };
        // Pieces of geometry are drawn one after another.
        return isSeveral && object->kind == LiveKind::DrawBuffers ? firstMisfit(value.toList(), object->meaning, fits)
                                                                  : unless(fits(value), object->meaning);
    }
    if (!info)
        return {};
    if (takesSeveralRectangles(slot)) {
        const auto fits = [](const QVariant &each) { return becomes(each, QMetaType(QMetaType::QRect)); };
        constexpr const char *kWanted = "rectangle or a list of them";
        return isSeveral ? firstMisfit(value.toList(), kWanted, fits) : unless(fits(value), kWanted);
    }
    if (slot == "Kvo_QList_InstanceData"_L1) {
        const auto fits = [](const QVariant &each) { return isObject(each, LiveKind::InstanceData); };
        constexpr const char *kWanted = "list of instance data";
        return isSeveral ? firstMisfit(value.toList(), kWanted, fits) : unless(false, kWanted);
    }
    // One of what a list is of stands for a list of it, and so does a list of another type: whose elements know.
    if (word == "QList"_L1 && type.id() >= QMetaType::User)
        return {};
    // A size is not among them: of what is none for maps the pass says all.
    const ValueType *wanted = entryOf(kValues, info->kind == SlotKind::Factor ? u"float" : word);
    return unless(!wanted || becomes(value, QMetaType(wanted->type)), wanted ? wanted->meaning : nullptr);
}

} // namespace Brevane::Kvo
