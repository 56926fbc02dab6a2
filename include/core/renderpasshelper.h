#pragma once

#include "core/export.h"
#include "core/passslot.h"
#include "core/renderpass.h"

#include <QVector>

namespace Brevane::Kvo {

/// The two forms in which a texture crosses a slot.
enum class TextureForm {
    AsGiven, ///< The pass reads either form; values are stored as they come.
    Object, ///< QVariant of QMetaType::QObjectStar.
    Typed, ///< QVariant of the metatype "Brevane::Kvo::Texture*".
};

/// Base of all passes: keeps the slots, and implements every operation of RenderPass with no effect
/// beyond the slots.
///
/// A value out of range does no harm. What sizes a target, a loop or memory is bounded, and the bound is said
/// once; the headers of the passes tell which. A viewport of the library's passes with a side beyond what the
/// driver has for textures and viewports is cut to that, and then to 4 million texels in its proportion.
///
/// Copying is memberwise: slots, values and counts.
class KVO_CORE_EXPORT RenderPassHelper : public RenderPass
{
public:
    RenderPassHelper();
    RenderPassHelper(const RenderPassHelper &other);
    RenderPassHelper &operator=(const RenderPassHelper &other);
    ~RenderPassHelper() override;

    void setup(RenderCallbacks *callbacks) override;
    void beginFrame(RenderCallbacks *callbacks) override;
    void start(RenderCallbacks *callbacks) override;
    void endFrame(RenderCallbacks *callbacks) override;
    void teardown(RenderCallbacks *callbacks) override;
    void teardownContextData(RenderCallbacks *callbacks) override;

    int numInputs() const override;
    int numOutputs() const override;
    QString inputName(int index) const override;
    QString outputName(int index) const override;
    /// Stores a value. A texture is first brought into the form that this pass reads, so that any
    /// output can be wired to any input; everything else is stored as it came. Values only borrow: an
    /// object that is destroyed later reads as nothing when the pass starts.
    void setInput(int index, const QVariant &value) override;
    QVariant defaultValue(int index) const override;
    void setDefaultValue(int index, const QVariant &value) override;
    /// As the pass left it. An object that has been destroyed since reads as a null pointer.
    QVariant output(int index) const override;
    void setNumOutputUsers(int index, int count) override;
    void resetNumOutputUsers() override;
    unsigned int errorCode() const override;
    void setErrorCode(unsigned int code) override;

    /// Index of the input of that name, or -1.
    int findInput(const QString &name) const;
    /// Index of the output of that name, or -1.
    int findOutput(const QString &name) const;

    /// The value in an input, as it is stored; invalid for an index out of range.
    QVariant inputValue(int index) const;
    /// Says in a warning what becomes of a value that is out of range: "CLASS: INPUT WHAT". Once, and
    /// again only after acceptInput: what is out of range mostly stays so for many frames.
    void reportInput(int index, const QString &what);
    /// The value in an input is in range.
    void acceptInput(int index);

protected:
    /// Appends an input whose value starts as \a defaultValue and gives its index. Slots are numbered
    /// in the order of declaration; \a index restates that number and is checked when not -1.
    int addInput(const QString &name, const QVariant &defaultValue = QVariant(), int index = -1);
    /// Appends an output with an invalid value and gives its index.
    int addOutput(const QString &name, int index = -1);

    /// The form in which setInput stores textures for this pass; AsGiven unless set.
    void setTextureForm(TextureForm form);

    QVector<PassSlot> _inputs;
    QVector<PassSlot> _outputs;
    QVector<int> _numOutputUsers;

private:
    struct InputState
    {
        QVariant defaultValue;
        bool wasSet = false;
        bool isReported = false;
    };

    QVector<InputState> _inputStates;
    TextureForm _textureForm = TextureForm::AsGiven;
    unsigned int _errorCode = 0;
};

} // namespace Brevane::Kvo
