#include "support/messages.h"

#include <core/renderpasshelper.h>
#include <gl/drawbuffers.h>
#include <gl/framebufferobject.h>
#include <gl/texture.h>
#include <model/gpumodel.h>

#include <QColor>
#include <QMatrix4x4>
#include <QRect>

#include <gtest/gtest.h>

namespace Brevane::Kvo {

namespace {

using Test::MessageCapture;

class SlotPass : public RenderPassHelper
{
public:
    explicit SlotPass(TextureForm form = TextureForm::AsGiven)
    {
        setTextureForm(form);
        addInput(QStringLiteral("Kvo_QRect_Viewport"), QRect(0, 0, 4, 4));
        addInput(QStringLiteral("Kvo_float_Radius"), 2.5f);
        addInput(QStringLiteral("Kvo_KvoTexture*_Frame"));
        addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"));
        addOutput(QStringLiteral("Kvo_float_Result"));
    }

    using RenderPassHelper::addInput;
    using RenderPassHelper::addOutput;
    using RenderPassHelper::setTextureForm;

    QVariant inputValue(int index) { return _inputs[index].value; }
    void write(int index, const QVariant &value) { _outputs[index].value = value; }
    int users(int index) { return _numOutputUsers[index]; }
};

constexpr int kViewport = 0;
constexpr int kRadius = 1;
constexpr int kFrame = 2;

QVariant objectForm(Texture *texture)
{
    return QVariant::fromValue(static_cast<QObject *>(texture));
}

QVariant typedForm(Texture *texture)
{
    return QVariant::fromValue(texture);
}

bool isObjectForm(const QVariant &value)
{
    return value.metaType() == QMetaType(QMetaType::QObjectStar);
}

bool isTypedForm(const QVariant &value)
{
    return value.metaType() == QMetaType::fromType<Texture *>();
}

Texture *pointerIn(const QVariant &value)
{
    return isTypedForm(value) ? *static_cast<Texture *const *>(value.constData())
                              : static_cast<Texture *>(*static_cast<QObject *const *>(value.constData()));
}

} // namespace

TEST(RenderPassHelper, SlotsAreNumberedInTheOrderOfDeclaration)
{
    SlotPass pass;
    ASSERT_EQ(pass.numInputs(), 3);
    ASSERT_EQ(pass.numOutputs(), 2);
    EXPECT_EQ(pass.inputName(0), QStringLiteral("Kvo_QRect_Viewport"));
    EXPECT_EQ(pass.inputName(1), QStringLiteral("Kvo_float_Radius"));
    EXPECT_EQ(pass.outputName(0), QStringLiteral("Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(pass.outputName(1), QStringLiteral("Kvo_float_Result"));
    EXPECT_EQ(pass.findInput(QStringLiteral("Kvo_float_Radius")), 1);
    EXPECT_EQ(pass.findInput(QStringLiteral("Kvo_float_Result")), -1);
    EXPECT_EQ(pass.findOutput(QStringLiteral("Kvo_float_Result")), 1);
    EXPECT_EQ(pass.findOutput(QStringLiteral("kvo_float_result")), -1) << "names are case sensitive";
    EXPECT_EQ(pass.addInput(QStringLiteral("late")), 3);
    EXPECT_EQ(pass.addOutput(QStringLiteral("late")), 2);
}

TEST(RenderPassHelper, NewPassHasNoSlotsAndNoError)
{
    RenderPassHelper pass;
    EXPECT_EQ(pass.numInputs(), 0);
    EXPECT_EQ(pass.numOutputs(), 0);
    EXPECT_EQ(pass.errorCode(), 0u);
    EXPECT_TRUE(pass.isFinished());
}

TEST(RenderPassHelper, InputHoldsItsDefaultUntilItIsSet)
{
    SlotPass pass;
    EXPECT_EQ(pass.inputValue(kRadius).toFloat(), 2.5f);
    EXPECT_EQ(pass.defaultValue(kRadius).toFloat(), 2.5f);
    EXPECT_FALSE(pass.inputValue(kFrame).isValid());
    pass.setInput(kRadius, 7.0f);
    EXPECT_EQ(pass.inputValue(kRadius).toFloat(), 7.0f);
    EXPECT_EQ(pass.defaultValue(kRadius).toFloat(), 2.5f);
}

TEST(RenderPassHelper, NewDefaultChangesTheLiveValueOfAnInputThatWasNeverSet)
{
    SlotPass pass;
    pass.setDefaultValue(kRadius, 3.5f);
    EXPECT_EQ(pass.inputValue(kRadius).toFloat(), 3.5f);
    EXPECT_EQ(pass.defaultValue(kRadius).toFloat(), 3.5f);
}

TEST(RenderPassHelper, NewDefaultLeavesAnInputThatWasSet)
{
    SlotPass pass;
    pass.setInput(kRadius, 7.0f);
    pass.setDefaultValue(kRadius, 3.5f);
    EXPECT_EQ(pass.inputValue(kRadius).toFloat(), 7.0f);
    EXPECT_EQ(pass.defaultValue(kRadius).toFloat(), 3.5f);
}

TEST(RenderPassHelper, SettingAnInputToItsDefaultCountsAsSet)
{
    SlotPass pass;
    pass.setInput(kRadius, 2.5f);
    pass.setDefaultValue(kRadius, 3.5f);
    EXPECT_EQ(pass.inputValue(kRadius).toFloat(), 2.5f);
}

TEST(RenderPassHelper, OutputIsInvalidUntilThePassWritesIt)
{
    SlotPass pass;
    EXPECT_FALSE(pass.output(1).isValid());
    pass.write(1, 0.25f);
    EXPECT_EQ(pass.output(1).toFloat(), 0.25f);
}

TEST(RenderPassHelper, OutputUsersAreKeptPerOutputAndReset)
{
    SlotPass pass;
    EXPECT_EQ(pass.users(0), 0);
    pass.setNumOutputUsers(0, 2);
    pass.setNumOutputUsers(1, 5);
    EXPECT_EQ(pass.users(0), 2);
    EXPECT_EQ(pass.users(1), 5);
    pass.resetNumOutputUsers();
    EXPECT_EQ(pass.users(0), 0);
    EXPECT_EQ(pass.users(1), 0);
}

TEST(RenderPassHelper, ErrorCodeIsWhatWasRecorded)
{
    SlotPass pass;
    pass.setErrorCode(static_cast<unsigned int>(-1));
    EXPECT_EQ(pass.errorCode(), 0xffffffffu);
    pass.setErrorCode(0);
    EXPECT_EQ(pass.errorCode(), 0u);
}

TEST(RenderPassHelper, SlotIndexOutOfRangeIsReportedAndOtherwiseIgnored)
{
    SlotPass pass;
    struct Case
    {
        const char *operation;
        std::function<void(int)> call;
        int size;
    };
    const Case cases[] = {
        {"inputName", [&](int i) { EXPECT_TRUE(pass.inputName(i).isEmpty()); }, 3},
        {"outputName", [&](int i) { EXPECT_TRUE(pass.outputName(i).isEmpty()); }, 2},
        {"setInput", [&](int i) { pass.setInput(i, 1); }, 3},
        {"defaultValue", [&](int i) { EXPECT_FALSE(pass.defaultValue(i).isValid()); }, 3},
        {"setDefaultValue", [&](int i) { pass.setDefaultValue(i, 1); }, 3},
        {"output", [&](int i) { EXPECT_FALSE(pass.output(i).isValid()); }, 2},
        {"setNumOutputUsers", [&](int i) { pass.setNumOutputUsers(i, 1); }, 2},
    };
    for (const Case &c : cases) {
        for (int index : {-1, c.size, 1000}) {
            MessageCapture messages;
            c.call(index);
            ASSERT_EQ(messages.count(QtCriticalMsg), 1) << c.operation << " " << index;
            const QString text = messages.texts(QtCriticalMsg).first();
            EXPECT_EQ(text, QStringLiteral("SlotPass: %1: slot index %2 is out of range, the pass has %3")
                                .arg(QLatin1StringView(c.operation), QString::number(index), QString::number(c.size)));
        }
    }
    EXPECT_EQ(pass.inputValue(kRadius).toFloat(), 2.5f);
    EXPECT_EQ(pass.users(0), 0);
    EXPECT_EQ(pass.users(1), 0);
}

TEST(RenderPassHelper, RestatedSlotNumberThatIsWrongIsReported)
{
    SlotPass pass;
    {
        MessageCapture messages;
        EXPECT_EQ(pass.addInput(QStringLiteral("right"), QVariant(), 3), 3);
        EXPECT_EQ(pass.addOutput(QStringLiteral("right"), 2), 2);
        EXPECT_TRUE(messages.all().isEmpty());
    }
    MessageCapture messages;
    EXPECT_EQ(pass.addInput(QStringLiteral("wrong"), QVariant(), 7), 4);
    EXPECT_EQ(pass.addOutput(QStringLiteral("wrong"), 7), 3);
    EXPECT_EQ(messages.count(QtCriticalMsg), 2);
    EXPECT_EQ(messages.containing(QStringLiteral("[ !! ] Assertion ")), 2);
}

TEST(RenderPassHelper, ObjectReadingPassGetsTypedTexturesInObjectForm)
{
    Texture texture;
    SlotPass pass(TextureForm::Object);
    pass.setInput(kFrame, typedForm(&texture));
    ASSERT_TRUE(isObjectForm(pass.inputValue(kFrame)));
    EXPECT_EQ(pointerIn(pass.inputValue(kFrame)), &texture);
    pass.setInput(kFrame, objectForm(&texture));
    ASSERT_TRUE(isObjectForm(pass.inputValue(kFrame)));
    EXPECT_EQ(pointerIn(pass.inputValue(kFrame)), &texture);
}

TEST(RenderPassHelper, TypedReadingPassGetsObjectTexturesInTypedForm)
{
    Texture texture;
    SlotPass pass(TextureForm::Typed);
    pass.setInput(kFrame, objectForm(&texture));
    ASSERT_TRUE(isTypedForm(pass.inputValue(kFrame)));
    EXPECT_EQ(pointerIn(pass.inputValue(kFrame)), &texture);
    pass.setInput(kFrame, typedForm(&texture));
    ASSERT_TRUE(isTypedForm(pass.inputValue(kFrame)));
    EXPECT_EQ(pointerIn(pass.inputValue(kFrame)), &texture);
}

TEST(RenderPassHelper, PassThatReadsBothFormsGetsTexturesAsTheyCame)
{
    Texture texture;
    SlotPass pass(TextureForm::AsGiven);
    pass.setInput(kFrame, typedForm(&texture));
    EXPECT_TRUE(isTypedForm(pass.inputValue(kFrame)));
    pass.setInput(kFrame, objectForm(&texture));
    EXPECT_TRUE(isObjectForm(pass.inputValue(kFrame)));
}

TEST(RenderPassHelper, OutputsWireStraightIntoInputsOfAnyReadForm)
{
    Texture texture;
    for (const TextureForm form : {TextureForm::AsGiven, TextureForm::Object, TextureForm::Typed}) {
        for (const QVariant &value : {objectForm(&texture), typedForm(&texture)}) {
            SlotPass producer;
            producer.write(0, value);
            SlotPass consumer(form);
            consumer.setInput(kFrame, producer.output(0));
            EXPECT_EQ(pointerIn(consumer.inputValue(kFrame)), &texture);
            const bool wantsTyped = form == TextureForm::AsGiven ? isTypedForm(value) : form == TextureForm::Typed;
            EXPECT_EQ(isTypedForm(consumer.inputValue(kFrame)), wantsTyped);
        }
    }
}

TEST(RenderPassHelper, ConvertsTheFormOfDefaultsToo)
{
    Texture texture;
    SlotPass pass(TextureForm::Typed);
    pass.setDefaultValue(kFrame, objectForm(&texture));
    EXPECT_TRUE(isTypedForm(pass.inputValue(kFrame)));
}

TEST(RenderPassHelper, ValuesThatAreNoTextureAreStoredAsTheyCame)
{
    FramebufferObject framebuffer;
    DrawBuffers drawBuffers;
    const QVariant values[] = {
        QVariant::fromValue(static_cast<QObject *>(&framebuffer)),
        QVariant::fromValue(static_cast<QObject *>(&drawBuffers)),
        QVariant::fromValue(static_cast<QObject *>(nullptr)),
        QVariant(QColor(Qt::red)),
        QVariant(QRect(1, 2, 3, 4)),
        QVariant(QStringLiteral("text")),
        QVariant(3),
        QVariant(),
    };
    for (const TextureForm form : {TextureForm::Object, TextureForm::Typed}) {
        for (const QVariant &value : values) {
            SlotPass pass(form);
            pass.setInput(kFrame, value);
            EXPECT_EQ(pass.inputValue(kFrame).metaType().id(), value.metaType().id());
            EXPECT_EQ(pass.inputValue(kFrame), value);
        }
    }
}

TEST(RenderPassHelper, CopyOfAPassThatHasNotStartedIsIndependent)
{
    SlotPass original;
    original.setInput(kRadius, 9.0f);
    original.setNumOutputUsers(0, 3);
    original.setErrorCode(5);

    SlotPass copy(original);
    EXPECT_EQ(copy.numInputs(), 3);
    EXPECT_EQ(copy.inputName(kRadius), QStringLiteral("Kvo_float_Radius"));
    EXPECT_EQ(copy.inputValue(kRadius).toFloat(), 9.0f);
    EXPECT_EQ(copy.users(0), 3);
    EXPECT_EQ(copy.errorCode(), 5u);

    copy.setInput(kRadius, 1.0f);
    copy.setNumOutputUsers(0, 1);
    copy.write(1, 4.0f);
    copy.addInput(QStringLiteral("more"));
    EXPECT_EQ(original.inputValue(kRadius).toFloat(), 9.0f);
    EXPECT_EQ(original.users(0), 3);
    EXPECT_FALSE(original.output(1).isValid());
    EXPECT_EQ(original.numInputs(), 3);
}

TEST(RenderPassHelper, AssignmentCopiesSlotsValuesCountsAndWhetherInputsWereSet)
{
    SlotPass original;
    original.setInput(kRadius, 9.0f);
    SlotPass other;
    other.addInput(QStringLiteral("more"));
    other = original;
    EXPECT_EQ(other.numInputs(), 3);
    other.setDefaultValue(kRadius, 1.0f);
    EXPECT_EQ(other.inputValue(kRadius).toFloat(), 9.0f) << "the copied input was set";
    other.setDefaultValue(kViewport, QRect(0, 0, 8, 8));
    EXPECT_EQ(other.inputValue(kViewport).toRect(), QRect(0, 0, 8, 8)) << "the copied input was not set";
    EXPECT_EQ(original.inputValue(kViewport).toRect(), QRect(0, 0, 4, 4));
}

TEST(RenderPassHelper, LifecycleOfTheBaseTakesNullAndChangesNothing)
{
    SlotPass pass;
    pass.setInput(kRadius, 9.0f);
    RenderPass &base = pass;
    base.setup(nullptr);
    base.beginFrame(nullptr);
    base.start(nullptr);
    base.endFrame(nullptr);
    base.teardown(nullptr);
    base.teardownContextData(nullptr);
    EXPECT_TRUE(base.isFinished());
    EXPECT_EQ(pass.inputValue(kRadius).toFloat(), 9.0f);
    EXPECT_FALSE(pass.output(0).isValid());
    EXPECT_EQ(pass.errorCode(), 0u);
}

TEST(RenderPassHelper, PointerMetatypesAnswerToTheirNamesAfterFirstUse)
{
    const Texture texture;
    const DrawBuffers drawBuffers;
    (void)QVariant::fromValue(static_cast<GPUModel *>(nullptr));
    EXPECT_EQ(QMetaType::fromName("Brevane::Kvo::Texture*"), QMetaType::fromType<Texture *>());
    EXPECT_EQ(QMetaType::fromName("Brevane::Kvo::DrawBuffers*"), QMetaType::fromType<DrawBuffers *>());
    EXPECT_EQ(QMetaType::fromName("Brevane::Kvo::GPUModel*"), QMetaType::fromType<GPUModel *>());
}

TEST(RenderPassHelper, TextureIsFoundInEitherFormOfAVariant)
{
    Texture texture;
    DrawBuffers other;
    EXPECT_EQ(textureFromVariant(objectForm(&texture)), &texture);
    EXPECT_EQ(textureFromVariant(typedForm(&texture)), &texture);
    EXPECT_TRUE(isObjectForm(textureToVariant(&texture)));
    EXPECT_EQ(textureFromVariant(textureToVariant(&texture)), &texture);
    EXPECT_EQ(textureFromVariant(QVariant::fromValue(static_cast<QObject *>(&other))), nullptr);
    EXPECT_EQ(textureFromVariant(QVariant(3)), nullptr);
    EXPECT_EQ(textureFromVariant(QVariant()), nullptr);
}

namespace {

/// Notes which virtual slot of RenderPass a call through a raw table index reaches.
class TablePass : public RenderPassHelper
{
public:
    void setup(RenderCallbacks *) override { last = "setup"; }
    void beginFrame(RenderCallbacks *) override { last = "beginFrame"; }
    void start(RenderCallbacks *) override { last = "start"; }
    void endFrame(RenderCallbacks *) override { last = "endFrame"; }
    bool isFinished() const override
    {
        last = "isFinished";
        return true;
    }
    void teardown(RenderCallbacks *) override { last = "teardown"; }
    void teardownContextData(RenderCallbacks *) override { last = "teardownContextData"; }
    mutable const char *last = "";
};

} // namespace

TEST(RenderPassHelper, SaysOnceWhatBecomesOfAValueOutOfRangeAndAgainAfterOneInRange)
{
    const MessageCapture messages;
    SlotPass pass;
    for (int frame = 0; frame < 3; ++frame)
        pass.reportInput(1, QStringLiteral("is too large"));
    const QString said = QStringLiteral("SlotPass: Kvo_float_Radius is too large");
    EXPECT_EQ(messages.texts(), QStringList(said));
    pass.reportInput(0, QStringLiteral("is too wide"));
    EXPECT_EQ(messages.texts().last(), QStringLiteral("SlotPass: Kvo_QRect_Viewport is too wide"));
    SlotPass copy = pass;
    copy.acceptInput(1);
    pass.reportInput(1, QStringLiteral("is too large"));
    EXPECT_EQ(messages.texts().size(), 2) << "what is accepted in a copy is not in its source";
    copy.reportInput(1, QStringLiteral("is too large"));
    EXPECT_EQ(messages.texts(QtWarningMsg).size(), 3);
    EXPECT_EQ(messages.texts().last(), said);
}

TEST(RenderPassHelper, GivesTheValueOfAnInput)
{
    const MessageCapture messages;
    SlotPass pass;
    const RenderPassHelper &helper = pass;
    EXPECT_EQ(helper.inputValue(1), QVariant(2.5f));
    pass.setInput(1, 7.0f);
    EXPECT_EQ(helper.inputValue(1), QVariant(7.0f));
    EXPECT_FALSE(helper.inputValue(3).isValid());
    pass.reportInput(-1, QStringLiteral("is nowhere"));
    pass.acceptInput(3);
    EXPECT_EQ(messages.count(QtCriticalMsg), 3);
    EXPECT_EQ(messages.count(QtWarningMsg), 0);
}

// Hosts are built against the order of the virtual operations.
TEST(RenderPass, LifecycleOperationsKeepTheirPlacesInTheVirtualTable)
{
    TablePass pass;
    using Operation = void (*)(RenderPass *, RenderCallbacks *);
    RenderPass *base = &pass;
    const auto *table = *reinterpret_cast<void *const *const *>(base);
    const char *expected[] = {"setup",    "beginFrame",         "start", "endFrame", "isFinished",
                              "teardown", "teardownContextData"};
    for (int i = 0; i < 7; ++i) {
        pass.last = "";
        // the first two entries are the destructors of the Itanium ABI
        reinterpret_cast<Operation>(const_cast<void *>(table[2 + i]))(base, nullptr);
        EXPECT_STREQ(pass.last, expected[i]);
    }
}

} // namespace Brevane::Kvo
