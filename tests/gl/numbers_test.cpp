#include "support/gltest.h"
#include "support/imagefiles.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/passtable.h"
#include "support/passvalues.h"

#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/texturemanager.h>
#include <host/imageoutput.h>
#include <host/passfactory.h>
#include <renderpasses/blurandcombinerenderpass.h>
#include <renderpasses/camerajitterpass.h>
#include <renderpasses/gaussianblurrenderpass.h>
#include <renderpasses/gradientrenderpass.h>
#include <renderpasses/scalableambientobscurancerenderpass.h>
#include <renderpasses/shadowmaprenderpass.h>
#include <renderpasses/shadowmaprenderpass2.h>
#include <renderpasses/stencilblurandblendrenderpass.h>
#include <renderpasses/temporalaarenderpass.h>
#include <renderpasses/textureloaderrenderpass.h>
#include <renderpasses/texturetoscreenrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>
#include <shadows/shadowmaprenderdata.h>

#include <QElapsedTimer>
#include <QFile>

#include <epoxy/gl.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <ostream>

// What a host may put into a slot by mistake: every number of every pass, at its worst.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

constexpr int kMin = std::numeric_limits<int>::min();
constexpr int kMax = std::numeric_limits<int>::max();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kHuge = std::numeric_limits<float>::max();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();

// What the context of this binary believes its targets are limited to: cuts are made as in any driver, but
// cost no more than small pictures.
constexpr int kSide = 256;
// What every driver can do, and is not asked for.
constexpr int kPossible = 1024;
constexpr int kTaps = 512;
constexpr int kObscuranceTaps = 1024;
constexpr int kFarthestCorner = 1 << 23;

// A frame may take twice the time of its slot's sane maximum, or this, which no machine's mood exceeds.
constexpr double kAnyFrame = kIsSanitized ? 5.0 : 0.6;
// That of a program that is built first.
constexpr double kFirstFrame = kIsSanitized ? 20.0 : 4.0;
constexpr qint64 kMegabyte = 1 << 20;

class NumbersTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        // Limits are asked for once.
        const GlCalls::ForcedInteger side(GL_MAX_TEXTURE_SIZE, kSide);
        ASSERT_EQ(OpenGLDeviceContext::current()->limits().targetWidth, kSide);
        ASSERT_EQ(OpenGLDeviceContext::current()->limits().targetHeight, kSide);
    }
};

qint64 residentBytes()
{
    QFile file(text("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE);
}

double secondsOfFrame(RenderPass &pass)
{
    glFinish();
    QElapsedTimer timer;
    timer.start();
    runFrame(pass);
    glFinish();
    return double(timer.nsecsElapsed()) * 1e-9;
}

struct NamedValue
{
    std::string name;
    QVariant value;
};

std::vector<NamedValue> floats()
{
    return {{"NaN", kNan}, {"+inf", kInfinity},     {"-inf", -kInfinity}, {"+0", 0.0f},
            {"-0", -0.0f}, {"denormal", kDenormal}, {"1e-4", 1e-4f},      {"-1e-4", -1e-4f},
            {"1e9", 1e9f}, {"-1e9", -1e9f},         {"FLT_MAX", kHuge},   {"-FLT_MAX", -kHuge}};
}

std::vector<NamedValue> integers()
{
    return {{"0", 0},          {"-1", -1},        {"1e9", 1000000000}, {"-1e9", -1000000000},
            {"INT_MAX", kMax}, {"INT_MIN", kMin}, {"300", 300}};
}

std::vector<NamedValue> rectangles()
{
    const auto corners = [](int left, int top, int right, int bottom) {
        return QRect(QPoint(left, top), QPoint(right, bottom));
    };
    return {{"null", QRect()},
            {"empty", QRect(3, 4, 0, 0)},
            {"negative", QRect(0, 0, -3, -2)},
            {"wide", QRect(0, 0, 2000000000, kHeight)},
            {"high", QRect(0, 0, kWidth, 2000000000)},
            {"a pixel too wide", QRect(0, 0, kPossible + 1, 1)},
            {"from INT_MIN to INT_MAX", corners(kMin, kMin, kMax, kMax)},
            {"from INT_MAX to INT_MIN", corners(kMax, kMax, kMin, kMin)},
            {"at INT_MIN", corners(kMin, kMin, kMin + kWidth - 1, kMin + kHeight - 1)},
            {"at INT_MAX", corners(kMax - kWidth + 1, kMax - kHeight + 1, kMax, kMax)},
            {"from INT_MIN to -1", corners(kMin, kMin, -1, -1)}};
}

std::vector<NamedValue> sizes()
{
    return {{"none", QSize()},        {"0x0", QSize(0, 0)},           {"0x16", QSize(0, 16)},
            {"-1x-1", QSize(-1, -1)}, {"INT_MIN", QSize(kMin, kMin)}, {"INT_MAX", QSize(kMax, kMax)},
            {"wide", QSize(kMax, 1)}, {"high", QSize(1, kMax)},       {"no size", text("x")}};
}

template <typename Vector>
std::vector<NamedValue> vectors()
{
    std::vector<NamedValue> values;
    for (const auto &[name, number] : floats()) {
        Vector all, first;
        for (int i = 0; i < int(sizeof(Vector) / sizeof(float)); ++i)
            all[i] = number.toFloat();
        first[0] = number.toFloat();
        values.push_back({name, QVariant::fromValue(all)});
        values.push_back({name + " in x", QVariant::fromValue(first)});
    }
    return values;
}

std::vector<NamedValue> matrices()
{
    std::vector<NamedValue> values;
    for (const float number : {kNan, kInfinity, 0.0f, kDenormal, kHuge}) {
        QMatrix4x4 all, one, diagonal;
        all.fill(number);
        one(1, 2) = number;
        diagonal.scale(number);
        const std::string name = std::to_string(double(number));
        values.push_back({"all " + name, all});
        values.push_back({"one " + name, one});
        values.push_back({"diagonal " + name, diagonal});
    }
    return values;
}

std::vector<NamedValue> colors()
{
    return {{"none", QColor()}, {"clear", QColor(0, 0, 0, 0)}, {"bright", QColor::fromRgbF(30.0f, -2.0f, 1.0f)}};
}

bool isNumber(const InputRow &input, const char *name)
{
    return qstrcmp(input.name, name) == 0;
}

std::vector<NamedValue> worst(const InputRow &input)
{
    if (isNumber(input, "Kvo_QVariant_Rects"))
        return rectangles();
    switch (input.type.id()) {
    case QMetaType::Float: return floats();
    case QMetaType::Int: return integers();
    case QMetaType::QRect: return rectangles();
    case QMetaType::QSize: return sizes();
    case QMetaType::QVector2D: return vectors<QVector2D>();
    case QMetaType::QVector3D: return vectors<QVector3D>();
    case QMetaType::QMatrix4x4: return matrices();
    case QMetaType::QColor: return colors();
    default: return {};
    }
}

// The value of a slot that still is sense, where one costs more than the right one.
QVariant mostSane(const InputRow &input, const QVariant &right)
{
    const std::pair<const char *, QVariant> table[] = {
        {"Kvo_QRect_Viewport", QRect(0, 0, kSide, kSide)},
        {"Kvo_float_BlurRadius", float(kTaps - 1)},
        {"Kvo_float_ResolutionDivider", float(kHeight) / float(kSide)},
        {"Kvo_Float_ViewportScale", float(kHeight) / float(kSide)},
        {"Kvo_float_SaoNumSamples", float(kObscuranceTaps)},
        {"Kvo_QSize_MapSize", QSize(kSide, kSide)},
    };
    for (const auto &[name, value] : table)
        if (isNumber(input, name))
            return value;
    return right;
}

// Whether something is said about a value.
bool isReported(const PassRow &row, const InputRow &input, const QVariant &value)
{
    const bool toScreen = qstrcmp(row.className, "TextureToScreenRenderPass") == 0;
    if (toScreen && value.metaType() == QMetaType(QMetaType::QRect)) {
        const QRect rect = value.toRect();
        const int corners[] = {rect.left(), rect.top(), rect.right(), rect.bottom()};
        return std::any_of(std::begin(corners), std::end(corners),
                           [](int c) { return c > kFarthestCorner || c < -kFarthestCorner; });
    }
    if (isNumber(input, "Kvo_QRect_Viewport")) {
        const QRect rect = value.toRect();
        const double width = double(rect.right()) - rect.left() + 1;
        const double height = double(rect.bottom()) - rect.top() + 1;
        return width > kPossible || height > kPossible;
    }
    const float number = value.toFloat();
    const bool isNan = std::isnan(number);
    if (isNumber(input, "Kvo_float_BlurRadius"))
        return isNan || number > float(kTaps - 1);
    if (isNumber(input, "Kvo_float_ResolutionDivider")) {
        const bool least = qstrcmp(row.className, "GaussianBlurRenderPass") == 0;
        // The one is at least 0.01, which is a hundred times the viewport; the other takes 0 as 1.
        return isNan || (least ? number < 0.01f : number > 0 && number < 0.01f);
    }
    if (isNumber(input, "Kvo_Float_ViewportScale"))
        return isNan || (number > 0 && number < 0.01f);
    if (isNumber(input, "Kvo_float_SaoNumSamples"))
        return isNan || std::abs(number) > kObscuranceTaps;
    if (isNumber(input, "Kvo_float_SaoNumLogMaxOffset"))
        return isNan || std::abs(number) > 1000;
    if (isNumber(input, "Kvo_float_SaoNumSpiralTurns"))
        return isNan || std::abs(number) > 65536;
    if (isNumber(input, "Kvo_QSize_MapSize")) {
        const QSize size = value.toSize();
        return size.isEmpty() || size.width() > kPossible || size.height() > kPossible;
    }
    if (isNumber(input, "Kvo_int_StencilMaterial"))
        return value.toInt() > 254;
    if (isNumber(input, "Kvo_int_NodeBufferWidth"))
        return value.toInt() < 0 || value.toInt() > 65536;
    return false;
}

bool isAlmost(float a, float b)
{
    if (std::isnan(a) || std::isnan(b))
        return std::isnan(a) == std::isnan(b);
    return a == b || std::abs(a - b) <= 1e-3f * std::max(1.0f, std::abs(b));
}

// What a pass hands out, as far as it is the same in every frame.
struct Picture
{
    QString name;
    TexturePixels pixels;
    QVariant number;
};

std::vector<Picture> picturesOf(const RenderPass &pass)
{
    std::vector<Picture> pictures;
    for (int i = 0; i < pass.numOutputs(); ++i) {
        const QVariant value = pass.output(i);
        Picture picture{pass.outputName(i), {}, {}};
        QString error;
        if (const ShadowMapRenderData *record = ShadowMapRenderData::fromVariant(value)) {
            EXPECT_TRUE(readShadowMaps(record, &picture.pixels, &error)) << qPrintable(error);
        } else if (Texture *texture = textureFromVariant(value)) {
            // The nodes lie in the order in which fragments came, and are a quarter of a gigabyte.
            if (picture.name.contains(text("NodeBuffer")))
                continue;
            EXPECT_TRUE(readTexture(texture, &picture.pixels, &error)) << qPrintable(error);
            for (quint32 &head : picture.pixels.integers)
                head = std::min(head, 1u);
        } else if (value.metaType() == QMetaType(QMetaType::Float)) {
            picture.number = value;
        } else {
            continue;
        }
        pictures.push_back(picture);
    }
    return pictures;
}

void expectSame(const std::vector<Picture> &actual, const std::vector<Picture> &expected)
{
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i) {
        const TexturePixels &a = actual[i].pixels, &b = expected[i].pixels;
        ASSERT_EQ(a.width, b.width) << qPrintable(actual[i].name);
        ASSERT_EQ(a.height, b.height) << qPrintable(actual[i].name);
        EXPECT_TRUE(std::equal(a.values.begin(), a.values.end(), b.values.begin(), b.values.end(), isAlmost))
            << qPrintable(actual[i].name);
        EXPECT_EQ(a.integers, b.integers) << qPrintable(actual[i].name);
        EXPECT_TRUE(isAlmost(actual[i].number.toFloat(), expected[i].number.toFloat())) << qPrintable(actual[i].name);
    }
}

} // namespace

namespace Brevane::Kvo::Test {

void PrintTo(const PassRow &row, std::ostream *stream)
{
    *stream << row.className;
}

} // namespace Brevane::Kvo::Test

namespace {

class EveryNumber : public NumbersTest, public ::testing::WithParamInterface<PassRow>
{
protected:
    void SetUp() override
    {
        NumbersTest::SetUp();
        values = std::make_unique<Values>();
    }

    void TearDown() override
    {
        pass.reset();
        values.reset();
        NumbersTest::TearDown();
    }

    QVariant right(const InputRow &input)
    {
        // So that the pass accumulates, rather than hand its input on.
        if (qstrcmp(GetParam().className, "TemporalAARenderPass") == 0 && isNumber(input, "Kvo_bool_Dirty"))
            return false;
        return values->right(input);
    }

    void makePass()
    {
        pass = passFactory().make(text(GetParam().className));
        ASSERT_TRUE(pass);
        for (int i = 0; i < pass->numInputs(); ++i)
            pass->setInput(i, right(GetParam().inputs[size_t(i)]));
        pass->setup(nullptr);
        settle();
    }

    // Past what differs between the first frames: a restart, histories.
    void settle()
    {
        for (int frame = 0; frame < 3; ++frame)
            runFrame(*pass);
    }

    int said(const MessageCapture &messages, const InputRow &input) const
    {
        return messages.containing(
            QStringLiteral("%1: %2 ").arg(QLatin1StringView(GetParam().className), QLatin1StringView(input.name)));
    }

    std::unique_ptr<Values> values;
    std::unique_ptr<RenderPass> pass;
};

std::vector<PassRow> rowsWithNumbers()
{
    std::vector<PassRow> rows;
    for (const PassRow &row : passTable())
        if (std::any_of(row.inputs.begin(), row.inputs.end(), [](const InputRow &i) { return !worst(i).empty(); }))
            rows.push_back(row);
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Passes, EveryNumber, ::testing::ValuesIn(rowsWithNumbers()),
                         [](const auto &row) { return std::string(row.param.className); });

int slotsTried = 0;
int valuesTried = 0;

} // namespace

TEST_P(EveryNumber, AtItsWorstHarmsNothingAndTheNextSaneFrameIsRight)
{
    makePass();
    const std::vector<Picture> reference = picturesOf(*pass);
    TextureManager &manager = TextureManager::Instance();
    for (int slot = 0; slot < pass->numInputs(); ++slot) {
        const InputRow &input = GetParam().inputs[size_t(slot)];
        const std::vector<NamedValue> candidates = worst(input);
        if (candidates.empty())
            continue;
        ++slotsTried;
        pass->setInput(slot, mostSane(input, right(input)));
        runFrame(*pass);
        const double sane = std::min(secondsOfFrame(*pass), secondsOfFrame(*pass));
        manager.trim(-1);
        runFrame(*pass);
        const qint64 saneBytes = manager.statistics().bytes;
        const qint64 resident = residentBytes();

        for (const NamedValue &candidate : candidates) {
            ++valuesTried;
            const ::testing::ScopedTrace trace(__FILE__, __LINE__, candidate.name + " in " + input.name);
            manager.trim(-1);
            MessageCapture messages;
            pass->setInput(slot, candidate.value);
            EXPECT_LT(secondsOfFrame(*pass), std::max(kFirstFrame, 2 * sane));
            EXPECT_LT(secondsOfFrame(*pass), std::max(kAnyFrame, 2 * sane));
            EXPECT_LE(manager.statistics().bytes, 2 * saneBytes + kMegabyte);
            EXPECT_EQ(pass->errorCode(), 0u);
            EXPECT_EQ(said(messages, input), isReported(GetParam(), input, candidate.value) ? 1 : 0)
                << qPrintable(messages.texts().join(u'\n'));
            for (const QString &message : messages.texts(QtCriticalMsg))
                EXPECT_TRUE(message.startsWith(text("Shadows: "))) << qPrintable(message);
            EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));

            pass->setInput(slot, right(input));
            settle();
            expectSame(picturesOf(*pass), reference);
            EXPECT_EQ(pass->errorCode(), 0u);
            if (HasFatalFailure())
                return;
        }
        EXPECT_TRUE(kIsSanitized || residentBytes() - resident < 300 * kMegabyte)
            << input.name << " took " << (residentBytes() - resident) / kMegabyte << " MB";
    }
    RecordProperty("slots", slotsTried);
    RecordProperty("values", valuesTried);
    pass->teardown(nullptr);
    pass->teardownContextData(nullptr);
}
