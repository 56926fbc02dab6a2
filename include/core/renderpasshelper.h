#pragma once

#include "core/export.h"
#include "core/passslot.h"
#include "core/renderpass.h"
#include "core/slotinfo.h"

#include <QVarLengthArray>
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
    /// Stores a value. A texture is first brought into the form that this pass reads, so that any output can be wired to
    /// any input; everything else is stored as it came. What is of another type than the slot takes reads as that type's
    /// default, which is said once, through qWarning. Values only borrow: an object that is destroyed later reads as
    /// nothing when the pass starts.
    void setInput(int index, const QVariant &value) override;
    QVariant defaultValue(int index) const override;
    void setDefaultValue(int index, const QVariant &value) override;
    /// As the pass left it. An object that has been destroyed since reads as a null pointer.
    QVariant output(int index) const override;
    void setNumOutputUsers(int index, int count) override;
    void resetNumOutputUsers() override;
    unsigned int errorCode() const override;
    void setErrorCode(unsigned int code) override;

    /// Index of the input of that full name ("Kvo_QRect_Viewport"), or -1.
    int findInput(const QString &name) const;
    /// Index of the output of that full name, or -1.
    int findOutput(const QString &name) const;

    /// What an input is for; null for a slot of which nothing is said, as those that a host adds by name.
    const SlotInfo *inputInfo(int index) const;
    /// The same of an output.
    const SlotInfo *outputInfo(int index) const;
    /// What the pass is for, as its class or the nearest one above it that says so; null for none.
    const PassInfo *passInfo() const;

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

    /// Says what the slots are that were declared last, as many as \a info has: a constructor calls this once
    /// its slots are there. A class that adds slots to those of another describes its own alone; a slot that it
    /// gives another name keeps its description. \a info is kept by its address, so it has to be static.
    void describe(const PassInfo &info);

    /// The form in which setInput stores textures for this pass; AsGiven unless set.
    void setTextureForm(TextureForm form);

    QVector<PassSlot> _inputs; ///< In the order of their declaration.
    QVector<PassSlot> _outputs; ///< In the order of their declaration.
    QVector<int> _numOutputUsers; ///< By output.

private:
    struct InputState
    {
        QVariant defaultValue;
        bool wasSet = false;
        bool isReported = false;
    };

    // Where the slots of a description begin.
    struct Description
    {
        const PassInfo *info;
        int firstInput;
        int firstOutput;
    };

    QVector<InputState> _inputStates;
    QVarLengthArray<Description, 2> _descriptions;
    TextureForm _textureForm = TextureForm::AsGiven;
    unsigned int _errorCode = 0;
};

} // namespace Brevane::Kvo
