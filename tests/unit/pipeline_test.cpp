#include "support/messages.h"

#include <core/renderpasshelper.h>
#include <host/passfactory.h>
#include <host/pipeline.h>
#include <host/slotname.h>
#include <model/gpumodel.h>

#include <QColor>
#include <QHash>
#include <QMatrix4x4>
#include <QRect>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

using namespace Brevane::Kvo;
using Brevane::Kvo::Test::MessageCapture;

namespace {

// Two texture inputs and outputs, a rectangle and a number: enough to wire wrongly.
class WirePass : public RenderPassHelper
{
public:
    WirePass()
    {
        addInput(QStringLiteral("Kvo_QRect_Viewport"));
        addInput(QStringLiteral("Kvo_KvoTexture*_Frame"));
        addInput(QStringLiteral("Kvo_KvoTexture*_Depth"));
        addInput(QStringLiteral("Kvo_float_Radius"), 2.5f);
        addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"));
        addOutput(QStringLiteral("Kvo_float_Average"));
    }
    ~WirePass() override
    {
        if (destroyed)
            *destroyed = true;
    }
    QVariant inputValue(int index) { return _inputs[index].value; }
    int users(int index) { return _numOutputUsers[index]; }
    using RenderPassHelper::addInput;

    bool *destroyed = nullptr;
};

class OtherPass : public RenderPassHelper
{
public:
    OtherPass()
    {
        addInput(QStringLiteral("Kvo_KvoTexture*_Frame"));
        addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"));
    }
};

constexpr int kRadius = 3;

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

class PipelineTest : public ::testing::Test
{
protected:
    WirePass *add(const char *name)
    {
        auto pass = std::make_unique<WirePass>();
        WirePass *raw = pass.get();
        QString error;
        EXPECT_TRUE(pipeline.add(s(name), std::move(pass), &error)) << qPrintable(error);
        return raw;
    }
    void link(const char *from, const char *to)
    {
        QString error;
        EXPECT_TRUE(pipeline.connect(s(from), s(to), &error)) << qPrintable(error);
    }
    QString linkError(const char *from, const char *to)
    {
        QString error;
        EXPECT_FALSE(pipeline.connect(s(from), s(to), &error));
        return error;
    }

    Pipeline pipeline;
};

} // namespace

TEST_F(PipelineTest, KeepsTheOrderOfAddingWhereLinksAllowIt)
{
    add("C");
    add("A");
    add("B");
    EXPECT_EQ(pipeline.order(), (QStringList{s("C"), s("A"), s("B")}));
}

TEST_F(PipelineTest, PutsAProducerBeforeItsConsumers)
{
    add("Last");
    add("Middle");
    add("First");
    add("Free");
    link("First.Frame", "Middle.Frame");
    link("Middle.Frame", "Last.Depth");
    EXPECT_EQ(pipeline.order(), (QStringList{s("First"), s("Middle"), s("Last"), s("Free")}));
}

TEST_F(PipelineTest, RefusesTheLinkThatClosesACycleAndNamesItsPassesInTheDirectionOfTheLinks)
{
    for (const char *name : {"Outside", "A", "B", "C"})
        add(name);
    link("A.Frame", "B.Frame");
    link("B.Frame", "C.Frame");
    link("C.Frame", "Outside.Frame");
    EXPECT_EQ(linkError("C.Frame", "A.Frame"),
              s("cannot link 'C.Kvo_KvoTexture*_Frame' to 'A.Kvo_KvoTexture*_Frame': the links would form a cycle: "
                "A -> B -> C -> A"));
    EXPECT_TRUE(pipeline.source(s("A"), s("Frame")).isEmpty()) << "the pipeline is as it was";
    EXPECT_EQ(pipeline.order(), (QStringList{s("A"), s("B"), s("C"), s("Outside")}));

    // The other way round it is a short cut.
    link("A.Frame", "C.Depth");
    // A cycle that is taken apart first can be closed elsewhere.
    ASSERT_TRUE(pipeline.reset(s("B"), s("Frame")));
    ASSERT_TRUE(pipeline.reset(s("C"), s("Depth")));
    link("C.Frame", "A.Frame");
    EXPECT_EQ(pipeline.order(), (QStringList{s("B"), s("C"), s("Outside"), s("A")}));
}

TEST_F(PipelineTest, BindsWhatEveryPassAsksForUnlessItIsGiven)
{
    for (const char *name : {"ModelRenderPass", "GBufferRenderPass", "ScalableAmbientObscuranceRenderPass"})
        ASSERT_TRUE(pipeline.add(s(name), s(name)));
    ASSERT_TRUE(pipeline.setValue(s("GBufferRenderPass"), s("Viewport"), QRect(0, 0, 4, 4)));
    // Model: viewport, projection, camera, geometry. G-buffer: the matrices; its geometry is no model.
    // Obscurance: the same without a model, and the clip planes.
    EXPECT_EQ(pipeline.bindStandard(), 4 + 2 + 5);
    const std::pair<const char *, const char *> expected[] = {
        {"ModelRenderPass.Viewport", "@viewport"},
        {"ModelRenderPass.CameraMatrix", "@camera"},
        {"ModelRenderPass.ProjectionMatrix", "@projection"},
        {"ModelRenderPass.Geometry", "@model"},
        {"GBufferRenderPass.Viewport", ""},
        {"GBufferRenderPass.CameraMatrix", "@camera"},
        {"GBufferRenderPass.ProjectionMatrix", "@projection"},
        {"GBufferRenderPass.Geometry", ""},
        {"ScalableAmbientObscuranceRenderPass.Viewport", "@viewport"},
        {"ScalableAmbientObscuranceRenderPass.CameraMatrix", "@camera"},
        {"ScalableAmbientObscuranceRenderPass.ProjectionMatrix", "@projection"},
        {"ScalableAmbientObscuranceRenderPass.NearPlane", "@near"},
        {"ScalableAmbientObscuranceRenderPass.FarPlane", "@far"},
    };
    for (const auto &[input, source] : expected) {
        const QStringList parts = s(input).split(QLatin1Char('.'));
        EXPECT_EQ(pipeline.source(parts[0], parts[1]), s(source)) << input;
    }
    EXPECT_EQ(pipeline.bindStandard(), 0) << "all of them are bound";
}

TEST_F(PipelineTest, RefusesToLinkAPassToItself)
{
    add("A");
    EXPECT_TRUE(linkError("A.Frame", "A.Frame").endsWith(s("the links would form a cycle: A -> A")));
}

TEST_F(PipelineTest, LinksManyLayersOfDiamondsWithoutWalkingEveryPath)
{
    // 2^60 paths lead from the first pass to the last one.
    const auto name = [](int layer) { return QStringLiteral("P%1").arg(layer); };
    for (int i = 0; i <= 60; ++i)
        add(qPrintable(name(i)));
    for (int i = 0; i < 60; ++i)
        for (const char *slot : {"Frame", "Depth"})
            ASSERT_TRUE(pipeline.connect(name(i), s("Frame"), name(i + 1), s(slot)));
    EXPECT_EQ(pipeline.order().size(), 61);
    EXPECT_FALSE(pipeline.connect(s("P60"), s("Frame"), s("P0"), s("Frame")));
}

TEST_F(PipelineTest, AcceptsFullAndShortSlotNames)
{
    add("A");
    add("B");
    link("A.Kvo_KvoTexture*_Frame", "B.Kvo_KvoTexture*_Frame");
    link("A.Frame", "B.Depth");
    EXPECT_EQ(pipeline.source(s("B"), s("Frame")), s("A.Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(pipeline.source(s("B"), s("Depth")), s("A.Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(pipeline.users(s("A"), s("Frame")), 2);
}

TEST_F(PipelineTest, RefusesAShortNameThatFitsSeveralSlots)
{
    WirePass *pass = add("A");
    pass->addInput(s("Kvo_QRect_Depth"));
    add("B");
    EXPECT_EQ(linkError("B.Frame", "A.Depth"),
              s("'Depth' is short for several inputs of pass 'A': Kvo_KvoTexture*_Depth, Kvo_QRect_Depth"));
    link("B.Frame", "A.Kvo_KvoTexture*_Depth");
}

TEST_F(PipelineTest, NamesUnknownPassesAndSlotsWithTheNearestRightName)
{
    add("Model");
    add("Shade");
    EXPECT_EQ(linkError("Modle.Frame", "Shade.Frame"), s("there is no pass 'Modle'; did you mean 'Model'?"));
    EXPECT_EQ(linkError("Model.Farme", "Shade.Frame"), s("pass 'Model' has no output 'Farme'; did you mean 'Frame'?"));
    EXPECT_EQ(linkError("Model.Frame", "Shade.Dpeth"), s("pass 'Shade' has no input 'Dpeth'; did you mean 'Depth'?"));
    EXPECT_EQ(linkError("Model.Kvo_KvoTexture_Frame", "Shade.Frame"),
              s("pass 'Model' has no output 'Kvo_KvoTexture_Frame'; did you mean 'Kvo_KvoTexture*_Frame'?"));
    EXPECT_EQ(linkError("Model.Radius", "Shade.Frame"), s("'Radius' of pass 'Model' is not an output"));
    EXPECT_EQ(linkError("Model", "Shade.Frame"), s("'Model' is not of the form PASS.SLOT"));
}

TEST_F(PipelineTest, RefusesLinksBetweenDifferentTypes)
{
    add("A");
    add("B");
    EXPECT_EQ(linkError("A.Average", "B.Frame"),
              s("cannot link 'A.Kvo_float_Average' (float) to 'B.Kvo_KvoTexture*_Frame' (KvoTexture*)"));
    link("A.Average", "B.Radius");
    EXPECT_EQ(pipeline.source(s("B"), s("Frame")), QString()) << "a refused link leaves the input alone";
}

TEST_F(PipelineTest, BindsHostValuesByNameAndType)
{
    add("A");
    QString error;
    EXPECT_TRUE(pipeline.bind(s("A"), s("Viewport"), s("viewport"), &error));
    EXPECT_EQ(pipeline.source(s("A"), s("Viewport")), s("@viewport"));
    EXPECT_TRUE(pipeline.uses(s("viewport")));
    EXPECT_FALSE(pipeline.uses(s("model")));
    EXPECT_FALSE(pipeline.bind(s("A"), s("Viewport"), s("viewprt"), &error));
    EXPECT_EQ(error, s("there is no host value 'viewprt'; did you mean 'viewport'?"));
    EXPECT_FALSE(pipeline.bind(s("A"), s("Frame"), s("camera"), &error));
    EXPECT_EQ(error, s("cannot bind host value 'camera' (QMatrix4x4) to 'A.Kvo_KvoTexture*_Frame' (KvoTexture*)"));
}

TEST_F(PipelineTest, AllOfAModelCountsAsOpaqueUnlessToldOtherwise)
{
    GPUModel model, part;
    const auto value = [&](const char *name) { return qvariant_cast<GPUModel *>(pipeline.hostValue(s(name))); };
    pipeline.setModel(&model);
    EXPECT_EQ(value("model"), &model);
    EXPECT_EQ(value("opaque"), &model);
    pipeline.setModel(&model, &part);
    EXPECT_EQ(value("model"), &model);
    EXPECT_EQ(value("opaque"), &part);
    pipeline.setModel(nullptr);
    EXPECT_EQ(value("opaque"), nullptr);
}

TEST_F(PipelineTest, BindsPartsOfRectanglesOnly)
{
    add("A");
    QString error;
    for (const char *part : {"viewport[0, 0, 0.5, 1]", "viewport[[0, 0, 1, 1], [0.5, 0.5, 1, -1]]"}) {
        EXPECT_TRUE(pipeline.bind(s("A"), s("Viewport"), s(part), &error)) << qPrintable(error);
        EXPECT_EQ(pipeline.source(s("A"), s("Viewport")), QLatin1Char('@') + s(part));
        EXPECT_TRUE(pipeline.uses(s("viewport")));
    }
    for (const char *part :
         {"[", "[]", "[1, 2, 3]", "[0, 0, 1, true]", "[[0, 0, 1, 1], 3]", "[0, 0, 1, 1] x", "[0, 0, 1, 1e9]"}) {
        EXPECT_FALSE(pipeline.bind(s("A"), s("Viewport"), s("viewport") + s(part), &error));
        EXPECT_EQ(error, s("input 'Kvo_QRect_Viewport' of pass 'A': '%1' is no part of a rectangle: use [x, y, width, "
                           "height] in fractions of its size, or a list of these")
                             .arg(s(part)));
    }
    EXPECT_EQ(pipeline.source(s("A"), s("Viewport")), s("@viewport[[0, 0, 1, 1], [0.5, 0.5, 1, -1]]")) << "as it was";
    EXPECT_FALSE(pipeline.bind(s("A"), s("Radius"), s("near[0, 0, 1, 1]"), &error));
    EXPECT_EQ(error, s("host value 'near' (float) has no parts: only rectangles have"));
    EXPECT_FALSE(pipeline.bind(s("A"), s("Radius"), s("viewport[0, 0, 1, 1]"), &error));
    EXPECT_EQ(error, s("cannot bind host value 'viewport' (QRect) to 'A.Kvo_float_Radius' (float)"));
}

TEST_F(PipelineTest, HostPathsMayHaveAnyName)
{
    WirePass *pass = add("A");
    pass->addInput(s("Kvo_QString_TexturePath"));
    QString error;
    EXPECT_TRUE(pipeline.bind(s("A"), s("TexturePath"), s("paths.sky"), &error)) << qPrintable(error);
    EXPECT_TRUE(pipeline.setHostValue(s("paths.sky"), s("/tmp/sky.png"), &error));
    EXPECT_EQ(pipeline.hostValue(s("paths.sky")).toString(), s("/tmp/sky.png"));
    EXPECT_FALSE(pipeline.setHostValue(s("skyPath"), QVariant(), &error));
}

TEST_F(PipelineTest, GivesAValueAtOnceAndTakesItBackAtReset)
{
    WirePass *pass = add("A");
    QString error;
    EXPECT_TRUE(pipeline.setValueText(s("A"), s("Radius"), s("7"), &error));
    EXPECT_EQ(pass->inputValue(kRadius), QVariant(7.0f));
    EXPECT_TRUE(pipeline.reset(s("A"), s("Radius"), &error));
    EXPECT_EQ(pass->inputValue(kRadius), QVariant(2.5f));
    EXPECT_FALSE(pipeline.setValueText(s("A"), s("Radius"), s("wide"), &error));
    EXPECT_EQ(error, s("pass 'A': 'Kvo_float_Radius' takes a number, not the text \"wide\""));
}

TEST_F(PipelineTest, RefusesNamesThatAreTakenOrCannotBeWritten)
{
    add("A");
    QString error;
    EXPECT_FALSE(pipeline.add(s("A"), std::make_unique<WirePass>(), &error));
    EXPECT_EQ(error, s("there is a pass 'A' already"));
    for (const char *name : {"", "A.B", "A B", "a/b"})
        EXPECT_FALSE(pipeline.add(s(name), std::make_unique<WirePass>(), &error)) << name;
    EXPECT_FALSE(pipeline.add(s("Null"), std::unique_ptr<RenderPass>(), &error));
    EXPECT_FALSE(pipeline.add(s("G"), s("GradientRenderpas"), &error));
    EXPECT_EQ(error, s("there is no pass class 'GradientRenderpas'; did you mean 'GradientRenderPass'?"));
    EXPECT_EQ(pipeline.passNames(), QStringList{s("A")});
}

TEST_F(PipelineTest, InsertPutsAPassIntoALink)
{
    add("A");
    add("B");
    link("A.Frame", "B.Frame");
    QString error;
    ASSERT_TRUE(
        pipeline.insert(s("Blur"), std::make_unique<WirePass>(), s("B"), s("Frame"), s("Depth"), s("Frame"), &error))
        << qPrintable(error);
    EXPECT_EQ(pipeline.source(s("B"), s("Frame")), s("Blur.Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(pipeline.source(s("Blur"), s("Depth")), s("A.Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(pipeline.order(), (QStringList{s("A"), s("Blur"), s("B")}));
}

TEST_F(PipelineTest, AnInsertThatFailsChangesNothing)
{
    add("A");
    add("B");
    link("A.Frame", "B.Frame");
    QString error;
    EXPECT_FALSE(
        pipeline.insert(s("X"), std::make_unique<WirePass>(), s("B"), s("Frame"), s("Radius"), s("Frame"), &error));
    EXPECT_FALSE(
        pipeline.insert(s("X"), std::make_unique<WirePass>(), s("B"), s("Frame"), s("Frame"), s("Average"), &error));
    EXPECT_FALSE(
        pipeline.insert(s("X"), std::make_unique<WirePass>(), s("B"), s("Depth"), s("Frame"), s("Frame"), &error));
    EXPECT_EQ(error, s("input 'Depth' of pass 'B' is not linked"));
    EXPECT_EQ(pipeline.passNames(), (QStringList{s("A"), s("B")}));
    EXPECT_EQ(pipeline.source(s("B"), s("Frame")), s("A.Kvo_KvoTexture*_Frame"));
}

TEST_F(PipelineTest, ReplaceKeepsLinksAndValues)
{
    add("A");
    bool destroyed = false;
    add("B")->destroyed = &destroyed;
    add("C");
    link("A.Frame", "B.Frame");
    link("B.Frame", "C.Frame");
    ASSERT_TRUE(pipeline.setValue(s("B"), s("Radius"), 9.0f));
    auto other = std::make_unique<WirePass>();
    WirePass *raw = other.get();
    QString error;
    ASSERT_TRUE(pipeline.replace(s("B"), std::move(other), &error)) << qPrintable(error);
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(pipeline.pass(s("B")), raw);
    EXPECT_EQ(raw->inputValue(kRadius), QVariant(9.0f));
    EXPECT_EQ(pipeline.source(s("B"), s("Frame")), s("A.Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(pipeline.source(s("C"), s("Frame")), s("B.Kvo_KvoTexture*_Frame"));
}

TEST_F(PipelineTest, ReplaceRefusesAPassThatLacksASlotInUse)
{
    add("A");
    WirePass *old = add("B");
    link("A.Frame", "B.Depth");
    QString error;
    EXPECT_FALSE(pipeline.replace(s("B"), std::make_unique<OtherPass>(), &error));
    EXPECT_EQ(error, s("the pass for 'B' has no input 'Kvo_KvoTexture*_Depth', which is in use"));
    EXPECT_EQ(pipeline.pass(s("B")), old);
}

TEST_F(PipelineTest, RemoveFreesTheInputsThatThePassFed)
{
    bool destroyed = false;
    add("A")->destroyed = &destroyed;
    WirePass *b = add("B");
    link("A.Average", "B.Radius");
    QString error;
    EXPECT_FALSE(pipeline.remove(s("X"), &error));
    ASSERT_TRUE(pipeline.remove(s("A"), &error));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(pipeline.source(s("B"), s("Radius")), QString());
    EXPECT_EQ(b->inputValue(kRadius), QVariant(2.5f));
    EXPECT_EQ(pipeline.order(), QStringList{s("B")});
}

TEST_F(PipelineTest, RenameKeepsLinks)
{
    add("A");
    add("B");
    link("A.Frame", "B.Frame");
    ASSERT_TRUE(pipeline.rename(s("A"), s("Start")));
    EXPECT_EQ(pipeline.source(s("B"), s("Frame")), s("Start.Kvo_KvoTexture*_Frame"));
    EXPECT_FALSE(pipeline.rename(s("B"), s("Start")));
}

TEST_F(PipelineTest, WarnsOfPassesWithoutAViewport)
{
    add("A");
    ASSERT_TRUE(pipeline.setValue(s("A"), s("Frame"), QVariant::fromValue<QObject *>(nullptr)));
    EXPECT_EQ(pipeline.warnings(), QStringList{s("pass 'A' has no viewport, so its pictures are empty")});
    ASSERT_TRUE(pipeline.bind(s("A"), s("Viewport"), s("viewport")));
    EXPECT_TRUE(pipeline.warnings().isEmpty());
}

TEST_F(PipelineTest, WarnsOfFiltersOfNothing)
{
    QStringList found;
    for (const QString &className : passFactory().classNames()) {
        Pipeline alone;
        ASSERT_TRUE(alone.add(s("A"), className));
        const QStringList warnings = alone.warnings();
        if (!warnings.filter(s("pass 'A' has no image to work on")).isEmpty())
            found << className;
    }
    EXPECT_EQ(found,
              QStringList({s("BlendRenderPass"), s("BlurAndCombineRenderPass"), s("CameraSpaceZBufferRenderPass"),
                           s("DeferredRenderPass"), s("DepthOfFieldRenderPass"),
                           s("FastApproximateAntiAliasingRenderPass"), s("GaussianBlurRenderPass"),
                           s("LayerCompositionPass"), s("LuminanceAverageRenderPass"), s("ModelDeferredPass"),
                           s("SMAARenderPass"), s("ScalableAmbientObscuranceRenderPass"), s("ShadowLightingPass"),
                           s("SkyboxRenderPass"), s("StencilBlurAndBlendRenderPass"), s("TemporalAARenderPass"),
                           s("TextureToScreenRenderPass"), s("VisibilitySortRenderPass"), s("WireframeRenderPass")}));

    add("A");
    add("B");
    link("A.Frame", "B.Depth");
    ASSERT_EQ(pipeline.bindStandard(), 2);
    EXPECT_EQ(pipeline.warnings(),
              QStringList{s("pass 'A' has no image to work on: nothing is given to 'Frame' or 'Depth'")});
    ASSERT_TRUE(pipeline.setValue(s("A"), s("Frame"), QVariant::fromValue<QObject *>(nullptr)));
    EXPECT_EQ(pipeline.warnings(), QStringList());
}

struct ValueFit
{
    const char *name;
    const char *slot;
    QVariant value;
    const char *misfit; ///< Empty: the value is taken.
};

class PipelineValue : public ::testing::TestWithParam<ValueFit>
{};

// A pass reads a value of another type as none, without a word: what no reader can use is refused where it is given.
TEST_P(PipelineValue, IsRefusedWhereNoPassCouldReadIt)
{
    auto pass = std::make_unique<WirePass>();
    pass->addInput(s(GetParam().slot));
    Pipeline pipeline;
    ASSERT_TRUE(pipeline.add(s("A"), std::move(pass)));
    QString error;
    const bool isTaken = pipeline.setValue(s("A"), s(GetParam().slot), GetParam().value, &error);
    EXPECT_EQ(isTaken, !*GetParam().misfit);
    const QVector<PassInput> inputs = pipeline.inputs(s("A"));
    EXPECT_EQ(inputs.last().kind == PassInput::Kind::Value, isTaken);
    EXPECT_EQ(error, isTaken ? QString() : s("pass 'A': '%1' %2").arg(s(GetParam().slot), s(GetParam().misfit)));
}

GPUModel *const kNoModel = nullptr;
QObject *const kNoObject = nullptr;

template <typename Value>
Value *one()
{
    static Value value;
    return &value;
}

INSTANTIATE_TEST_SUITE_P(
    Types, PipelineValue,
    ::testing::Values(
        ValueFit{"SizeForARectangle", "Kvo_QRect_R", QSize(3, 4), "takes a rectangle, not a QSize"},
        ValueFit{"NumberForARectangle", "Kvo_QRect_R", 3, "takes a rectangle, not an int"},
        ValueFit{"Rectangle", "Kvo_QRect_R", QRect(0, 0, 3, 4), ""},
        ValueFit{"RectangleOfFractions", "Kvo_QRect_R", QRectF(0, 0, 3, 4), ""},
        ValueFit{"Rectangles", "Kvo_QRect_R", QVariantList{QRect(0, 0, 3, 4)}, ""},
        ValueFit{"Nothing", "Kvo_QRect_R", QVariant(), ""},
        ValueFit{"NumberForAMatrix", "Kvo_QMatrix4x4_M", 3, "takes a matrix, not an int"},
        ValueFit{"Matrix", "Kvo_QMatrix4x4_M", QVariant::fromValue(QMatrix4x4()), ""},
        ValueFit{"TextForANumber", "Kvo_float_F", QStringLiteral("fast"), "takes a number, not the text \"fast\""},
        ValueFit{"TextOfANumber", "Kvo_float_F", QStringLiteral("0.5"), ""},
        ValueFit{"WholeForAFloat", "Kvo_float_F", 2, ""}, ValueFit{"DoubleForAFloat", "Kvo_Float_F", 2.5, ""},
        ValueFit{"ColorForAnInteger", "Kvo_int_I", QColor(Qt::red), "takes a number, not a QColor"},
        ValueFit{"TextForTheSlotOfAnotherName", "Int_I", QStringLiteral("add"), "takes a number, not the text \"add\""},
        ValueFit{"FloatForAnInteger", "Kvo_int_I", 2.0f, ""},
        ValueFit{"EnumerationForAnInteger", "Kvo_int_I", QVariant::fromValue(Qt::Horizontal), ""},
        ValueFit{"IntegerForASwitch", "Kvo_Bool_B", 1, ""},
        ValueFit{"NumberForAColor", "Kvo_QColor_C", 3.5f, "takes a colour, not a float"},
        ValueFit{"NameOfAColor", "Kvo_QColor_C", QStringLiteral("red"), ""},
        ValueFit{"ModelForATexture", "Kvo_KvoTexture*_T", QVariant::fromValue(one<GPUModel>()),
                 "takes a texture, not a Brevane::Kvo::GPUModel*"},
        ValueFit{"TextForATexture", "Kvo_KvoTexture*_T", QStringLiteral("a.png"),
                 "takes a texture, not the text \"a.png\""},
        ValueFit{"NoTexture", "Kvo_KvoTexture*_T", QVariant::fromValue(kNoObject), ""},
        ValueFit{"ObjectForAModel", "Kvo_KvoGPUModel*_G", QVariant::fromValue(one<QObject>()),
                 "takes a model, not a QObject*"},
        ValueFit{"ConstantModel", "Kvo_KvoGPUModel*_G", QVariant::fromValue<const GPUModel *>(kNoModel),
                 "takes a model, not a const Brevane::Kvo::GPUModel*"},
        ValueFit{"NoModel", "Kvo_KvoGPUModel*_G", QVariant::fromValue(kNoModel), ""},
        ValueFit{"Model", "Kvo_KvoGPUModel*_G", QVariant::fromValue(one<GPUModel>()), ""},
        ValueFit{"NullPointer", "Kvo_KvoGPUModel*_G", QVariant::fromValue(nullptr), ""},
        ValueFit{"ListOfGeometry", "Kvo_KvoDrawBuffers*_G", QVariantList(), ""},
        ValueFit{"NumberForAList", "Kvo_QList_KvoShadowMapManagerLight*_Lights", 3, "takes a list, not an int"},
        ValueFit{"AnythingForAVariant", "Kvo_QVariant_V", QSize(3, 4), ""},
        ValueFit{"AnythingForATypeOfTheHost", "Kvo_Thing_V", QSize(3, 4), ""},
        ValueFit{"AnythingWithoutAType", "brightness", QSize(3, 4), ""}),
    [](const auto &test) { return test.param.name; });

TEST_F(PipelineTest, HostValuesOfAnotherTypeAreRefused)
{
    QString error;
    EXPECT_FALSE(pipeline.setHostValue(s("viewport"), QSize(3, 4), &error));
    EXPECT_EQ(error, s("host value 'viewport' takes a rectangle, not a QSize"));
    EXPECT_FALSE(pipeline.hostValue(s("viewport")).isValid());
    EXPECT_FALSE(pipeline.setHostValue(s("model"), 3, &error));
    EXPECT_FALSE(pipeline.setHostValue(s("lights"), 3, &error));
    EXPECT_TRUE(pipeline.setHostValue(s("paths.sky"), s("sky.png"), &error));
    EXPECT_TRUE(pipeline.setHostValue(s("viewport"), QVariant(), &error));
}

TEST(PipelineHosts, AreOfferedToInputsOfTheirType)
{
    EXPECT_EQ(Pipeline::hostValuesFor(s("Kvo_QMatrix4x4_Any")), QStringList({s("camera"), s("projection")}));
    EXPECT_EQ(Pipeline::hostValuesFor(s("Kvo_KvoGPUModel*_Any")), QStringList({s("model"), s("opaque")}));
    EXPECT_EQ(Pipeline::hostValuesFor(s("Kvo_KvoTexture*_Any")), QStringList());
    // What may be bound and what is offered is the same, for all inputs of all classes.
    for (const QString &className : passFactory().classNames()) {
        Pipeline pipeline;
        if (!pipeline.add(s("P"), className))
            continue;
        for (const PassInput &input : pipeline.inputs(s("P")))
            for (const QString &host : Pipeline::hostValueNames()) {
                QString whyNot;
                EXPECT_EQ(pipeline.bind(s("P"), input.slot, host, &whyNot),
                          Pipeline::hostValuesFor(input.slot).contains(host))
                    << qPrintable(className + input.slot + host);
            }
    }
}

TEST_F(PipelineTest, ListsWithAnElementOfAnotherTypeAreRefused)
{
    ASSERT_TRUE(pipeline.add(s("Screen"), s("TextureToScreenRenderPass")));
    QString error;
    const QRect rectangle(0, 0, 3, 4);
    EXPECT_FALSE(pipeline.setValue(s("Screen"), s("ViewportOut"), QVariantList{rectangle, QSize(3, 4)}, &error));
    EXPECT_EQ(error, s("pass 'Screen': 'Kvo_QRect_ViewportOut' takes a rectangle or a list of them, not a QSize in "
                       "element 1"));
    EXPECT_TRUE(pipeline.setValue(s("Screen"), s("ViewportOut"), QVariantList{rectangle, rectangle}, &error));
}

TEST_F(PipelineTest, SaysWhyWhereNobodyTakesTheReason)
{
    add("A");
    add("B");
    const auto said = [](const std::function<bool()> &operation) {
        MessageCapture messages;
        EXPECT_FALSE(operation());
        EXPECT_EQ(messages.texts().size(), messages.texts(QtWarningMsg).size());
        return messages.texts().join(QLatin1Char('|'));
    };
    EXPECT_EQ(said([&] { return pipeline.connect(s("A.Frmae"), s("B.Frame")); }),
              s("Pipeline: pass 'A' has no output 'Frmae'; did you mean 'Frame'?"));
    const struct
    {
        const char *name;
        std::function<bool(QString *)> operation;
    } operations[] = {
        {"add a pass", [&](QString *e) { return pipeline.add(s("A"), std::make_unique<WirePass>(), e); }},
        {"add a class", [&](QString *e) { return pipeline.add(s("C"), s("NoPass"), e); }},
        {"insert a pass",
         [&](QString *e) {
             return pipeline.insert(s("C"), std::make_unique<WirePass>(), s("B"), s("Frame"), s("Frame"), s("Frame"),
                                    e);
         }},
        {"insert a class",
         [&](QString *e) { return pipeline.insert(s("C"), s("NoPass"), s("B"), s("F"), s("F"), s("F"), e); }},
        {"replace by a pass", [&](QString *e) { return pipeline.replace(s("C"), std::make_unique<WirePass>(), e); }},
        {"replace by a class", [&](QString *e) { return pipeline.replace(s("A"), s("NoPass"), e); }},
        {"setEnabled", [&](QString *e) { return pipeline.setEnabled(s("C"), true, e); }},
        {"setClearColor", [&](QString *e) { return pipeline.setClearColor(s("C"), Qt::red, e); }},
        {"remove", [&](QString *e) { return pipeline.remove(s("C"), e); }},
        {"rename", [&](QString *e) { return pipeline.rename(s("A"), s("B"), e); }},
        {"connect", [&](QString *e) { return pipeline.connect(s("A"), s("Fr"), s("B"), s("Frame"), e); }},
        {"connect by dots", [&](QString *e) { return pipeline.connect(s("A"), s("B"), e); }},
        {"bind", [&](QString *e) { return pipeline.bind(s("A"), s("Viewport"), s("camera"), e); }},
        {"setValue", [&](QString *e) { return pipeline.setValue(s("A"), s("Viewport"), 3, e); }},
        {"setValueText", [&](QString *e) { return pipeline.setValueText(s("A"), s("Viewport"), s("3"), e); }},
        {"setValueText of a host value",
         [&](QString *e) { return pipeline.setValueText(s("A"), s("Viewport"), s("@vp"), e); }},
        {"reset", [&](QString *e) { return pipeline.reset(s("A"), s("Fr"), e); }},
        {"setHostValue", [&](QString *e) { return pipeline.setHostValue(s("vp"), 3, e); }},
        {"setup", [&](QString *e) { return pipeline.setup(nullptr, e); }},
        {"render", [&](QString *e) { return pipeline.render(nullptr, e); }},
    };
    for (const auto &[name, operation] : operations) {
        QString error;
        EXPECT_EQ(said([&, &run = operation] { return run(&error); }), QString()) << name;
        EXPECT_FALSE(error.isEmpty()) << name;
        EXPECT_EQ(said([&, &run = operation] { return run(nullptr); }),
                  // Frames without a context come by the dozen: the first one says it, here that with an error.
                  s(name) == s("render") ? QString() : s("Pipeline: ") + error)
            << name;
    }
    Pipeline other;
    EXPECT_EQ(said([&] { return other.render(); }),
              s("Pipeline: no OpenGL context of version 3.2 or later is current"));
    EXPECT_EQ(said([&] { return other.render(); }), QString());
}

TEST_F(PipelineTest, SaysThatAFrameNeedsAContext)
{
    add("A");
    QString error;
    EXPECT_FALSE(pipeline.render(nullptr, &error));
    EXPECT_TRUE(error.contains(s("no OpenGL context"))) << qPrintable(error);
    EXPECT_EQ(pipeline.frameNumber(), 0);
}

TEST(PassFactory, MakesEveryClassThatItLists)
{
    for (const QString &name : passFactory().classNames())
        EXPECT_NE(passFactory().make(name), nullptr) << qPrintable(name);
    for (const char *name : {"ForwardRenderPass", "GradientRenderPass", "ModelDeferredPass", "ModelRenderPass",
                             "TextureToScreenRenderPass"})
        EXPECT_TRUE(passFactory().knows(s(name))) << name;
    EXPECT_EQ(passFactory().make(s("NoSuchPass")), nullptr);
}

TEST(PassFactory, TakesTheClassesOfAHostOnce)
{
    EXPECT_TRUE(registerPass<WirePass>(s("WirePass")));
    EXPECT_FALSE(registerPass<OtherPass>(s("WirePass")));
    EXPECT_NE(dynamic_cast<WirePass *>(passFactory().make(s("WirePass")).get()), nullptr);
}

struct TypeSample
{
    const char *good; ///< Null: there is no text for it.
    const char *bad; ///< Null: every text will do.
    const char *takes;
};

// What --set of kvorender gives an input, and says of it, for every input of every pass of the library.
TEST(Slots, EveryInputCanBeSetByTextAndSaysWhatItTakes)
{
    const QHash<QString, TypeSample> samples{
        {s("float"), {"0.5", "much", "a number"}},
        {s("Float"), {"0.5", "[1]", "a number"}},
        {s("int"), {"2", "1.5", "a whole number"}},
        {s("bool"), {"true", "1", "true or false"}},
        {s("Bool"), {"false", "yes", "true or false"}},
        {s("QColor"), {"#ff8000", "12", "\"#rrggbb\", \"#rrggbbaa\", a colour name, or [r, g, b, a] from 0 to 1"}},
        {s("QRect"), {"[0, 0, 4, 4]", "[4, 4]", "[x, y, width, height]"}},
        {s("QVariant"), {"[0, 0, 4, 4]", "{}", "a plain value"}},
        {s("QVector2D"), {"[0.5, 0.5]", "0.5", "[x, y]"}},
        {s("KvoDrawBuffers*"), {nullptr, "3", "a link or a host value"}},
        {s("QVector3D"), {"[1, 2, 3]", "[1]", "[x, y, z]"}},
        {s("QSize"), {"[4, 4]", "4", "[width, height]"}},
        {s("QList"), {"[]", "1", "a list"}},
        {s("QMatrix4x4"), {"[1,0,0,0, 0,1,0,0, 0,0,1,0, 0,0,0,1]", "[1, 2]", "16 numbers, row by row"}},
        {s("QString"), {"image.png", nullptr, nullptr}},
        {s("string"), {"image.png", nullptr, nullptr}},
        {s("KvoTexture*"), {nullptr, "3", "a link or a host value"}},
        {s("KvoGPUModel*"), {"@model", "3", "a link or a host value"}},
        {s("KvoFramebuffer*"), {"@screen", "3", "a link or a host value"}},
    };
    const QHash<QString, QString> untyped{{s("brightness"), s("float")}};
    for (const QString &className : passFactory().classNames()) {
        Pipeline pipeline;
        if (!className.endsWith(s("Pass")) || !pipeline.add(s("P"), className))
            continue;
        const RenderPass &pass = *pipeline.pass(s("P"));
        for (int i = 0; i < pass.numInputs(); ++i) {
            const QString slot = pass.inputName(i);
            const QString type = untyped.value(slot, SlotName::parse(slot).type);
            ASSERT_TRUE(samples.contains(type)) << qPrintable(className) << " " << qPrintable(slot);
            const TypeSample &sample = samples[type];
            QString error;
            const bool isRecord = slot.endsWith(s("_ShadowMapData")); // which only a pass makes
            if (sample.good && !isRecord) {
                EXPECT_TRUE(pipeline.setValueText(s("P"), slot, s(sample.good), &error)) << qPrintable(error);
            }
            if (!sample.bad)
                continue;
            EXPECT_FALSE(pipeline.setValueText(s("P"), slot, s(sample.bad), &error)) << qPrintable(slot);
            const SlotInfo *info = pipeline.inputInfo(s("P"), slot);
            const QString first = info && !info->choices.empty() ? s("one of ") + s(info->choices[0].name) + s(", ")
                                                                 : s(sample.takes) + s(", not ");
            EXPECT_TRUE(error.startsWith(s("pass 'P': '%1' takes %2").arg(slot, first))) << qPrintable(error);
        }
    }
}
