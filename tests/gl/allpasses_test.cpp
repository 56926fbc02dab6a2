#include "support/gltest.h"
#include "support/messages.h"
#include "support/passcases.h"
#include "support/passes.h"
#include "support/passtable.h"
#include "support/passvalues.h"

#include <core/renderpasshelper.h>
#include <gl/shaderprogram.h>
#include <gl/texturemanager.h>
#include <host/passfactory.h>
#include <host/slotname.h>
#include <model/gpumodel.h>
#include <renderpasses/blendrenderpass.h>
#include <renderpasses/blurandcombinerenderpass.h>
#include <renderpasses/blurbaserenderpass.h>
#include <renderpasses/gaussianblurrenderpass.h>
#include <renderpasses/shaderrenderpass.h>
#include <renderpasses/stencilblurandblendrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>

#include <QDir>
#include <QSet>

#include <epoxy/gl.h>

#include <memory>
#include <ostream>
#include <type_traits>

// What holds for every pass class of the library, one by one, against one table.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

QMetaType typeOfWord(const QString &word)
{
    const std::pair<const char *, QMetaType> words[] = {
        {"KvoTexture*", QMetaType::fromType<Texture *>()},
        {"KvoGPUModel*", QMetaType::fromType<GPUModel *>()},
        {"KvoDrawBuffers*", QMetaType::fromType<DrawBuffers *>()},
        {"KvoFramebuffer*", QMetaType::fromType<FramebufferObject *>()},
        {"QRect", QMetaType(QMetaType::QRect)},
        {"QMatrix4x4", QMetaType(QMetaType::QMatrix4x4)},
        {"QColor", QMetaType(QMetaType::QColor)},
        {"QVector2D", QMetaType(QMetaType::QVector2D)},
        {"QVector3D", QMetaType(QMetaType::QVector3D)},
        {"QSize", QMetaType(QMetaType::QSize)},
        {"QString", QMetaType(QMetaType::QString)},
        {"string", QMetaType(QMetaType::QString)},
        {"QList", QMetaType(QMetaType::QVariantList)},
        {"QVariant", QMetaType(QMetaType::QVariant)},
        {"float", QMetaType(QMetaType::Float)},
        {"Float", QMetaType(QMetaType::Float)},
        {"int", QMetaType(QMetaType::Int)},
        {"bool", QMetaType(QMetaType::Bool)},
        {"Bool", QMetaType(QMetaType::Bool)},
    };
    for (const auto &[name, type] : words)
        if (word == QLatin1StringView(name))
            return type;
    return {};
}

QObject *objectIn(const QVariant &value)
{
    return value.metaType() == QMetaType(QMetaType::QObjectStar) ? qvariant_cast<QObject *>(value) : nullptr;
}

// What kind of thing an output holds; a texture without a GL object says so.
QString kindOf(const QVariant &value)
{
    if (!value.isValid())
        return text("nothing");
    if (const Texture *texture = textureFromVariant(value)) {
        if (texture->textureID() == 0)
            return text("bare texture");
        return value.metaType() == QMetaType(QMetaType::QObjectStar) ? text("texture") : text("typed texture");
    }
    if (value.metaType() == QMetaType(QMetaType::QObjectStar))
        return objectIn(value) ? text("object") : text("null");
    if (value.metaType() == QMetaType::fromType<Texture *>())
        return text("null");
    return QString::fromLatin1(value.metaType().name());
}

QStringList kindsOf(const RenderPass &pass)
{
    QStringList kinds;
    for (int i = 0; i < pass.numOutputs(); ++i)
        kinds << kindOf(pass.output(i));
    return kinds;
}

void expectUnconnected(const RenderPass &pass, const PassRow &row, int frame)
{
    if (row.startsLate && frame == 0) {
        EXPECT_EQ(kindOf(pass.output(0)), text("nothing"));
        return;
    }
    ASSERT_EQ(pass.numOutputs(), int(row.outputs.size()));
    for (int i = 0; i < pass.numOutputs(); ++i) {
        const OutputRow &output = row.outputs[size_t(i)];
        const QString kind = kindOf(pass.output(i));
        const auto is = [&](const char *name) { return kind == QLatin1StringView(name); };
        const bool fits = output.unconnected == Unconnected::Invalid        ? is("nothing")
                          : output.unconnected == Unconnected::NoTexture    ? is("nothing") || is("null")
                          : output.unconnected == Unconnected::Texture      ? is("texture")
                          : output.unconnected == Unconnected::BareTexture  ? is("bare texture")
                          : output.unconnected == Unconnected::TypedTexture ? is("typed texture")
                          : output.unconnected == Unconnected::Object       ? is("object")
                          : output.unconnected == Unconnected::Null         ? is("null")
                                                                            : is(output.type.name());
        EXPECT_TRUE(fits) << output.name << " holds " << qPrintable(kind);
    }
}

class EveryPass : public GLTest, public ::testing::WithParamInterface<PassCase>
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        ShaderProgram::setFailureHandler([this](const ShaderFailure &failure) { failed << failure.label; });
    }

    void TearDown() override
    {
        values.reset();
        GLTest::TearDown();
        ShaderProgram::setFailureHandler({});
        failed.removeDuplicates();
        if (row.startsLate)
            failed.removeOne(text("ShadowMapRenderPass2"));
        EXPECT_EQ(failed, QStringList()) << "programs that did not build";
        for (const QString &message : messages->texts(QtCriticalMsg))
            EXPECT_TRUE(row.assertsModel
                        && (isAboutTheModel(message) || message.contains(text("is not a ShadowMapLight"))))
                << qPrintable(message);
        messages.reset();
    }

    static bool isAboutTheModel(const QString &message)
    {
        return message.contains(text("] [ !! ] Assertion '")) && message.contains(text("failed: Input Geometry is "));
    }

    bool is(const char *name) const { return qstrcmp(row.className, name) == 0; }

    // The one pass that would draw to the window: tests without a window give it a target.
    void giveTarget(RenderPass &pass)
    {
        if (is("TextureToScreenRenderPass"))
            pass.setInput(kFramebufferOut, framebufferToVariant(given().screen.framebuffer()));
    }
    bool isTarget(int index) const { return is("TextureToScreenRenderPass") && index == kFramebufferOut; }

    void giveAll(RenderPass &pass)
    {
        for (int i = 0; i < pass.numInputs(); ++i)
            pass.setInput(i, given().right(row.inputs[size_t(i)]));
    }

    bool hasViewport() const
    {
        return !row.inputs.empty() && qstrcmp(row.inputs.front().name, "Kvo_QRect_Viewport") == 0;
    }

    Values &given()
    {
        if (!values)
            values = std::make_unique<Values>();
        return *values;
    }

    void expectNothingBare(const QStringList &kinds) const
    {
        // a loader that has had no path yet hands out a texture without content
        EXPECT_TRUE(is("TextureLoaderRenderPass") || !kinds.contains(text("bare texture")))
            << qPrintable(kinds.join(text(", ")));
    }

    // The lifecycle of a host, from setup to the frame.
    static void begin(RenderPass &pass)
    {
        pass.setup(nullptr);
        runFrame(pass);
    }
    static void end(RenderPass &pass)
    {
        pass.teardown(nullptr);
        pass.teardownContextData(nullptr);
    }

    static constexpr int kFramebufferOut = 7;
    const PassRow &row = rowOf(GetParam().className);
    std::unique_ptr<Values> values;
    QStringList failed;
    std::unique_ptr<MessageCapture> messages = std::make_unique<MessageCapture>();
};

INSTANTIATE_TEST_SUITE_P(Passes, EveryPass, ::testing::ValuesIn(passCases()),
                         [](const auto &pass) { return std::string(pass.param.className); });

class AllPasses : public GLTest
{};

} // namespace

TEST_F(AllPasses, EachHasOneRowAndOneHeader)
{
    QSet<QString> rows;
    for (const PassRow &row : passTable())
        rows.insert(text(row.className));
    EXPECT_EQ(rows.size(), qsizetype(passTable().size()));

    QSet<QString> headers;
    for (const QString &file : QDir(text(KVO_SOURCE_DIR "/include/renderpasses")).entryList({text("*.h")}))
        headers.insert(file);
    EXPECT_TRUE(headers.remove(text("export.h")));
    EXPECT_TRUE(headers.remove(text("passes.h")));
    EXPECT_EQ(headers.size(), rows.size());
    for (const QString &name : rows)
        EXPECT_TRUE(headers.contains(name.toLower() + text(".h"))) << qPrintable(name);

    QSet<QString> tested;
    for (const PassCase &pass : passCases())
        tested.insert(text(pass.className));
    EXPECT_EQ(tested, rows);
}

TEST_F(AllPasses, PipelineFilesKnowAllButTheBaseOfTheBlurs)
{
    for (const PassRow &row : passTable()) {
        const QString name = text(row.className);
        EXPECT_EQ(passFactory().knows(name), name != text("BlurBaseRenderPass")) << row.className;
    }
}

TEST_F(AllPasses, ThreeBlursShareABaseAndNoOtherPassHasOne)
{
    int blurs = 0;
    for (const PassCase &pass : passCases())
        blurs += pass.isBlur ? 1 : 0;
    EXPECT_EQ(blurs, 4) << "the base itself and three";
    EXPECT_TRUE((std::is_base_of_v<BlurBaseRenderPass, GaussianBlurRenderPass>));
    EXPECT_TRUE((std::is_base_of_v<BlurBaseRenderPass, BlurAndCombineRenderPass>));
    EXPECT_TRUE((std::is_base_of_v<BlurBaseRenderPass, StencilBlurAndBlendRenderPass>));
}

TEST_F(AllPasses, FourHaveConstructorsWithArguments)
{
    EXPECT_TRUE((std::is_constructible_v<BlurBaseRenderPass, float>));
    EXPECT_TRUE((std::is_constructible_v<GaussianBlurRenderPass, float>));
    EXPECT_TRUE((std::is_constructible_v<BlendRenderPass, BlendRenderPass::BlendMode>));
    EXPECT_TRUE((std::is_constructible_v<VisibilityBufferRenderPass, unsigned long long, unsigned long long>));
}

TEST_F(AllPasses, PointersCrossSlotsUnderTheirRegisteredNames)
{
    const QVariant pointers[] = {QVariant::fromValue<Texture *>(nullptr), QVariant::fromValue<GPUModel *>(nullptr),
                                 QVariant::fromValue<DrawBuffers *>(nullptr)};
    const char *const names[] = {"Brevane::Kvo::Texture*", "Brevane::Kvo::GPUModel*", "Brevane::Kvo::DrawBuffers*"};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(QMetaType::fromName(names[i]), pointers[i].metaType()) << names[i];
}

TEST_F(AllPasses, TheProgrammablePassTakesAWrongValueInSlotsOfEveryKind)
{
    const char *const inputs[] = {"Kvo_KvoTexture*_Input",
                                  "Kvo_KvoTexture*_Other",
                                  "Kvo_KvoDrawBuffers*_Geometry",
                                  "Kvo_QMatrix4x4_Matrix",
                                  "Kvo_QColor_Color",
                                  "Kvo_float_Number",
                                  "Kvo_int_Count",
                                  "Kvo_bool_Flag",
                                  "Kvo_QVector2D_Point",
                                  "Kvo_QVariant_WhoKnowsWhat"};
    Values values;
    for (const WrongValue &wrong : values.wrong()) {
        ShaderRenderPass pass;
        for (const char *input : inputs)
            pass.addInput(text(input));
        pass.addOutput(text("Kvo_KvoTexture*_Frame"));
        pass.setFragmentShaderSource(text(R"(#version 150
uniform sampler2D u_Input;
uniform sampler2D u_Other;
uniform mat4 Kvo_QMatrix4x4_Matrix;
uniform vec4 Kvo_QColor_Color;
uniform float Kvo_float_Number;
uniform int Kvo_int_Count;
uniform bool Kvo_bool_Flag;
uniform vec2 Kvo_QVector2D_Point;
out vec4 o_Frame;
void main()
{
  o_Frame = Kvo_QMatrix4x4_Matrix * texture(u_Input, Kvo_QVector2D_Point) + texture(u_Other, Kvo_QVector2D_Point)
            + Kvo_QColor_Color * Kvo_float_Number * float(Kvo_int_Count) * float(Kvo_bool_Flag);
}
)"));
        for (int i = 0; i < pass.numInputs(); ++i) {
            pass.setInput(i, wrong.value);
            runFrame(pass);
            EXPECT_EQ(kindsOf(pass), QStringList(text("typed texture"))) << wrong.name << " in " << i;
        }
    }
}

TEST_P(EveryPass, HasASlotTableOfItsOwn)
{
    const auto made = GetParam().make();
    const RenderPassHelper &pass = *made;
    std::vector<SlotRow> inputs;
    for (const InputRow &input : row.inputs)
        inputs.push_back({input.name, input.defaultValue});
    std::vector<const char *> outputs;
    for (const OutputRow &output : row.outputs)
        outputs.push_back(output.name);
    expectSlots(pass, inputs, outputs);
    for (int i = 0; i < pass.numInputs(); ++i)
        EXPECT_EQ(pass.findInput(pass.inputName(i)), i) << qPrintable(pass.inputName(i));
    for (int i = 0; i < pass.numOutputs(); ++i)
        EXPECT_EQ(pass.findOutput(pass.outputName(i)), i) << qPrintable(pass.outputName(i));
}

// A pass that goes by index takes no notice, and one that goes by name takes the slot as one that is not there.
TEST_P(EveryPass, RunsWithSlotsThatADerivedClassHasRenamed)
{
    const bool goesByName = is("LuminanceAverageRenderPass") || is("BlendRenderPass") || is("WireframeRenderPass")
                            || is("PrimitiveBuilderRenderPass");
    const auto kindsWith = [&](auto &&change) {
        const auto pass = GetParam().makeProbe();
        giveAll(*pass);
        change(*pass);
        begin(*pass);
        runFrame(*pass);
        const QStringList kinds = kindsOf(*pass);
        end(*pass);
        return kinds;
    };
    const QStringList whole = kindsWith([](RenderPassHelper &) {});
    const QStringList nothing(whole.size(), text("nothing"));
    for (int i = 0; i < int(row.inputs.size()); ++i) {
        const QStringList without = kindsWith([&](RenderPassHelper &pass) { pass.setInput(i, QVariant()); });
        const QStringList renamed = kindsWith([&](RenderPassHelper &pass) { GetParam().renameInput(pass, i); });
        EXPECT_TRUE(goesByName ? renamed == without || renamed == nothing : renamed == whole)
            << row.inputs[size_t(i)].name << ": " << qPrintable(renamed.join(text(", ")));
    }
    for (int i = 0; i < int(row.outputs.size()); ++i) {
        const QStringList renamed = kindsWith([&](RenderPassHelper &pass) { GetParam().renameOutput(pass, i); });
        EXPECT_TRUE(renamed == (goesByName ? nothing : whole))
            << row.outputs[size_t(i)].name << ": " << qPrintable(renamed.join(text(", ")));
    }
}

TEST_P(EveryPass, NamesItsSlotsByTheTypesOfTheirValues)
{
    const auto check = [this](const char *name, QMetaType type) {
        const SlotName slot = SlotName::parse(text(name));
        if (slot.type.isEmpty()) {
            // the two names without a prefix
            EXPECT_TRUE(is("BlendRenderPass")) << name;
        } else {
            EXPECT_EQ(typeOfWord(slot.type), type) << name;
        }
    };
    for (const InputRow &input : row.inputs) {
        check(input.name, input.type);
        if (input.defaultValue.isValid()) {
            EXPECT_EQ(input.defaultValue.metaType(), input.type) << input.name;
        }
    }
    for (const OutputRow &output : row.outputs)
        check(output.name, output.type);
}

TEST_P(EveryPass, KeepsValuesInTheFormThatItReads)
{
    const auto made = GetParam().makeProbe();
    RenderPassHelper &pass = *made;
    const auto kept = [&](int index) { return GetParam().kept(pass, index); };
    const QMetaType objectForm(QMetaType::QObjectStar);
    const QMetaType typedForm = QMetaType::fromType<Texture *>();
    for (int i = 0; i < pass.numInputs(); ++i) {
        const InputRow &input = row.inputs[size_t(i)];
        EXPECT_EQ(kept(i), input.defaultValue) << input.name << " starts as its default";
        const QVariant value = given().right(input);
        pass.setInput(i, value);
        if (!textureFromVariant(value)) {
            EXPECT_EQ(kept(i), value) << input.name;
            continue;
        }
        Texture *texture = textureFromVariant(value);
        for (const QVariant &form : {textureToVariant(texture), QVariant::fromValue(texture)}) {
            pass.setInput(i, form);
            EXPECT_EQ(textureFromVariant(kept(i)), texture) << input.name;
            if (row.reads == Reads::Typed) {
                EXPECT_EQ(kept(i).metaType(), typedForm) << input.name;
            }
            if (row.reads == Reads::Object) {
                EXPECT_EQ(kept(i).metaType(), objectForm) << input.name;
            }
        }
        // an empty pointer is connected
        pass.setInput(i, QVariant::fromValue<Texture *>(nullptr));
        EXPECT_TRUE(kept(i).isValid()) << input.name;
    }
}

TEST_P(EveryPass, LivesWithoutAContextUntilItStarts)
{
    const auto live = [this] {
        const GlCalls calls;
        {
            const auto made = GetParam().make(), copied = GetParam().copy(*made), assigned = GetParam().make();
            RenderPassHelper &one = *made, &two = *copied, &three = *assigned;
            GetParam().assign(three, two);
            const QVariant value = 42;
            for (int i = 0; i < one.numInputs(); ++i) {
                two.setInput(i, value);
                two.setDefaultValue(i, value);
                EXPECT_EQ(one.defaultValue(i), row.inputs[size_t(i)].defaultValue) << "a copy is independent";
                EXPECT_EQ(three.defaultValue(i), row.inputs[size_t(i)].defaultValue);
                EXPECT_EQ(two.defaultValue(i), value);
            }
            const auto late = GetParam().copy(two);
            const RenderPassHelper &four = *late;
            GetParam().assign(three, two);
            for (int i = 0; i < one.numInputs(); ++i) {
                EXPECT_EQ(four.inputName(i), one.inputName(i));
                EXPECT_EQ(four.defaultValue(i), value) << "a copy has what its source has";
                EXPECT_EQ(three.defaultValue(i), value);
            }
            for (int i = 0; i < one.numOutputs(); ++i) {
                two.setNumOutputUsers(i, 2);
                EXPECT_EQ(three.outputName(i), one.outputName(i));
            }
            two.resetNumOutputUsers();
            two.setErrorCode(7);
            EXPECT_EQ(one.errorCode(), 0u);
        }
        // the pass that needs one asks what it offers, and makes nothing either
        EXPECT_TRUE(row.needsContext || calls.all().empty()) << qPrintable(calls.toString());
        EXPECT_EQ(calls.created() + calls.draws(), 0) << qPrintable(calls.toString());
    };
    if (!row.needsContext)
        GLContext::doneCurrent();
    live();
    ASSERT_TRUE(context().makeCurrent());
}

TEST_P(EveryPass, EndsWithoutHavingStarted)
{
    const auto pass = GetParam().make();
    pass->teardown(nullptr);
    pass->teardownContextData(nullptr);
}

TEST_P(EveryPass, RunsWithNothingConnected)
{
    const auto made = GetParam().make();
    RenderPassHelper &pass = *made;
    giveTarget(pass);
    if (hasViewport())
        pass.setInput(0, kViewport);
    begin(pass);
    for (int frame = 0; frame < 3; ++frame) {
        expectUnconnected(pass, row, frame);
        runFrame(pass);
    }
    EXPECT_EQ(pass.errorCode(), 0u);
    end(pass);
}

TEST_P(EveryPass, RunsWithoutEvenAViewport)
{
    const auto made = GetParam().make();
    RenderPassHelper &pass = *made;
    giveTarget(pass);
    begin(pass);
    runFrame(pass);
    expectUnconnected(pass, row, 1);
    EXPECT_EQ(pass.errorCode(), 0u);
    end(pass);
}

TEST_P(EveryPass, RunsWithEverythingConnectedAgainAndAgain)
{
    const auto made = GetParam().make();
    RenderPassHelper &pass = *made;
    giveAll(pass);
    begin(pass);
    const QStringList kinds = kindsOf(pass);
    const bool mayBeNull = is("PrimitiveBuilderRenderPass"); // nothing was added
    EXPECT_TRUE(mayBeNull || !kinds.contains(text("null"))) << qPrintable(kinds.join(text(", ")));
    for (int i = 0; i < 2; ++i) {
        end(pass);
        begin(pass);
        EXPECT_EQ(kindsOf(pass), kinds);
    }
    end(pass);
}

TEST_P(EveryPass, TakesEmptyViewportsAndComesBack)
{
    if (!hasViewport())
        return;
    const QRect empty[] = {QRect(),
                           QRect(0, 0, 0, 0),
                           QRect(3, 4, 0, kHeight),
                           QRect(3, 4, kWidth, 0),
                           QRect(0, 0, -3, -2),
                           QRect(QPoint(9, 9), QPoint(2, 3)),
                           QRect(0, 0, -kWidth, kHeight)};
    for (const bool connected : {false, true}) {
        const auto made = GetParam().make();
        RenderPassHelper &pass = *made;
        giveTarget(pass);
        if (connected)
            giveAll(pass);
        pass.setInput(0, kViewport);
        begin(pass);
        const QStringList kinds = kindsOf(pass);
        for (const QRect &viewport : empty) {
            pass.setInput(0, viewport);
            runFrame(pass);
            EXPECT_EQ(kindsOf(pass), kinds)
                << viewport.x() << " " << viewport.y() << " " << viewport.width() << " " << viewport.height();
            EXPECT_EQ(pass.errorCode(), 0u);
        }
        pass.setInput(0, kViewport);
        runFrame(pass);
        EXPECT_EQ(kindsOf(pass), kinds) << "after empty viewports";
        end(pass);
    }
}

TEST_P(EveryPass, StartsOnAnEmptyViewport)
{
    if (!hasViewport())
        return;
    const auto made = GetParam().make();
    RenderPassHelper &pass = *made;
    giveAll(pass);
    for (const QRect &viewport : {QRect(), QRect(0, 0, -3, -2)}) {
        pass.setInput(0, viewport);
        begin(pass);
        expectNothingBare(kindsOf(pass));
        EXPECT_EQ(pass.errorCode(), 0u);
        end(pass);
    }
}

TEST_P(EveryPass, TakesAWrongValueInEveryInputAtOnce)
{
    for (const WrongValue &wrong : given().wrong()) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, wrong.name);
        const auto made = GetParam().make();
        RenderPassHelper &pass = *made;
        for (const bool withViewport : {false, true}) {
            for (int i = 0; i < pass.numInputs(); ++i)
                pass.setInput(i, wrong.value);
            giveTarget(pass);
            if (withViewport && hasViewport())
                pass.setInput(0, kViewport);
            begin(pass);
            const QStringList kinds = kindsOf(pass);
            expectNothingBare(kinds);
            EXPECT_EQ(pass.errorCode(), 0u);
            // one pass hands on what it is given, no other hands out a stranger
            const bool handsOn = is("VisibilitySortRenderPass");
            for (int i = 0; i < pass.numOutputs(); ++i)
                EXPECT_TRUE(handsOn || objectIn(pass.output(i)) != &given().foreign) << i;
            end(pass);
        }
    }
}

TEST_P(EveryPass, TakesAWrongValueInOneInputWhileTheOthersAreRight)
{
    for (const WrongValue &wrong : given().wrong()) {
        const auto made = GetParam().make();
        RenderPassHelper &pass = *made;
        giveAll(pass);
        begin(pass);
        for (int i = 0; i < pass.numInputs(); ++i) {
            const InputRow &input = row.inputs[size_t(i)];
            if (isTarget(i) || wrong.value.metaType() == input.type)
                continue;
            const ::testing::ScopedTrace trace(__FILE__, __LINE__, std::string(wrong.name) + " in " + input.name);
            pass.setInput(i, wrong.value);
            runFrame(pass);
            expectNothingBare(kindsOf(pass));
            EXPECT_EQ(pass.errorCode(), 0u);
            pass.setInput(i, given().right(input));
        }
        runFrame(pass);
        EXPECT_EQ(pass.errorCode(), 0u);
        end(pass);
    }
}
