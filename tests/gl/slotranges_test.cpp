#include "support/gltest.h"
#include "support/hostpasses.h"
#include "support/messages.h"
#include "support/passvalues.h"

#include <core/renderpasshelper.h>
#include <host/passfactory.h>
#include <model/instancedatacollection.h>
#include <model/instancedataregistry.h>

#include <QSize>
#include <QVector2D>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

// The values that slots call sane, in the passes: those are used as they are, and nothing is said about them. And values
// of a type that a slot does not take, of which something is said.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

class SaneValues : public GLTest, public ::testing::WithParamInterface<PassRow>
{
protected:
    // Objects before the context goes.
    void TearDown() override
    {
        pass.reset();
        values.reset();
        GLTest::TearDown();
    }

    void makePass()
    {
        values = std::make_unique<Values>();
        pass = passFactory().make(text(GetParam().className));
        ASSERT_TRUE(pass);
        for (int i = 0; i < pass->numInputs(); ++i)
            pass->setInput(i, values->right(GetParam().inputs[std::size_t(i)]));
        pass->setup(nullptr);
        runFrame(*pass);
    }

    const SlotInfo *info(int slot) const { return dynamic_cast<const RenderPassHelper &>(*pass).inputInfo(slot); }

    void expectTaken(int slot, const QVariant &value)
    {
        const QVariant before = values->right(GetParam().inputs[std::size_t(slot)]);
        pass->setInput(slot, value);
        const MessageCapture messages;
        runFrame(*pass);
        const QString name =
            QStringLiteral("%1: %2 ").arg(QLatin1StringView(GetParam().className), pass->inputName(slot));
        EXPECT_EQ(messages.containing(name), 0) << messages.texts().join(u'\n').toStdString();
        pass->setInput(slot, before);
        runFrame(*pass);
    }

    // A value of the slot's type whose parts are all this number.
    QVariant ofNumber(int slot, double number) const
    {
        switch (GetParam().inputs[std::size_t(slot)].type.id()) {
        case QMetaType::Int: return int(number);
        case QMetaType::QSize: return QSize(int(number), int(number));
        case QMetaType::QVector2D: return QVector2D(float(number), float(number));
        default: return float(number);
        }
    }

    std::unique_ptr<Values> values;
    std::unique_ptr<RenderPass> pass;
};

std::vector<PassRow> rowsWithInputs()
{
    std::vector<PassRow> rows;
    for (const PassRow &row : passTable())
        if (!row.inputs.empty())
            rows.push_back(row);
    for (const PassRow &row : hostPassTable())
        if (!row.inputs.empty() && passFactory().knows(text(row.className)))
            rows.push_back(row);
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Passes, SaneValues, ::testing::ValuesIn(rowsWithInputs()),
                         [](const auto &row) { return std::string(row.param.className); });

} // namespace

TEST_P(SaneValues, AtBothEndsOfARangeAndOfEveryChoiceAreTakenAsTheyAre)
{
    makePass();
    for (int slot = 0; slot < pass->numInputs(); ++slot) {
        const SlotInfo *about = info(slot);
        ASSERT_TRUE(about);
        for (const SlotChoice &choice : about->choices)
            expectTaken(slot, choice.value);
        // Maps as large as drivers have take more memory than there is; what becomes of them is another test's.
        if (about->kind == SlotKind::Size || !std::isfinite(about->range.least))
            continue;
        expectTaken(slot, ofNumber(slot, about->range.least));
        if (std::isfinite(about->range.most))
            expectTaken(slot, ofNumber(slot, about->range.most));
    }
}

namespace {

class WrongTypes : public GLTest, public ::testing::WithParamInterface<PassRow>
{
protected:
    static std::vector<WrongValue> candidates(Values &values)
    {
        return {
            {"text", text("x")},
            {"a number as text", text("2")},
            {"a number", 3},
            {"a list", QVariantList{1, QRect(0, 0, 1, 1)}},
            {"an empty list", QVariantList()},
            {"rectangles", QVariantList{QRect(0, 0, 1, 1), QVariant(), QRect(0, 0, 4, 4)}},
            {"rectangles of their type", QVariant::fromValue(QList<QRect>{QRect(0, 0, 1, 1), QRect(0, 0, 4, 4)})},
            {"rectangles and a size", QVariantList{QRect(0, 0, 1, 1), QSize(1, 1)}},
            {"geometries", QVariantList{values.builder.output(0), QVariant::fromValue<QObject *>(nullptr)}},
            {"geometries of their type",
             QVariant::fromValue(QList<QObject *>{qvariant_cast<QObject *>(values.builder.output(0)), nullptr})},
            {"geometry and a texture", QVariantList{values.builder.output(0), textureToVariant(values.color.get())}},
            {"instance data", QVariantList{QVariant::fromValue<QObject *>(&instances())}},
            {"instance data and a texture",
             QVariantList{QVariant::fromValue(&instances()), textureToVariant(values.color.get())}},
            {"an address of instance data", QVariant::fromValue(&instances())},
            {"instance data by its own type", QVariant::fromValue(QList<InstanceDataCollection *>{&instances()})},
            {"a rectangle", QRect(0, 0, 4, 4)},
            {"a matrix", QMatrix4x4()},
            {"a foreign object", QVariant::fromValue<QObject *>(&values.foreign)},
            {"a texture", textureToVariant(values.color.get())},
            {"a model", QVariant::fromValue(&values.model)},
            {"no texture", QVariant::fromValue<Texture *>(nullptr)},
            {"nothing", QVariant()},
            // Lights come by value, by pointer, alone and in lists of their type.
            {"a light", QVariant::fromValue(light())},
            {"a light's address", QVariant::fromValue(&light())},
            {"lights", QVariant::fromValue(QVector<ShadowMapLight>{light()})}};
    }
    static ShadowMapLight &light()
    {
        static ShadowMapLight one = ShadowMapLight::spot({0, 9, 0}, {0, -1, 0}, 40);
        return one;
    }

    static InstanceDataCollection &instances()
    {
        static InstanceDataCollection one(InstanceDataRegistry::Instance().getPlan(text("InstanceInfo")));
        return one;
    }

    // By names, so that it is not what the library has.
    static bool isTaken(const InputRow &input, const std::string &value)
    {
        const auto isOneOf = [&](std::initializer_list<const char *> names) {
            return std::find(names.begin(), names.end(), value) != names.end();
        };
        const QString name = text(input.name);
        if (value == "nothing")
            return true;
        if (name.contains(text("KvoTexture*")))
            return isOneOf({"a texture", "no texture"});
        if (name.contains(text("KvoGPUModel*")))
            return isOneOf({"a model", "no texture"});
        if (name.contains(text("KvoDrawBuffers*")))
            return isOneOf({"no texture", "an empty list", "geometries", "geometries of their type"});
        if (name.contains(text("ShadowMapData")) || name.contains(text("KvoFramebuffer*")))
            return isOneOf({"no texture"});
        if (name.contains(text("Rects")) || name.contains(text("ViewportOut")))
            return isOneOf({"a rectangle", "an empty list", "rectangles", "rectangles of their type"});
        if (name.contains(text("InstanceData")))
            return isOneOf({"an empty list", "instance data", "instance data by its own type"});
        switch (input.type.id()) {
        case QMetaType::Float:
        case QMetaType::Int: return isOneOf({"a number", "a number as text"});
        case QMetaType::Bool: return isOneOf({"a number", "a number as text", "text"});
        case QMetaType::QString: return isOneOf({"a number", "a number as text", "text"});
        case QMetaType::QRect: return isOneOf({"a rectangle"});
        case QMetaType::QMatrix4x4: return isOneOf({"a matrix"});
        // Which of the elements are none is said with the element.
        case QMetaType::QVariantList:
            return isOneOf({"a list", "an empty list", "rectangles", "rectangles of their type",
                            "rectangles and a size", "geometries", "geometries of their type", "geometry and a texture",
                            "instance data", "instance data and a texture", "an address of instance data",
                            "instance data by its own type", "a light", "a light's address", "lights", "a model",
                            "no texture"});
        default: return false; // colours, vectors and sizes
        }
    }
};

std::vector<PassRow> rowsOfAll()
{
    std::vector<PassRow> rows = passTable();
    rows.insert(rows.end(), hostPassTable().begin(), hostPassTable().end());
    for (PassRow &row : rows)
        if (isShaderOfHost(row.className)) // as a host adds it
            row.inputs.push_back({"Kvo_KvoTexture*_Input", QMetaType::fromType<Texture *>()});
    std::erase_if(rows, [](const PassRow &row) { return row.inputs.empty(); });
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Passes, WrongTypes, ::testing::ValuesIn(rowsOfAll()),
                         [](const auto &row) { return std::string(row.param.className); });

} // namespace

// By the number that headers of GL have for it.
TEST_F(GLTest, ATextureOfAnotherKindIsSaidWithItsTarget)
{
    Values values;
    const auto pass = barePass(caseOf("BlendRenderPass"));
    pass->setInput(0, QRect(0, 0, 4, 4));
    pass->setInput(pass->findInput(text("Kvo_KvoTexture*_FrameA")), textureToVariant(&values.cubemap));
    const MessageCapture messages;
    runFrame(*pass);
    EXPECT_EQ(messages.containing(text("texture of GL target 0x8513, which")), 1)
        << messages.texts().join(u'\n').toStdString();
}

TEST_P(WrongTypes, AreSaidOnceWithPassAndSlot)
{
    Values values;
    const auto pass = barePass(caseOf(GetParam().className));
    for (int slot = 0; slot < pass->numInputs(); ++slot)
        pass->setInput(slot, values.right(GetParam().inputs[std::size_t(slot)]));
    runFrame(*pass);
    for (int slot = 0; slot < pass->numInputs(); ++slot) {
        const InputRow &input = GetParam().inputs[std::size_t(slot)];
        if (input.type == QMetaType(QMetaType::QSize))
            continue; // of which a pass says more, in its frame: ShadowNumbers
        const QVariant right = values.right(input);
        for (const WrongValue &candidate : candidates(values)) {
            const ::testing::ScopedTrace trace(__FILE__, __LINE__, std::string(candidate.name) + " in " + input.name);
            const QString name =
                QStringLiteral("%1: %2 ").arg(QLatin1StringView(GetParam().className), pass->inputName(slot));
            const int once = isTaken(input, candidate.name) ? 0 : 1;
            const MessageCapture messages;
            // A pass of a pipeline gets its values in every frame.
            for (int frame = 0; frame < 3; ++frame)
                pass->setInput(slot, candidate.value);
            EXPECT_EQ(messages.containing(name), once) << messages.texts().join(u'\n').toStdString();
            pass->setInput(slot, right);
            pass->setInput(slot, candidate.value);
            EXPECT_EQ(messages.containing(name), 2 * once) << "after a right one";
            pass->setInput(slot, right);
        }
    }
}
