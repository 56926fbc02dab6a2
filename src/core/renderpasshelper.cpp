#include "core/renderpasshelper.h"

#include "core/hostcode.h"
#include "core/liveobjects.h"
#include "core/log.h"
#include "core/slottypes.h"

#include <QMetaType>
#include <QObject>

#include <algorithm>
#include <cstring>
#include <typeinfo>
#include <utility>

#if defined(__GNUC__)
#include <cstdlib>
#include <cxxabi.h>
#endif

namespace Brevane::Kvo {

namespace {

// Known by name, because this library does not see the class. The metatype exists as soon as a
// texture does.
QMetaType typedTextureMetaType()
{
    static QMetaType type;
    if (!type.isValid())
        type = QMetaType::fromName("Brevane::Kvo::Texture*");
    return type;
}

QVariant nullLike(const QVariant &value)
{
    const void *null = nullptr;
    return QVariant(value.metaType(), static_cast<const void *>(&null));
}

// What a slot of objects of ours hands out: an object that is gone since reads as null. Only the pointers
// are compared, since nothing may be asked of an object that is gone.
bool isGone(const PassSlot &slot)
{
    const QMetaType type = slot.value.metaType();
    // Looking for a type by name takes memory as long as there is none, so only pointers ask for it.
    const bool isOurs = type == QMetaType(QMetaType::QObjectStar)
                        || (type.flags().testFlag(QMetaType::PointerToQObject) && type == typedTextureMetaType());
    const void *address = isOurs ? objectIn(slot.value) : nullptr;
    return address && slot.name.startsWith(QLatin1StringView("Kvo_Kvo")) && liveKindOf(address) == LiveKind::None;
}

QVariant inForm(const QVariant &value, TextureForm form)
{
    if (form == TextureForm::AsGiven)
        return value;
    const QMetaType wanted = form == TextureForm::Typed ? typedTextureMetaType() : QMetaType(QMetaType::QObjectStar);
    QObject *object = objectIn(value);
    const bool isNullTexture = !object && value.isValid() && value.metaType() == typedTextureMetaType();
    if (value.metaType() == wanted || !(isNullTexture || liveKindOf(object) == LiveKind::Texture))
        return value;
    QVariant converted = QVariant::fromValue(object);
    converted.convert(wanted);
    return converted;
}

int indexOf(const QVector<PassSlot> &slots_, const QString &name)
{
    // Passes may look slots up in every frame; this is a multiple faster than QString's ==.
    const auto bytes = std::size_t(name.size()) * sizeof(QChar);
    const auto found = std::find_if(slots_.cbegin(), slots_.cend(), [&](const PassSlot &s) {
        return s.name.size() == name.size() && std::memcmp(s.name.constData(), name.constData(), bytes) == 0;
    });
    return found == slots_.cend() ? -1 : int(found - slots_.cbegin());
}

// The slot of that number in a table whose first one has another number; null for one beyond.
const SlotInfo *slotAt(std::span<const SlotInfo> table, int first, int index)
{
    const int position = index - first;
    return position >= 0 && position < int(table.size()) ? &table[std::size_t(position)] : nullptr;
}

// Without namespaces and template arguments.
QString classNameOf(const std::type_info &type)
{
    QString name = QString::fromLatin1(type.name());
#if defined(__GNUC__)
    if (char *readable = abi::__cxa_demangle(type.name(), nullptr, nullptr, nullptr)) {
        name = QString::fromLatin1(readable);
        std::free(readable);
    }
#endif
    if (const qsizetype arguments = name.indexOf(u'<'); arguments > 0)
        name.truncate(arguments);
    const qsizetype scope = std::max(name.lastIndexOf(u':'), name.lastIndexOf(u' '));
    return name.mid(scope + 1);
}

void say(const RenderPassHelper &pass, int index, const QString &what)
{
    const HostCode hostCode;
    qWarning("%s: %s %s", qPrintable(classNameOf(typeid(pass))), qPrintable(pass.inputName(index)), qPrintable(what));
}

// Whether it can be told without looking that a value is as good as the one before.
bool isPlainlyLike(const QVariant &value, const QVariant &before)
{
    const QMetaType type = value.metaType();
    if (type != before.metaType())
        return false;
    // Each of its elements may be of another type.
    if (type == QMetaType(QMetaType::QVariantList))
        return static_cast<const QVariantList *>(value.constData())
            ->isSharedWith(*static_cast<const QVariantList *>(before.constData()));
    // Objects mostly stay the same for many frames.
    if (type.flags() & (QMetaType::IsPointer | QMetaType::PointerToQObject))
        return *static_cast<const void *const *>(value.constData())
               == *static_cast<const void *const *>(before.constData());
    return type.id() != QMetaType::QString && type.id() != QMetaType::QByteArray && type.id() != QMetaType::QStringList;
}

// Says what is wrong with a value, once for values that the same is wrong with.
void checkInput(const RenderPassHelper &pass, int index, const QVariant &value)
{
    const QString name = pass.inputName(index);
    const SlotInfo *info = pass.inputInfo(index);
    const TypeMismatch wrong = typeMismatch(name, info, value);
    if (!wrong)
        return;
    const TypeMismatch before = typeMismatch(name, info, pass.inputValue(index));
    if (before && before.given == wrong.given && (before.element < 0) == (wrong.element < 0))
        return;
    const QString culprit =
        wrong.element < 0 ? QStringLiteral("a value") : QStringLiteral("element %1").arg(wrong.element);
    say(pass, index,
        QStringLiteral("takes a %1; %2 of type '%3' is none and is not read")
            .arg(QLatin1StringView(wrong.wanted), culprit, QLatin1StringView(wrong.given.name())));
}

bool inRange(const RenderPassHelper *pass, const char *operation, int index, qsizetype size)
{
    if (index >= 0 && index < size)
        return true;
    const HostCode hostCode;
    // -1 comes of a name that there is not.
    qCritical("%s: %s: slot index %d is out of range, the pass has %d", qPrintable(classNameOf(typeid(*pass))),
              operation, index, int(size));
    return false;
}

} // namespace

RenderPassHelper::RenderPassHelper() = default;
RenderPassHelper::RenderPassHelper(const RenderPassHelper &other) = default;
RenderPassHelper &RenderPassHelper::operator=(const RenderPassHelper &other) = default;
RenderPassHelper::~RenderPassHelper() = default;

void RenderPassHelper::setup(RenderCallbacks *) {}
void RenderPassHelper::beginFrame(RenderCallbacks *) {}
void RenderPassHelper::start(RenderCallbacks *) {}
void RenderPassHelper::endFrame(RenderCallbacks *) {}
void RenderPassHelper::teardown(RenderCallbacks *) {}
void RenderPassHelper::teardownContextData(RenderCallbacks *) {}

int RenderPassHelper::numInputs() const
{
    return int(_inputs.size());
}

int RenderPassHelper::numOutputs() const
{
    return int(_outputs.size());
}

QString RenderPassHelper::inputName(int index) const
{
    return inRange(this, "inputName", index, _inputs.size()) ? _inputs.at(index).name : QString();
}

QString RenderPassHelper::outputName(int index) const
{
    return inRange(this, "outputName", index, _outputs.size()) ? _outputs.at(index).name : QString();
}

void RenderPassHelper::setInput(int index, const QVariant &value)
{
    if (!inRange(this, "setInput", index, _inputs.size()))
        return;
    const QVariant taken = inForm(value, _textureForm);
    if (!isPlainlyLike(taken, _inputs.at(index).value))
        checkInput(*this, index, taken);
    _inputs[index].value = taken;
    _inputStates[index].wasSet = true;
}

QVariant RenderPassHelper::defaultValue(int index) const
{
    return inRange(this, "defaultValue", index, _inputs.size()) ? _inputStates.at(index).defaultValue : QVariant();
}

void RenderPassHelper::setDefaultValue(int index, const QVariant &value)
{
    if (!inRange(this, "setDefaultValue", index, _inputs.size()))
        return;
    InputState &state = _inputStates[index];
    state.defaultValue = value;
    if (!state.wasSet)
        _inputs[index].value = inForm(value, _textureForm);
}

QVariant RenderPassHelper::output(int index) const
{
    if (!inRange(this, "output", index, _outputs.size()))
        return QVariant();
    const PassSlot &slot = _outputs.at(index);
    return isGone(slot) ? nullLike(slot.value) : slot.value;
}

void RenderPassHelper::setNumOutputUsers(int index, int count)
{
    if (inRange(this, "setNumOutputUsers", index, _numOutputUsers.size()))
        _numOutputUsers[index] = count;
}

void RenderPassHelper::resetNumOutputUsers()
{
    _numOutputUsers.fill(0);
}

unsigned int RenderPassHelper::errorCode() const
{
    return _errorCode;
}

void RenderPassHelper::setErrorCode(unsigned int code)
{
    _errorCode = code;
}

int RenderPassHelper::findInput(const QString &name) const
{
    return indexOf(_inputs, name);
}

int RenderPassHelper::findOutput(const QString &name) const
{
    return indexOf(_outputs, name);
}

const SlotInfo *RenderPassHelper::inputInfo(int index) const
{
    for (const Description &d : _descriptions)
        if (const SlotInfo *info = slotAt(d.info->inputs, d.firstInput, index))
            return info;
    return nullptr;
}

const SlotInfo *RenderPassHelper::outputInfo(int index) const
{
    for (const Description &d : _descriptions)
        if (const SlotInfo *info = slotAt(d.info->outputs, d.firstOutput, index))
            return info;
    return nullptr;
}

const PassInfo *RenderPassHelper::passInfo() const
{
    return _descriptions.isEmpty() ? nullptr : _descriptions.last().info;
}

QVariant RenderPassHelper::inputValue(int index) const
{
    return inRange(this, "inputValue", index, _inputs.size()) ? _inputs.at(index).value : QVariant();
}

void RenderPassHelper::reportInput(int index, const QString &what)
{
    if (!inRange(this, "reportInput", index, _inputStates.size())
        || std::exchange(_inputStates[index].isReported, true))
        return;
    say(*this, index, what);
}

void RenderPassHelper::acceptInput(int index)
{
    // Read first: to write would copy what copies of the pass share.
    if (inRange(this, "acceptInput", index, _inputStates.size()) && _inputStates.at(index).isReported)
        _inputStates[index].isReported = false;
}

int RenderPassHelper::addInput(const QString &name, const QVariant &defaultValue, int index)
{
    const int position = numInputs();
    KVO_ASSERT(index == -1 || index == position, "input '%s' is number %d, not %d", qPrintable(name), position, index);
    _inputs.append({name, inForm(defaultValue, _textureForm)});
    _inputStates.append({defaultValue, false});
    return position;
}

int RenderPassHelper::addOutput(const QString &name, int index)
{
    const int position = numOutputs();
    KVO_ASSERT(index == -1 || index == position, "output '%s' is number %d, not %d", qPrintable(name), position, index);
    _outputs.append({name, QVariant()});
    _numOutputUsers.append(0);
    return position;
}

void RenderPassHelper::describe(const PassInfo &info)
{
    const int firstInput = numInputs() - int(info.inputs.size());
    const int firstOutput = numOutputs() - int(info.outputs.size());
    KVO_ASSERT(firstInput >= 0 && firstOutput >= 0, "'%s' describes more slots than there are", info.className);
    _descriptions.append({&info, firstInput, firstOutput});
}

void RenderPassHelper::setTextureForm(TextureForm form)
{
    _textureForm = form;
}

} // namespace Brevane::Kvo
