#include "support/docfiles.h"
#include "support/passcases.h"
#include "support/slotdocs.h"

#include <host/shadowlightingpass.h>
#include <passkit/limits.h>

#include <QRegularExpression>
#include <QSet>
#include <QSize>
#include <QVector2D>

#include <gtest/gtest.h>

#include <cmath>

// What the passes say about their slots, against the slots and against the documents that are made of it. With
// KVO_WRITE_DOCS set the documents are written anew.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

// A name for failures.
std::string named(const RenderPassHelper &pass, const QString &slot)
{
    return std::string(pass.passInfo() ? pass.passInfo()->className : "?") + ": " + slot.toStdString();
}

class EverySlot : public ::testing::TestWithParam<PassCase>
{
protected:
    std::unique_ptr<RenderPassHelper> pass = GetParam().make();
};

INSTANTIATE_TEST_SUITE_P(Passes, EverySlot, ::testing::ValuesIn(passCases()),
                         [](const auto &pass) { return std::string(pass.param.className); });

bool isLine(const char *text)
{
    const QByteArray line(text);
    return !line.isEmpty() && line == line.simplified() && !line.endsWith('.')
           && std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c < 127 && c != '|'; });
}

bool isNumber(const SlotInfo &info)
{
    switch (info.kind) {
    case SlotKind::Plain:
    case SlotKind::Count:
    case SlotKind::Index:
    case SlotKind::Radius:
    case SlotKind::Distance:
    case SlotKind::Factor:
    case SlotKind::Threshold:
    case SlotKind::Divider: return true;
    default: return false;
    }
}

// The parts of a value that a range bounds.
std::vector<double> partsOf(const QVariant &value)
{
    switch (value.metaType().id()) {
    case QMetaType::QSize: return {double(value.toSize().width()), double(value.toSize().height())};
    case QMetaType::QVector2D: {
        const auto v = qvariant_cast<QVector2D>(value);
        return {double(v.x()), double(v.y())};
    }
    default: return {value.toDouble()};
    }
}

void expectGoodInfo(const RenderPassHelper &pass, const SlotInfo *info, const QString &slot, bool isInput)
{
    ASSERT_TRUE(info) << named(pass, slot) << " is not described";
    EXPECT_EQ(QString::fromLatin1(info->name), slot) << named(pass, slot);
    EXPECT_TRUE(isLine(info->meaning)) << named(pass, slot) << ": " << info->meaning;
    EXPECT_EQ(info->kind == SlotKind::Choice, !info->choices.empty()) << named(pass, slot);
    EXPECT_LT(info->range.least, info->range.most) << named(pass, slot);
    EXPECT_GE(info->range.step, 0.0) << named(pass, slot);
    if (isInput && isNumber(*info)) {
        EXPECT_TRUE(std::isfinite(info->range.least)) << named(pass, slot) << " has no range";
    }
    static const QRegularExpression kNothing(
        QStringLiteral("not used|not read|without effect|no effect|never written"));
    EXPECT_EQ(!info->hasEffect, kNothing.match(QString::fromLatin1(info->meaning)).hasMatch()) << named(pass, slot);
    if (isInput) {
        EXPECT_STREQ(info->format, "") << named(pass, slot) << ": a format is for outputs";
    } else if (info->kind == SlotKind::Texture) {
        EXPECT_TRUE(isLine(info->format)) << named(pass, slot);
    }
    QSet<QString> names;
    QSet<int> values;
    for (const SlotChoice &choice : info->choices) {
        EXPECT_TRUE(isLine(choice.meaning)) << named(pass, slot) << ": " << choice.name;
        static const QRegularExpression kWord(QStringLiteral("^[a-z][A-Za-z]*$"));
        EXPECT_TRUE(kWord.match(QString::fromLatin1(choice.name)).hasMatch()) << choice.name;
        names << QString::fromLatin1(choice.name);
        values << choice.value;
    }
    EXPECT_EQ(names.size(), qsizetype(info->choices.size())) << named(pass, slot);
    EXPECT_EQ(values.size(), qsizetype(info->choices.size())) << named(pass, slot);
}

// The kind of a slot whose type leaves no doubt.
SlotKind kindOf(const QString &slot, SlotKind otherwise)
{
    static const QHash<QString, SlotKind> kinds{{QStringLiteral("QRect"), SlotKind::Area},
                                                {QStringLiteral("KvoTexture*"), SlotKind::Texture},
                                                {QStringLiteral("QMatrix4x4"), SlotKind::Matrix},
                                                {QStringLiteral("bool"), SlotKind::Switch},
                                                {QStringLiteral("Bool"), SlotKind::Switch},
                                                {QStringLiteral("KvoGPUModel*"), SlotKind::Model},
                                                {QStringLiteral("KvoDrawBuffers*"), SlotKind::Geometry},
                                                {QStringLiteral("QColor"), SlotKind::Color},
                                                {QStringLiteral("QSize"), SlotKind::Size},
                                                {QStringLiteral("QVector2D"), SlotKind::Position},
                                                {QStringLiteral("QVector3D"), SlotKind::Position},
                                                {QStringLiteral("QList"), SlotKind::List},
                                                {QStringLiteral("QString"), SlotKind::Path},
                                                {QStringLiteral("string"), SlotKind::Path},
                                                {QStringLiteral("KvoFramebuffer*"), SlotKind::Framebuffer}};
    return kinds.value(SlotName::parse(slot).type, otherwise);
}

const SlotInfo *inputOf(const RenderPassHelper &pass, const char *name)
{
    return pass.inputInfo(pass.findInput(QString::fromLatin1(name)));
}

struct NamedValue
{
    const char *name;
    int value;
};

void expectChoices(const SlotInfo *info, const std::vector<NamedValue> &expected)
{
    ASSERT_TRUE(info);
    ASSERT_EQ(info->choices.size(), expected.size()) << info->name;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_STREQ(info->choices[i].name, expected[i].name);
        EXPECT_EQ(info->choices[i].value, expected[i].value) << expected[i].name;
    }
}

void expectRange(const SlotInfo *info, double least, double most)
{
    ASSERT_TRUE(info);
    EXPECT_EQ(info->range.least, least) << info->name;
    EXPECT_EQ(info->range.most, most) << info->name;
}

// The lines of the tables of slots in a text, from the first to the last.
bool findTables(const QString &text, const QString &beginning, qsizetype *from, qsizetype *to)
{
    static const QRegularExpression kInHeader(
        QStringLiteral("^/// \\| # +\\| (?:In|Out)put .*\n(?:/// \\|.*\n|///\n(?=/// \\| # +\\| Output))+"),
        QRegularExpression::MultilineOption);
    static const QRegularExpression kOnPage(
        QStringLiteral(
            "^\\| # \\| (?:in|out)put \\|.*\n(?:\\|.*\n|\n(?=\\| # \\| output)|\n(?=\\| `[^|]*\\| name in))+"),
        QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = (beginning.isEmpty() ? kOnPage : kInHeader).match(text);
    *from = match.capturedStart();
    *to = match.capturedEnd();
    return match.hasMatch();
}

void expectTables(const QString &path, const RenderPassHelper &pass, const QString &beginning)
{
    QString text = fileText(path);
    qsizetype from = 0, to = 0;
    ASSERT_TRUE(findTables(text, beginning, &from, &to)) << qPrintable(path) << " has no table of slots";
    const QString tables = slotTables(pass, beginning);
    if (isWriting()) {
        text.replace(from, to - from, tables);
        writeText(path, text);
        findTables(text, beginning, &from, &to);
    }
    EXPECT_EQ(text.mid(from, to - from).toStdString(), tables.toStdString())
        << qPrintable(path) << " is stale: write it with KVO_WRITE_DOCS=1 build/dev/bin/test_unit_slotinfo";
}

// The names of an enumeration in a header, in their order.
QStringList enumerators(const QString &header, const QString &name)
{
    const QRegularExpression form(QStringLiteral("    enum %1 : int \\{\n([^}]*)\\};").arg(name));
    QStringList names;
    for (const QString &line : form.match(header).captured(1).split(u'\n', Qt::SkipEmptyParts))
        if (!line.trimmed().isEmpty())
            names << line.trimmed();
    return names;
}

// "InBlurRadius," for "Kvo_float_BlurRadius".
QString enumeratorOf(const QString &prefix, const QString &slot)
{
    QString name = SlotName::parse(slot).name.remove(QStringLiteral("Int_")).remove(u'_');
    name[0] = name[0].toUpper();
    return prefix + name + u',';
}

// A class of a host that adds slots to those of another and describes them, and one that does not.
constexpr SlotInfo kMoreInputs[] = {
    {.name = "Kvo_float_Gain", .meaning = "gain", .kind = SlotKind::Factor, .range = {0, 2}}};
constexpr SlotInfo kMoreOutputs[] = {{.name = "Kvo_float_Peak", .meaning = "peak"}};
constexpr PassInfo kMore = {"Describing", "a wireframe and more", Reach::texels(3), kMoreInputs, kMoreOutputs};

class Silent : public WireframeRenderPass
{
public:
    Silent()
    {
        addInput(QStringLiteral("Kvo_float_Gain"));
        addOutput(QStringLiteral("Kvo_float_Peak"));
    }
};

class Describing : public Silent
{
public:
    Describing() { describe(kMore); }
};

} // namespace

TEST_P(EverySlot, HasAMeaningAKindAndANameThatFits)
{
    ASSERT_TRUE(pass->passInfo());
    EXPECT_STREQ(pass->passInfo()->className, GetParam().className);
    EXPECT_TRUE(isLine(pass->passInfo()->meaning)) << GetParam().className;
    EXPECT_EQ(int(pass->passInfo()->inputs.size()), pass->numInputs());
    EXPECT_EQ(int(pass->passInfo()->outputs.size()), pass->numOutputs());
    for (int i = 0; i < pass->numInputs(); ++i) {
        expectGoodInfo(*pass, pass->inputInfo(i), pass->inputName(i), true);
        if (const SlotInfo *info = pass->inputInfo(i)) {
            EXPECT_EQ(info->kind, kindOf(info->name, info->kind)) << info->name;
        }
    }
    for (int i = 0; i < pass->numOutputs(); ++i) {
        expectGoodInfo(*pass, pass->outputInfo(i), pass->outputName(i), false);
        if (const SlotInfo *info = pass->outputInfo(i)) {
            EXPECT_EQ(info->kind, kindOf(info->name, info->kind)) << info->name;
        }
    }
    EXPECT_EQ(pass->inputInfo(-1), nullptr);
    EXPECT_EQ(pass->inputInfo(pass->numInputs()), nullptr);
    EXPECT_EQ(pass->outputInfo(-1), nullptr);
    EXPECT_EQ(pass->outputInfo(pass->numOutputs()), nullptr);
}

TEST_P(EverySlot, StartsWithinItsRange)
{
    for (int i = 0; i < pass->numInputs(); ++i) {
        const SlotInfo &info = *pass->inputInfo(i);
        const QVariant value = pass->defaultValue(i);
        if (!value.isValid())
            continue;
        if (std::isfinite(info.range.least)) {
            for (const double part : partsOf(value))
                EXPECT_TRUE(info.range.contains(part)) << info.name << " starts with " << part;
        }
        if (!info.choices.empty()) {
            EXPECT_TRUE(std::any_of(info.choices.begin(), info.choices.end(), [&](const SlotChoice &c) {
                return c.value == value.toInt();
            })) << info.name;
        }
    }
}

TEST_P(EverySlot, OfAReachIsANumberOfThePass)
{
    const Reach &reach = pass->passInfo()->reach;
    EXPECT_GE(reach.fixed, 0.0);
    EXPECT_EQ(reach.slot != nullptr, reach.perUnit > 0.0);
    for (const char *slot : {reach.slot, reach.times}) {
        if (slot) {
            const SlotInfo *info = inputOf(*pass, slot);
            ASSERT_TRUE(info) << slot;
            EXPECT_TRUE(isNumber(*info)) << slot;
        }
    }
}

TEST_P(EverySlot, StandsOnItsPageAndInItsHeaderAsItIs)
{
    // The base of the blurs has no slots; those of the programmable pass are the host's, and told in words.
    if (pass->numInputs() + pass->numOutputs() == 0 || qstrcmp(GetParam().className, "ShaderRenderPass") == 0)
        return;
    const QString name = QString::fromLatin1(GetParam().className).toLower();
    expectTables(sourcePath(QStringLiteral("include/renderpasses/%1.h").arg(name)), *pass, QStringLiteral("/// "));
    expectTables(sourcePath(QStringLiteral("docs/passes/%1.md").arg(name)), *pass, QString());
}

TEST_P(EverySlot, HasAnEnumeratorWithItsIndex)
{
    const QString name = QString::fromLatin1(GetParam().className).toLower();
    const QString header = fileText(sourcePath(QStringLiteral("include/renderpasses/%1.h").arg(name)));
    QStringList inputs, outputs;
    for (int i = 0; i < pass->numInputs(); ++i)
        inputs << enumeratorOf(QStringLiteral("In"), pass->inputName(i));
    for (int i = 0; i < pass->numOutputs(); ++i)
        outputs << enumeratorOf(QStringLiteral("Out"), pass->outputName(i));
    // Counted from 0 by the compiler, since none of them has a value of its own.
    EXPECT_EQ(enumerators(header, QStringLiteral("Input")), inputs) << qPrintable(header.left(0) + name);
    EXPECT_EQ(enumerators(header, QStringLiteral("Output")), outputs) << qPrintable(name);
}

TEST(SlotNumbers, AreThoseOfTheSlotsOfThatName)
{
    EXPECT_EQ(GaussianBlurRenderPass().inputName(GaussianBlurRenderPass::InStencilMaterial),
              QStringLiteral("Kvo_int_StencilMaterial"));
    EXPECT_EQ(BlendRenderPass().inputName(BlendRenderPass::InBrightness), QStringLiteral("brightness"));
    EXPECT_EQ(ModelRenderPass().outputName(ModelRenderPass::OutId), QStringLiteral("Kvo_KvoTexture*_Id"));
    // A class that adds slots has the numbers of the other one too.
    EXPECT_EQ(int(Describing::InWireColor), 2);
    EXPECT_EQ(int(ShadowLightingPass::InViewport), 0);
}

TEST(SlotInfo, OfAClassThatAddsSlotsBeginsWhereTheOtherOneEnds)
{
    const Silent silent;
    EXPECT_STREQ(silent.inputInfo(2)->name, "Kvo_QColor_WireColor");
    EXPECT_EQ(silent.inputInfo(3), nullptr);
    EXPECT_EQ(silent.outputInfo(1), nullptr);
    EXPECT_STREQ(silent.passInfo()->className, "WireframeRenderPass");

    const Describing describing;
    EXPECT_STREQ(describing.inputInfo(2)->name, "Kvo_QColor_WireColor");
    EXPECT_EQ(describing.inputInfo(3), &kMoreInputs[0]);
    EXPECT_EQ(describing.outputInfo(1), &kMoreOutputs[0]);
    EXPECT_EQ(describing.passInfo(), &kMore);

    const Describing copy(describing);
    EXPECT_EQ(copy.inputInfo(3), &kMoreInputs[0]);
}

TEST(SlotInfo, StaysWithASlotThatGetsAnotherName)
{
    Probe<GaussianBlurRenderPass> pass;
    pass.renameInput(GaussianBlurRenderPass::InBlurRadius);
    EXPECT_EQ(pass.inputInfo(GaussianBlurRenderPass::InBlurRadius)->kind, SlotKind::Radius);
}

TEST(SlotInfo, IsNotThereForSlotsThatAHostNames)
{
    ShaderRenderPass pass;
    pass.addInput(QStringLiteral("Kvo_float_Gain"));
    pass.addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"));
    EXPECT_TRUE(pass.inputInfo(ShaderRenderPass::InViewport));
    EXPECT_EQ(pass.inputInfo(1), nullptr);
    EXPECT_EQ(pass.outputInfo(0), nullptr);
}

TEST(SlotInfo, OfTheHostsOwnPassFollowsThatOfTheProgrammableOne)
{
    const ShadowLightingPass pass;
    for (int i = 0; i < pass.numInputs(); ++i)
        expectGoodInfo(pass, pass.inputInfo(i), pass.inputName(i), true);
    for (int i = 0; i < pass.numOutputs(); ++i)
        expectGoodInfo(pass, pass.outputInfo(i), pass.outputName(i), false);
    EXPECT_STREQ(pass.passInfo()->className, "ShadowLightingPass");
}

TEST(SlotChoices, AreTheEnumeratorsOfThePass)
{
    using B = BlendRenderPass;
    expectChoices(inputOf(B(), "Int_BlendMode"), {{"clear", B::blendClear},
                                                  {"src", B::blendSrc},
                                                  {"dst", B::blendDst},
                                                  {"srcOver", B::blendSrcOver},
                                                  {"dstOver", B::blendDstOver},
                                                  {"srcIn", B::blendSrcIn},
                                                  {"dstIn", B::blendDstIn},
                                                  {"srcOut", B::blendSrcOut},
                                                  {"dstOut", B::blendDstOut},
                                                  {"srcAtop", B::blendSrcAtop},
                                                  {"dstAtop", B::blendDstAtop},
                                                  {"xor", B::blendXor},
                                                  {"add", B::blendAdd},
                                                  {"multiply", B::blendMultiply},
                                                  {"screen", B::blendScreen},
                                                  {"overlay", B::blendOverlay},
                                                  {"darken", B::blendDarken},
                                                  {"lighten", B::blendLighten},
                                                  {"colorDodge", B::blendColorDodge},
                                                  {"colorBurn", B::blendColorBurn},
                                                  {"hardLight", B::blendHardLight},
                                                  {"softLight", B::blendSoftLight},
                                                  {"exclusion", B::blendExclusion},
                                                  {"difference", B::blendDifference},
                                                  {"invertAndAdd", B::blendInvertAndAdd},
                                                  {"multiplyKeepAlpha", B::blendMultiplyKeepAlpha}});
    expectChoices(inputOf(ShadowMapRenderPass(), "Kvo_int_FilterType"),
                  {{"none", ShadowMapRenderPass::NoFilter},
                   {"gaussian", ShadowMapRenderPass::GaussianFilter},
                   {"edgeAwareGaussian", ShadowMapRenderPass::EdgeAwareGaussianFilter},
                   {"gradient", ShadowMapRenderPass::GradientFilter}});
    expectChoices(inputOf(ShadowMapRenderPass2(), "Kvo_int_FilterType"),
                  {{"none", ShadowMapRenderPass2::NoFilter}, {"gradient", ShadowMapRenderPass2::GradientFilter}});
    expectChoices(inputOf(CameraJitterPass(), "Kvo_int_JitterMode"),
                  {{"none", 0}, {"randomAfterChange", 1}, {"alternating", 2}, {"random", 3}});
    expectChoices(inputOf(SMAARenderPass(), "Kvo_int_Mode"), {{"singleFrame", 0}, {"temporal", 1}});
}

// What a pass bounds by a constant it does not call sane beyond.
TEST(SlotRanges, EndWhereThePassesBoundWhatTheyRead)
{
    const double radius = kMostBlurTaps - 1;
    expectRange(inputOf(GaussianBlurRenderPass(), "Kvo_float_BlurRadius"), 0, radius);
    expectRange(inputOf(BlurAndCombineRenderPass(), "Kvo_float_BlurRadius"), 0, radius);
    expectRange(inputOf(StencilBlurAndBlendRenderPass(), "Kvo_float_BlurRadius"), 0, radius);
    expectRange(inputOf(GaussianBlurRenderPass(), "Kvo_int_StencilMaterial"), -1, 254);
    expectRange(inputOf(VisibilitySortRenderPass(), "Kvo_int_NodeBufferWidth"), 0, kWidestNodeBuffer);
    expectRange(inputOf(VisibilityDeferredRenderPass(), "Kvo_int_NodeBufferWidth"), 0, kWidestNodeBuffer);
    const ScalableAmbientObscuranceRenderPass obscurance;
    expectRange(inputOf(obscurance, "Kvo_float_SaoNumSamples"), 0, kMostObscuranceTaps);
    expectRange(inputOf(obscurance, "Kvo_float_SaoNumSpiralTurns"), 0, kMostSpiralTurns);
}
