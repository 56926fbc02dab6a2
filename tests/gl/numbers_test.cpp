#include "support/gltest.h"
#include "support/hostpasses.h"
#include "support/imagefiles.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/passtable.h"
#include "support/passvalues.h"
#include "support/resident.h"

#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/texturemanager.h>
#include <host/imageoutput.h>
#include <host/passfactory.h>
#include <host/pipeline.h>
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
#include <QImage>
#include <QSizeF>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <ostream>
#include <random>

// What a host may put into a slot by mistake: every number of every pass, the host's too, at its worst.

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
        const GlCalls::ForcedInteger side(GL_MAX_VIEWPORT_DIMS, kSide);
        ASSERT_EQ(OpenGLDeviceContext::current()->limits().targetWidth, kSide);
        ASSERT_EQ(OpenGLDeviceContext::current()->limits().targetHeight, kSide);
    }
};

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
    // Without fragment lists there is nothing to sort, and no number is read.
    if (qstrcmp(row.className, "VisibilitySortRenderPass") == 0 && !hasGLExtension("ARB_shader_image_load_store"))
        return false;
    const bool toScreen = qstrcmp(row.className, "TextureToScreenRenderPass") == 0;
    if (toScreen && value.metaType() == QMetaType(QMetaType::QRect)) {
        const QRect rect = value.toRect();
        const int corners[] = {rect.left(), rect.top(), rect.right(), rect.bottom()};
        return std::any_of(std::begin(corners), std::end(corners),
                           [](int c) { return c > kFarthestCorner || c < -kFarthestCorner; });
    }
    if (isNumber(input, "Kvo_QRect_Viewport")) {
        if (qstrcmp(row.className, "PickPass") == 0 || qstrcmp(row.className, "CameraJitterPass") == 0)
            return false; // the one has targets of its area only, the other none
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
    if (isNumber(input, "Kvo_int_Layers"))
        return value.toInt() < 0 || value.toInt() > 256;
    if (isNumber(input, "Kvo_float_Rotation") || isNumber(input, "Kvo_float_Intensity"))
        return !std::isfinite(number);
    if (isNumber(input, "Kvo_float_LightBleeding"))
        return !(number >= 0.0f && number <= 0.99f);
    if (isNumber(input, "Kvo_float_MinimumVariance"))
        return !(number >= 0.0f && number <= 1.0f);
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
        // Of glass, which it draws.
        if (qstrcmp(GetParam().className, "DepthPeelingPass") == 0 && input.type == QMetaType::fromType<GPUModel *>())
            return QVariant::fromValue(&values->glass());
        // Small, since it is read again for each wrong one.
        if (isNumber(input, "Kvo_QString_Source"))
            return text("night");
        return values->right(input);
    }

    void makePass()
    {
        pass = barePass(caseOf(GetParam().className));
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

// Of both sides, with the slot that a host adds where there is hardly any.
std::vector<PassRow> rowsOfAll()
{
    std::vector<PassRow> rows = passTable();
    rows.insert(rows.end(), hostPassTable().begin(), hostPassTable().end());
    for (PassRow &row : rows)
        if (isShaderOfHost(row.className))
            row.inputs.push_back({"Kvo_KvoTexture*_Input", QMetaType::fromType<Texture *>()});
    return rows;
}

std::vector<PassRow> rowsWithNumbers()
{
    std::vector<PassRow> rows;
    for (const PassRow &row : rowsOfAll())
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

namespace {

// What a host may put into a slot by mistake that is no number of the slot's type: values of every type that
// there is, and objects of the right class in a state, or of a kind, that no slot is for.
class Strangers
{
public:
    Strangers()
    {
        cube.setTarget(GL_TEXTURE_CUBE_MAP);
        specify(cube, GL_TEXTURE_CUBE_MAP, [] {
            for (GLenum face = 0; face < 6; ++face)
                glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 2, 2, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                             nullptr);
        });
        layers.setTarget(GL_TEXTURE_2D_ARRAY);
        specify(layers, GL_TEXTURE_2D_ARRAY,
                [] { glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, GL_RGBA8, 4, 4, 3, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr); });
        volume.setTarget(GL_TEXTURE_3D);
        specify(volume, GL_TEXTURE_3D,
                [] { glTexImage3D(GL_TEXTURE_3D, 0, GL_RGBA8, 4, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr); });
        integers = makeTexture(GL_R32UI, 4, 4, static_cast<const quint32 *>(nullptr));
        depth = makeTexture(GL_DEPTH_COMPONENT32F, 3, 5, static_cast<const float *>(nullptr));
        blank.setTarget(GL_TEXTURE_2D);
        specify(blank, GL_TEXTURE_2D, [] {});
        samples.setTarget(GL_TEXTURE_2D_MULTISAMPLE);
        specify(samples, GL_NONE,
                [] { glTexImage2DMultisample(GL_TEXTURE_2D_MULTISAMPLE, 4, GL_RGBA8, kWidth, kHeight, GL_TRUE); });
        noNumbers = makeTexture(Image<float>(kWidth, kHeight, {kNan, kInfinity, -kInfinity, kNan}));
        // What is read as any picture, and cannot be drawn to.
        exponents.setTarget(GL_TEXTURE_2D);
        specify(exponents, GL_TEXTURE_2D,
                [] { glTexImage2D(GL_TEXTURE_2D, 0, GL_RGB9_E5, kWidth, kHeight, 0, GL_RGB, GL_FLOAT, nullptr); });
        compressed.setTarget(GL_TEXTURE_2D);
        specify(compressed, GL_TEXTURE_2D, [] {
            glTexImage2D(GL_TEXTURE_2D, 0, GL_COMPRESSED_RED_RGTC1, kWidth, kHeight, 0, GL_RED, GL_UNSIGNED_BYTE,
                         nullptr);
        });
        auto dead = std::make_unique<Texture>();
        AutoBinder(dead.get());
        gone = textureToVariant(dead.get());
        auto deadModel = std::make_unique<GPUModel>();
        goneModel = QVariant::fromValue(deadModel.get());
    }

    std::vector<NamedValue> all()
    {
        const QVariant nan = qQNaN();
        ShadowMapLight light = ShadowMapLight::spot({kNan, kInfinity, 0}, {0, 0, 0}, kNan, -kInfinity);
        light.cascades = kMin;
        ShadowMapLight many = ShadowMapLight::directional({0, 0, 0}, kMax);
        ShadowMapLight none = ShadowMapLight::point({kHuge, kHuge, kHuge}, kHuge);
        none.type = ShadowMapLight::Type(77);
        QVariantList nested{nan, text("x"), QVariant()};
        for (int i = 0; i < 50; ++i)
            nested = {QVariant(nested)};
        return {{"nothing", {}},
                {"a long text", QString(100000, u'x')},
                {"no text", QString()},
                {"a text with a zero", QString(QChar(0)) + text("a")},
                {"a folder", text("/")},
                {"a device that never ends", text("/dev/zero")},
                {"a device that never begins", text("/dev/tty")},
                {"an address", text("http://127.0.0.1:9/x.png")},
                {"bytes", QByteArray("1e400")},
                {"NaN", nan},
                {"1e308", 1e308},
                {"a long integer", std::numeric_limits<qlonglong>::min()},
                {"an unsigned integer", ~0u},
                {"a list of nothing", QVariantList{{}, {}, {}}},
                {"a nested list", nested},
                {"a long list", QVariantList(100000, QVariant(1))},
                {"a map", QVariantHash{{text("x"), 1}}},
                {"texts", QStringList{text("1"), text("2")}},
                {"a rectangle of numbers", QRectF(qQNaN(), 1e300, -1e300, qInf())},
                {"a size of numbers", QSizeF(qQNaN(), 1e300)},
                {"an image", QImage(4, 4, QImage::Format_Grayscale8)},
                {"no image", QImage()},
                {"nullptr", QVariant::fromValue(nullptr)},
                {"a pointer", QVariant::fromValue(static_cast<void *>(this))},
                {"a foreign object", QVariant::fromValue<QObject *>(&foreign)},
                {"no object", QVariant::fromValue<QObject *>(nullptr)},
                {"no texture", QVariant::fromValue<Texture *>(nullptr)},
                {"no model", QVariant::fromValue<GPUModel *>(nullptr)},
                {"no geometry", QVariant::fromValue<DrawBuffers *>(nullptr)},
                {"no framebuffer", QVariant::fromValue<FramebufferObject *>(nullptr)},
                {"an empty texture", textureToVariant(&empty)},
                {"a typed empty texture", QVariant::fromValue(&empty)},
                {"a texture without an image", textureToVariant(&blank)},
                {"samples", textureToVariant(&samples)},
                {"a cube map", textureToVariant(&cube)},
                {"a texture with layers", textureToVariant(&layers)},
                {"a volume", textureToVariant(&volume)},
                {"integers", textureToVariant(integers.get())},
                {"a depth", textureToVariant(depth.get())},
                {"a picture of no numbers", textureToVariant(noNumbers.get())},
                {"a picture with shared exponents", textureToVariant(&exponents)},
                {"a compressed picture", textureToVariant(&compressed)},
                {"a texture that is gone", gone},
                {"an empty model", QVariant::fromValue(&model)},
                {"a model that is gone", goneModel},
                {"empty geometry", QVariant::fromValue(&geometry)},
                {"empty geometry as an object", QVariant::fromValue<QObject *>(&geometry)},
                {"an empty framebuffer", framebufferToVariant(&framebuffer)},
                {"textures in a list",
                 QVariantList{textureToVariant(&cube), gone, QVariant::fromValue<QObject *>(&foreign)}},
                {"lights that are none", QVariantList{QVariant::fromValue(light), QVariant::fromValue(many),
                                                      QVariant::fromValue(none), nan, gone}},
                {"rectangles in a list", QVariantList{QRect(0, 0, kMax, kMax), QRect(), nan, text("x")}}};
    }

private:
    template <typename Specify>
    static void specify(Texture &texture, GLenum target, Specify &&image)
    {
        const AutoBinder bound(&texture);
        image();
        if (target != GL_NONE)
            glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    }

    QObject foreign;
    Texture empty, blank, samples, cube, layers, volume, exponents, compressed;
    std::unique_ptr<Texture> integers, depth, noNumbers;
    GPUModel model;
    DrawBuffers geometry;
    FramebufferObject framebuffer;
    QVariant gone, goneModel;
};

class EverySlot : public EveryNumber
{
protected:
    // One keeps a mean of all frames of a view, those that it was given by mistake too.
    void restart()
    {
        if (qstrcmp(GetParam().className, "TemporalAARenderPass") != 0)
            return;
        int dirty = 0;
        while (!isNumber(GetParam().inputs[size_t(dirty)], "Kvo_bool_Dirty"))
            ++dirty;
        pass->setInput(dirty, true);
        runFrame(*pass);
        pass->setInput(dirty, false);
    }
};

// All but the base class, which has no slots.
std::vector<PassRow> rowsWithSlots()
{
    std::vector<PassRow> rows = rowsOfAll();
    std::erase_if(rows, [](const PassRow &row) { return row.inputs.empty(); });
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Passes, EverySlot, ::testing::ValuesIn(rowsWithSlots()),
                         [](const auto &row) { return std::string(row.param.className); });

} // namespace

TEST_P(EverySlot, TakesStrangersAndTheNextSaneFrameIsRight)
{
    makePass();
    const std::vector<Picture> reference = picturesOf(*pass);
    Strangers strangers;
    for (int slot = 0; slot < pass->numInputs(); ++slot) {
        const InputRow &input = GetParam().inputs[size_t(slot)];
        for (const NamedValue &stranger : strangers.all()) {
            const ::testing::ScopedTrace trace(__FILE__, __LINE__, stranger.name + " in " + input.name);
            const MessageCapture messages;
            pass->setInput(slot, stranger.value);
            EXPECT_LT(secondsOfFrame(*pass), kFirstFrame);
            runFrame(*pass);
            EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
        }
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, input.name);
        pass->setInput(slot, right(input));
        restart();
        settle();
        expectSame(picturesOf(*pass), reference);
        if (HasFatalFailure())
            return;
    }
    pass->teardown(nullptr);
    pass->teardownContextData(nullptr);
}

// What harms nothing alone may do so with others: any values in any slots, and objects that are not there.
TEST_P(EverySlot, TakesAnyMixtureAndTheNextSaneFrameIsRight)
{
    makePass();
    const std::vector<Picture> reference = picturesOf(*pass);
    Strangers strangers;
    const std::vector<NamedValue> all = strangers.all();
    std::mt19937 random(7);
    const auto below = [&random](size_t count) { return size_t(random() % count); };
    // Whose maps are computed anew in each, and whose shader does most for a pixel.
    const bool isSlow = qstrcmp(GetParam().className, "EnvironmentPass") == 0
                        || qstrcmp(GetParam().className, "ShadowLightingPass") == 0;
    for (int round = 0; round < (kIsSanitized || isSlow ? 15 : 60) && pass->numInputs() > 0; ++round) {
        std::string mixture = "round " + std::to_string(round);
        const MessageCapture messages;
        for (int slot = 0; slot < pass->numInputs(); ++slot) {
            const InputRow &input = GetParam().inputs[size_t(slot)];
            const std::vector<NamedValue> numbers = worst(input);
            const size_t kind = below(4);
            const bool isNumber = kind == 1 && !numbers.empty();
            if (kind > 1)
                continue;
            const NamedValue &value = isNumber ? numbers[below(numbers.size())] : all[below(all.size())];
            mixture += "; " + value.name + " in " + input.name;
            pass->setInput(slot, value.value);
        }
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, mixture);
        EXPECT_LT(secondsOfFrame(*pass), kFirstFrame);
        runFrame(*pass);
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
        for (int slot = 0; slot < pass->numInputs(); ++slot)
            pass->setInput(slot, right(GetParam().inputs[size_t(slot)]));
        restart();
        settle();
        expectSame(picturesOf(*pass), reference);
        TextureManager::Instance().trim(-1);
        if (HasFatalFailure())
            return;
    }
    pass->teardown(nullptr);
    pass->teardownContextData(nullptr);
}

TEST(NumbersTable, HasThisManySlotsAndValues)
{
    int slotCount = 0;
    int valueCount = 0;
    for (const PassRow &row : rowsOfAll())
        for (const InputRow &input : row.inputs)
            if (const size_t count = worst(input).size(); count > 0) {
                ++slotCount;
                valueCount += int(count);
            }
    EXPECT_EQ(slotCount, 135);
    EXPECT_EQ(valueCount, 1666);
}

namespace {

// Runs in a context of its own, whose limits are the driver's.
void inAContextOfItsOwn(GLContext &main, const std::function<void()> &run)
{
    GLContext other;
    ASSERT_TRUE(other.makeCurrent()) << qPrintable(other.error());
    run();
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(main.makeCurrent());
}

// In its scope a driver says that it has no room for images that it is asked about.
class NoRoom
{
public:
    NoRoom() : _real(epoxy_glGetTexLevelParameteriv)
    {
        real() = _real;
        epoxy_glGetTexLevelParameteriv = [](GLenum target, GLint level, GLenum name, GLint *value) {
            if (target == GL_PROXY_TEXTURE_2D || target == GL_PROXY_TEXTURE_2D_ARRAY)
                *value = 0;
            else
                real()(target, level, name, value);
        };
    }
    ~NoRoom() { epoxy_glGetTexLevelParameteriv = _real; }
    NoRoom(const NoRoom &) = delete;
    NoRoom &operator=(const NoRoom &) = delete;

private:
    static PFNGLGETTEXLEVELPARAMETERIVPROC &real()
    {
        static PFNGLGETTEXLEVELPARAMETERIVPROC function = nullptr;
        return function;
    }
    PFNGLGETTEXLEVELPARAMETERIVPROC _real;
};

// In its scope the error flag says that memory ran out.
class OutOfMemory
{
public:
    OutOfMemory() : _real(epoxy_glGetError)
    {
        epoxy_glGetError = [] { return GLenum(GL_OUT_OF_MEMORY); };
    }
    ~OutOfMemory() { epoxy_glGetError = _real; }
    OutOfMemory(const OutOfMemory &) = delete;
    OutOfMemory &operator=(const OutOfMemory &) = delete;

private:
    PFNGLGETERRORPROC _real;
};

QSize sizeOfOutput(const RenderPass &pass)
{
    const TextureState state = stateOf(textureFromVariant(pass.output(0)));
    return {state.width, state.height};
}

QSize gradientOf(GradientRenderPass &pass, const QRect &viewport)
{
    pass.setInput(0, viewport);
    runFrame(pass);
    return sizeOfOutput(pass);
}

Image<float> imageOf(RenderPass &pass)
{
    runFrame(pass);
    return readTexture<float>(textureFromVariant(pass.output(0)));
}

QRect corners(int left, int top, int right, int bottom)
{
    return QRect(QPoint(left, top), QPoint(right, bottom));
}

} // namespace

TEST_F(NumbersTest, AViewportBeyondTheDriverIsCutToItsLimitAndThatIsSaidOnce)
{
    inAContextOfItsOwn(context(), [] {
        const GLLimits limits = OpenGLDeviceContext::current()->limits();
        const MessageCapture messages;
        GradientRenderPass pass;
        for (int frame = 0; frame < 3; ++frame)
            EXPECT_EQ(gradientOf(pass, QRect(0, 0, 2000000000, 4)), QSize(limits.targetWidth, 4));
        const QString said = QStringLiteral("GradientRenderPass: Kvo_QRect_Viewport asks for 2000000000x4 pixels, and "
                                            "this driver has %1x%2; %1x4 are used")
                                 .arg(limits.targetWidth)
                                 .arg(limits.targetHeight);
        EXPECT_EQ(messages.texts(), QStringList(said));
        EXPECT_EQ(gradientOf(pass, QRect(0, 0, 3, 4)), QSize(3, 4));
        EXPECT_EQ(gradientOf(pass, QRect(0, 0, 2000000000, 4)), QSize(limits.targetWidth, 4));
        EXPECT_EQ(messages.texts(), QStringList({said, said})) << "again, since it was in range between";
    });
}

TEST_F(NumbersTest, LimitsAreThoseOfTheDriverAndNoneOnceTheContextIsReleased)
{
    QSharedPointer<OpenGLDeviceContext> device;
    inAContextOfItsOwn(context(), [&device] {
        device = OpenGLDeviceContext::current();
        GLint side = 0, layers = 0, components = 0;
        glGetIntegerv(GL_MAX_TEXTURE_SIZE, &side);
        glGetIntegerv(GL_MAX_ARRAY_TEXTURE_LAYERS, &layers);
        glGetIntegerv(GL_MAX_FRAGMENT_UNIFORM_COMPONENTS, &components);
        EXPECT_EQ(device->limits().textureSide, side);
        EXPECT_LE(device->limits().targetWidth, side);
        EXPECT_EQ(device->limits().arrayLayers, layers);
        EXPECT_EQ(device->limits().fragmentUniforms, components);
        const GlCalls calls;
        EXPECT_EQ(device->limits().textureSide, side);
        EXPECT_TRUE(calls.all().empty()) << "asked once";
    });
    EXPECT_EQ(device->limits().textureSide, 0);
}

TEST_F(NumbersTest, PartsOfAViewportThatIsNoneAreRectanglesToo)
{
    const MessageCapture messages;
    QString error;
    Pipeline pipeline;
    ASSERT_TRUE(pipeline.add(text("A"), std::make_unique<GradientRenderPass>(), &error)) << qPrintable(error);
    ASSERT_TRUE(pipeline.bind(text("A"), text("Viewport"), text("viewport[-1000, 0.5, 1000, 1000]"), &error))
        << qPrintable(error);
    for (const QRect &viewport : {corners(kMin, kMin, kMax, kMax), corners(kMax - 9, kMax - 9, kMax, kMax),
                                  corners(kMin, kMin, kMin + 9, kMin + 9)}) {
        pipeline.setViewport(viewport);
        EXPECT_TRUE(pipeline.render(nullptr, &error)) << qPrintable(error);
        const auto *texture = textureFromVariant(pipeline.output(text("A"), text("Frame")));
        EXPECT_LE(stateOf(texture).width, 10000);
    }
}

TEST_F(NumbersTest, ATargetThatIsCutHasFourMillionTexelsAtMost)
{
    inAContextOfItsOwn(context(), [] {
        const MessageCapture messages;
        GradientRenderPass pass;
        const QSize size = gradientOf(pass, corners(kMin, kMin, kMax, kMax));
        EXPECT_GT(size.width() * size.height(), 3900000);
        EXPECT_LE(size.width() * size.height(), 1 << 22);
        EXPECT_EQ(messages.texts().size(), 1);
    });
}

TEST_F(NumbersTest, SidesWithinTheDriversLimitsAreNotTouched)
{
    inAContextOfItsOwn(context(), [] {
        const GLLimits limits = OpenGLDeviceContext::current()->limits();
        const MessageCapture messages;
        GradientRenderPass pass;
        EXPECT_EQ(gradientOf(pass, QRect(0, 0, limits.targetWidth, 3)), QSize(limits.targetWidth, 3));
        EXPECT_EQ(gradientOf(pass, QRect(0, 0, 3, limits.targetHeight)), QSize(3, limits.targetHeight));
        EXPECT_EQ(messages.texts(), QStringList());
    });
}

TEST_F(NumbersTest, CornersAsFarApartAsIntsCanBeAreMeasuredWithoutOverflow)
{
    const MessageCapture messages;
    GradientRenderPass pass;
    EXPECT_EQ(gradientOf(pass, corners(kMin, kMin, kMax, kMax)), QSize(kSide, kSide));
    EXPECT_EQ(gradientOf(pass, corners(kMax, kMax, kMin, kMin)), QSize(0, 0));
    EXPECT_EQ(gradientOf(pass, corners(kMax - 15, kMax - 11, kMax, kMax)), QSize(16, 12));
    EXPECT_EQ(gradientOf(pass, corners(kMin, kMin, kMin + 15, kMin + 11)), QSize(16, 12));
    EXPECT_EQ(gradientOf(pass, corners(kMin, 0, -1, 1)), QSize(kSide, 2));
}

TEST_F(NumbersTest, TheJitterOfAViewportBeyondAllLimitsIsAPartOfItsPixel)
{
    const MessageCapture messages;
    CameraJitterPass pass;
    pass.setInput(0, corners(kMin, kMin, kMax, kMax));
    runFrame(pass);
    const auto matrix = qvariant_cast<QMatrix4x4>(pass.output(0));
    constexpr double kAll = double(kMax) - kMin + 1;
    EXPECT_EQ(matrix(0, 3), float(0.5 / kAll));
    EXPECT_EQ(matrix(1, 3), float(-0.5 / kAll));
}

TEST_F(NumbersTest, ThePoolRefusesWhatTheDriverHasNoRoomForAndCountsWhatItHas)
{
    TextureManager &manager = TextureManager::Instance();
    manager.trim(-1);
    const qint64 before = manager.statistics().bytes;
    const MessageCapture messages;
    const std::pair<int, int> impossible[] = {{2000000000, 7}, {7, 2000000000}, {kMax, kMax}};
    for (const auto &[width, height] : impossible) {
        for (int frame = 0; frame < 3; ++frame) {
            Texture *texture = manager.tempTexture(TextureFormat::Frame, width, height);
            ASSERT_NE(texture, nullptr);
            EXPECT_EQ(stateOf(texture).width, 1);
            EXPECT_EQ(stateOf(texture).height, 1);
            manager.releaseTempTextureRef(texture, 1);
        }
    }
    EXPECT_EQ(manager.statistics().bytes - before, 8) << "one texel, taken again and again";
    EXPECT_EQ(messages.texts(),
              QStringList({text("A texture of 2000000000x7 in GL format 0x881a is more than the driver has room for; a "
                                "single texel stands in"),
                           text("A texture of 7x2000000000 in GL format 0x881a is more than the driver has room for; a "
                                "single texel stands in"),
                           text("A texture of 2147483647x2147483647 in GL format 0x881a is more than the driver has "
                                "room for; a single texel stands in")}));
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}

TEST_F(NumbersTest, WithoutMemoryForATargetNoErrorIsLeftAndTheNextFrameTriesAgain)
{
    inAContextOfItsOwn(context(), [] {
        const MessageCapture messages;
        GradientRenderPass pass;
        GaussianBlurRenderPass blur;
        blur.setInput(2, 2.0f);
        const auto blurred = [&](const QRect &viewport) {
            blur.setInput(0, viewport);
            runFrame(blur);
            return sizeOfOutput(blur);
        };
        {
            const NoRoom noRoom;
            EXPECT_EQ(gradientOf(pass, QRect(0, 0, 1100, 8)), QSize(1, 1));
            EXPECT_EQ(blurred(QRect(0, 0, 1100, 8)), QSize(1, 1));
            EXPECT_EQ(gradientOf(pass, QRect(0, 0, 64, 8)), QSize(64, 8)) << "what every driver has is not asked for";
        }
        EXPECT_EQ(gradientOf(pass, QRect(0, 0, 1100, 8)), QSize(1100, 8));
        EXPECT_EQ(blurred(QRect(0, 0, 1100, 8)), QSize(1100, 8));
        {
            const OutOfMemory outOfMemory;
            EXPECT_EQ(gradientOf(pass, QRect(0, 0, 2048, 2048)), QSize(1, 1));
        }
        EXPECT_EQ(messages.containing(text("is more than the driver has room for; a single texel stands in")), 4)
            << qPrintable(messages.texts().join(u'\n'));
    });
}

TEST_F(NumbersTest, AnErrorOfTheHostsStaysInTheFlagWhileTargetsAreMade)
{
    const ExpectedGLErrors errors;
    glEnable(GL_TEXTURE_2D_ARRAY); // no capability
    GradientRenderPass pass;
    EXPECT_EQ(gradientOf(pass, QRect(0, 0, kSide, kSide)), QSize(kSide, kSide));
    EXPECT_EQ(glGetError(), GLenum(GL_INVALID_ENUM));
}

TEST_P(EveryNumber, SurvivesADriverWithoutRoom)
{
    inAContextOfItsOwn(context(), [] {
        MessageCapture messages;
        {
            Values given;
            std::unique_ptr<RenderPass> refused = barePass(caseOf(GetParam().className));
            for (int i = 0; i < refused->numInputs(); ++i)
                refused->setInput(i, given.right(GetParam().inputs[size_t(i)]));
            for (int i = 0; i < refused->numInputs(); ++i) {
                if (isNumber(GetParam().inputs[size_t(i)], "Kvo_QRect_Viewport"))
                    refused->setInput(i, QRect(0, 0, 1100, 8));
                if (isNumber(GetParam().inputs[size_t(i)], "Kvo_QSize_MapSize"))
                    refused->setInput(i, QSize(1100, 8));
            }
            const NoRoom noRoom;
            refused->setup(nullptr);
            for (int frame = 0; frame < 3; ++frame)
                runFrame(*refused);
            EXPECT_EQ(refused->errorCode(), 0u);
            EXPECT_EQ(messages.count(QtCriticalMsg), 0) << qPrintable(messages.texts().join(u'\n'));
            refused.reset();
        }
    });
}

namespace {

// The three blurs, by the slots that they have in common.
struct BlurCase
{
    const char *className;
    int input; // the image that is blurred
    int output;
};

void PrintTo(const BlurCase &blur, std::ostream *stream)
{
    *stream << blur.className;
}

constexpr int kBlurRadius = 2;

class BlurRadius : public NumbersTest, public ::testing::WithParamInterface<BlurCase>
{
protected:
    void SetUp() override
    {
        NumbersTest::SetUp();
        Image<float> image(kWidth, kHeight);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                image.at(x, y) = {float(x % 3) / 2, float(y % 5) / 4, 0.5f, 1};
        source = makeTexture(image);
        pass = make();
    }
    void TearDown() override
    {
        pass.reset();
        source.reset();
        NumbersTest::TearDown();
    }

    std::unique_ptr<RenderPass> make() const
    {
        std::unique_ptr<RenderPass> blur = passFactory().make(text(GetParam().className));
        blur->setInput(0, kViewport);
        for (const int slot : {1, GetParam().input})
            blur->setInput(slot, textureToVariant(source.get()));
        if (qstrcmp(GetParam().className, "BlurAndCombineRenderPass") == 0)
            blur->setInput(4, 1.0f);
        return blur;
    }

    Image<float> blurred(float radius)
    {
        pass->setInput(kBlurRadius, radius);
        return imageOf(*pass);
    }

    Image<float> blurredByAnother(float radius) const
    {
        const std::unique_ptr<RenderPass> another = make();
        another->setInput(kBlurRadius, radius);
        return imageOf(*another);
    }

    std::unique_ptr<Texture> source;
    std::unique_ptr<RenderPass> pass;
};

INSTANTIATE_TEST_SUITE_P(Passes, BlurRadius,
                         ::testing::Values(BlurCase{"GaussianBlurRenderPass", 1, 0},
                                           BlurCase{"BlurAndCombineRenderPass", 5, 0},
                                           BlurCase{"StencilBlurAndBlendRenderPass", 3, 0}),
                         [](const auto &blur) { return std::string(blur.param.className); });

} // namespace

TEST_P(BlurRadius, BeyondTheTapsActsAsTheLargestAndSaysSoOnce)
{
    const MessageCapture messages;
    const Image<float> largest = blurred(float(kTaps - 1));
    EXPECT_EQ(messages.texts(), QStringList());
    for (const float radius : {float(kTaps), 1e9f, kInfinity, kHuge})
        EXPECT_TRUE(sameImage(blurred(radius), largest, within(0))) << radius;
    EXPECT_EQ(messages.texts(),
              QStringList(QStringLiteral("%1: Kvo_float_BlurRadius 512 is beyond 512 taps; 511 is used")
                              .arg(QLatin1StringView(GetParam().className))));
}

TEST_P(BlurRadius, BeyondTheTapsBuildsNoProgramWhileItChanges)
{
    const MessageCapture messages;
    blurred(1e9f);
    const GlCalls calls;
    for (const float radius : {2e9f, 3e9f, kInfinity})
        blurred(radius);
    EXPECT_EQ(calls.count("glCompileShader") + calls.count("glCreateProgram"), 0);
}

// The kernel has as many taps for all of them, so that only uniforms change.
TEST_P(BlurRadius, OfAsManyTapsKeepsItsProgramsAndBlursAsAPassThatHasItFromTheStart)
{
    const QVector<float> radii{2.25f, 2.1f, 2.5f, 2.4f};
    QList<Image<float>> fresh;
    for (const float radius : radii)
        fresh << blurredByAnother(radius);
    EXPECT_FALSE(isSameImage(fresh[1], fresh[2], within(0))) << "the radius is seen in the picture";
    const auto device = OpenGLDeviceContext::current();
    blurred(radii[0]);
    const int givenUp = device->givenUpCount();
    const GlCalls calls;
    for (qsizetype i = 0; i < radii.size(); ++i)
        EXPECT_TRUE(sameImage(blurred(radii[i]), fresh[i], within(0))) << radii[i];
    EXPECT_EQ(calls.count("glCompileShader") + calls.count("glCreateProgram") + calls.count("glLinkProgram"), 0);
    EXPECT_EQ(device->givenUpCount(), givenUp) << "a program was replaced";
    blurred(2.6f);
    EXPECT_GT(device->givenUpCount(), givenUp) << "another number of taps needs another program";
}

TEST_P(BlurRadius, ThatIsNotANumberIsNone)
{
    const MessageCapture messages;
    const Image<float> none = blurred(0.0f);
    EXPECT_TRUE(sameImage(blurred(kNan), none, within(0)));
    const GlCalls calls;
    for (int frame = 0; frame < 3; ++frame)
        blurred(kNan);
    EXPECT_EQ(calls.count("glCompileShader") + calls.count("glCreateProgram") + calls.count("glLinkProgram"), 0);
    EXPECT_EQ(messages.texts(), QStringList(QStringLiteral("%1: Kvo_float_BlurRadius is not a number; 0 is used")
                                                .arg(QLatin1StringView(GetParam().className))));
}

TEST_P(BlurRadius, HasFewerTapsWhereUniformsAreFew)
{
    inAContextOfItsOwn(context(), [] {
        const GlCalls::ForcedInteger components(GL_MAX_FRAGMENT_UNIFORM_COMPONENTS, 1024);
        const MessageCapture messages;
        const std::unique_ptr<RenderPass> poor = passFactory().make(text(GetParam().className));
        const std::unique_ptr<Texture> image = makeSolidTexture(4, 4, {1, 1, 1, 1});
        poor->setInput(0, kViewport);
        poor->setInput(GetParam().input, textureToVariant(image.get()));
        poor->setInput(4, 1.0f);
        poor->setInput(kBlurRadius, 500.0f);
        runFrame(*poor);
        EXPECT_EQ(messages.containing(text("Kvo_float_BlurRadius 500 is beyond 120 taps; 119 is used")), 1)
            << qPrintable(messages.texts().join(u'\n'));
    });
}

namespace {

// A host's own blur, which sets its radius itself.
class OwnBlur : public BlurBaseRenderPass
{
public:
    int taps(float radius)
    {
        _blurRadius = radius;
        calculateBlurWeights();
        return int(_weights.size());
    }
    float radius() const { return _blurRadius; }
};

} // namespace

TEST_F(NumbersTest, TheKernelOfAHostsOwnBlurIsBoundedToo)
{
    const MessageCapture messages;
    OwnBlur blur;
    EXPECT_EQ(blur.taps(float(kTaps - 1)), kTaps);
    EXPECT_EQ(messages.texts(), QStringList());
    for (const float radius : {1e9f, kInfinity}) {
        EXPECT_EQ(blur.taps(radius), kTaps);
        EXPECT_EQ(blur.radius(), float(kTaps - 1));
    }
    EXPECT_EQ(blur.taps(kNan), 1);
    EXPECT_EQ(messages.texts(),
              QStringList({text("BlurBaseRenderPass: there is no kernel for a radius of 1e+09; that for 511 is used"),
                           text("BlurBaseRenderPass: there is no kernel for a radius of inf; that for 511 is used"),
                           text("BlurBaseRenderPass: there is no kernel for a radius of nan; that for 0 is used")}));
}

namespace {

struct DividerCase
{
    const char *className;
    int slot;
    float divider;
    QSize size;
    const char *said; // empty: nothing
};

void PrintTo(const DividerCase &divider, std::ostream *stream)
{
    *stream << divider.className << " " << divider.divider;
}

class Divider : public NumbersTest, public ::testing::WithParamInterface<DividerCase>
{};

constexpr const char *kNoNumber = "is not a number; 1 is used";

INSTANTIATE_TEST_SUITE_P(
    Values, Divider,
    ::testing::Values(
        DividerCase{"GaussianBlurRenderPass", 3, kNan, {kWidth, kHeight}, kNoNumber},
        DividerCase{"GaussianBlurRenderPass", 3, 0.02f, {800, 600}, ""},
        DividerCase{"GaussianBlurRenderPass", 3, 0.01f, {kSide, kSide}, "0.01 asks for 1600x1200 pixels"},
        DividerCase{"GaussianBlurRenderPass", 3, -kHuge, {kSide, kSide}, "0.01 asks for 1600x1200 pixels"},
        DividerCase{"GaussianBlurRenderPass", 3, kInfinity, {0, 0}, ""},
        DividerCase{"TemporalAARenderPass", 5, kNan, {kWidth, kHeight}, kNoNumber},
        DividerCase{"TemporalAARenderPass", 5, 1e-9f, {kSide, kSide}, "1e-09 asks for 1.6"},
        DividerCase{"TemporalAARenderPass", 5, kDenormal, {kSide, kSide}, "1.4013e-45 asks for infxinf pixels"},
        DividerCase{"TemporalAARenderPass", 5, -1.0f, {kWidth, kHeight}, ""},
        DividerCase{"TemporalAARenderPass", 5, 0.0f, {kWidth, kHeight}, ""},
        DividerCase{"TemporalAARenderPass", 5, kInfinity, {0, 0}, ""},
        DividerCase{"ScalableAmbientObscuranceRenderPass", 14, kNan, {kWidth, kHeight}, kNoNumber},
        DividerCase{"ScalableAmbientObscuranceRenderPass", 14, 1e-4f, {kSide, kSide}, "0.0001 asks for 160000x120000"},
        DividerCase{"ScalableAmbientObscuranceRenderPass", 14, 1e-30f, {kSide, kSide}, "1e-30 asks for"},
        DividerCase{"ScalableAmbientObscuranceRenderPass", 14, -1e-4f, {0, 0}, ""},
        DividerCase{"ScalableAmbientObscuranceRenderPass", 14, 0.0f, {kWidth, kHeight}, ""}),
    [](const auto &row) { return std::string(row.param.className).substr(0, 8) + "_" + std::to_string(row.index); });

} // namespace

TEST_P(Divider, GivesATargetThatThereIsAndAViewportOfItsSize)
{
    const MessageCapture messages;
    Values values;
    const std::unique_ptr<RenderPass> pass = passFactory().make(text(GetParam().className));
    const PassRow &row = *std::find_if(passTable().begin(), passTable().end(), [](const PassRow &r) {
        return qstrcmp(r.className, GetParam().className) == 0;
    });
    for (int i = 0; i < pass->numInputs(); ++i)
        pass->setInput(i, values.right(row.inputs[size_t(i)]));
    if (const int dirty = 4; qstrcmp(GetParam().className, "TemporalAARenderPass") == 0)
        pass->setInput(dirty, false);
    pass->setInput(GetParam().slot, GetParam().divider);
    const GlCalls calls;
    runFrame(*pass);
    runFrame(*pass);
    EXPECT_EQ(sizeOfOutput(*pass), GetParam().size);
    for (const GlCall &call : calls.calls("glViewport")) {
        EXPECT_GE(call.args[2], 0);
        EXPECT_LE(call.args[2], kPossible);
        EXPECT_GE(call.args[3], 0);
        EXPECT_LE(call.args[3], kPossible);
    }
    EXPECT_EQ(messages.texts().size(), *GetParam().said ? 1 : 0) << qPrintable(messages.texts().join(u'\n'));
    EXPECT_TRUE(!*GetParam().said || messages.containing(text(GetParam().said)) == 1)
        << qPrintable(messages.texts().join(u'\n'));
}

namespace {

// Obscurance over a wall that is not flat.
class ObscuranceTaps : public NumbersTest
{
protected:
    void SetUp() override
    {
        NumbersTest::SetUp();
        values = std::make_unique<Values>();
        pass = std::make_unique<ScalableAmbientObscuranceRenderPass>();
        std::vector<float> depths;
        depths.reserve(size_t(kWidth) * kHeight);
        for (int i = 0; i < kWidth * kHeight; ++i)
            depths.push_back(0.5f + 0.02f * float(i * 7 % 5));
        depth = makeTexture(GL_DEPTH_COMPONENT32F, kWidth, kHeight, depths.data());
        pass->setInput(0, kViewport);
        pass->setInput(1, perspective());
        pass->setInput(3, 1.0f);
        pass->setInput(4, 10.0f);
        pass->setInput(5, textureToVariant(depth.get()));
        pass->setInput(6, 1.0f);
    }
    void TearDown() override
    {
        pass.reset();
        depth.reset();
        values.reset();
        NumbersTest::TearDown();
    }

    Image<float> with(int slot, float value)
    {
        pass->setInput(slot, value);
        return imageOf(*pass);
    }

    static constexpr int kCount = 11, kOffset = 12, kTurns = 13;
    std::unique_ptr<Values> values;
    std::unique_ptr<Texture> depth;
    std::unique_ptr<ScalableAmbientObscuranceRenderPass> pass;
};

} // namespace

TEST_F(ObscuranceTaps, AreAsManyAsThereCanBeForAnyLargerCount)
{
    const MessageCapture messages;
    const Image<float> most = with(kCount, 1024.0f);
    EXPECT_EQ(messages.texts(), QStringList());
    // From 2 to the power of 24 on a counter of the shader's, a float, would never get there.
    for (const float count : {1025.0f, 16777217.0f, 1e9f, kInfinity})
        EXPECT_TRUE(sameImage(with(kCount, count), most, within(0))) << count;
    EXPECT_EQ(messages.texts(), QStringList(text("ScalableAmbientObscuranceRenderPass: Kvo_float_SaoNumSamples 1025 is "
                                                 "not from -1024 to 1024; 1024 is used")));
}

TEST_F(ObscuranceTaps, OfNoNumberAreThoseOfTheDefault)
{
    for (const auto &[slot, usual] : {std::pair(kCount, 11.0f), std::pair(kOffset, 3.0f), std::pair(kTurns, 3.0f)}) {
        const MessageCapture messages;
        const Image<float> expected = with(slot, usual);
        EXPECT_TRUE(sameImage(with(slot, kNan), expected, within(0))) << slot;
        EXPECT_EQ(messages.texts().size(), 1);
        with(slot, usual);
    }
}

namespace {

constexpr int kShadowLights = 2;

// Both shadow passes, with the slots that they share.
struct ShadowCase
{
    const char *className;
    int bounds, filterType, mapSize;
};

void PrintTo(const ShadowCase &shadows, std::ostream *stream)
{
    *stream << shadows.className;
}

class ShadowNumbers : public NumbersTest, public ::testing::WithParamInterface<ShadowCase>
{
protected:
    void SetUp() override
    {
        NumbersTest::SetUp();
        model = std::make_unique<GPUModel>();
        ASSERT_TRUE(model->upload(cubeScene()));
        pass = passFactory().make(text(GetParam().className));
        pass->setInput(0, QVariant::fromValue(model.get()));
        pass->setInput(GetParam().mapSize, QSize(16, 16));
        setLights(1);
    }
    void TearDown() override
    {
        pass.reset();
        model.reset();
        NumbersTest::TearDown();
    }

    void setLights(int count)
    {
        QVector<ShadowMapLight> lights;
        for (int i = 0; i < count; ++i)
            lights.append(ShadowMapLight::point({0, 3, 0}, 10));
        pass->setInput(kShadowLights, lightsToVariant(lights));
    }

    TexturePixels maps()
    {
        runFrame(*pass);
        TexturePixels pixels;
        QString error;
        EXPECT_TRUE(readShadowMaps(ShadowMapRenderData::fromVariant(pass->output(0)), &pixels, &error))
            << qPrintable(error);
        return pixels;
    }

    std::unique_ptr<GPUModel> model;
    std::unique_ptr<RenderPass> pass;
};

INSTANTIATE_TEST_SUITE_P(Passes, ShadowNumbers,
                         ::testing::Values(ShadowCase{"ShadowMapRenderPass", 5, 7, 8},
                                           ShadowCase{"ShadowMapRenderPass2", 6, 8, 9}),
                         [](const auto &row) { return std::string(row.param.className); });

} // namespace

TEST_P(ShadowNumbers, AMapSizeThatIsNoneGivesNoMapsAndNoError)
{
    const QVector<float> before = maps().values;
    for (const QVariant &none : {QVariant(text("x")), QVariant(3), QVariant(QSize()), QVariant(QSize(-5, 7)),
                                 QVariant(QSize(16, 0)), QVariant()}) {
        const MessageCapture messages;
        pass->setInput(GetParam().mapSize, none);
        runFrame(*pass);
        runFrame(*pass);
        EXPECT_EQ(messages.texts(),
                  QStringList(QStringLiteral("%1: Kvo_QSize_MapSize is no size of maps; there are none")
                                  .arg(QLatin1StringView(GetParam().className))));
        const ShadowMapRenderData *record = ShadowMapRenderData::fromVariant(pass->output(0));
        ASSERT_NE(record, nullptr);
        EXPECT_NE(record->projectionTexture(), nullptr);
        pass->setInput(GetParam().mapSize, QSize(16, 16));
        EXPECT_EQ(maps().values, before);
    }
}

TEST_P(ShadowNumbers, AnyIntegerIsAFilterType)
{
    const auto filtered = [this](int type) {
        pass->setInput(GetParam().filterType, type);
        return maps().values;
    };
    const bool isFirst = qstrcmp(GetParam().className, "ShadowMapRenderPass") == 0;
    const QVector<float> none = filtered(0);
    const QVector<float> any = filtered(isFirst ? 1 : 3);
    EXPECT_NE(any, none);
    for (const int type : {kMin, kMax, -1, 4, 77})
        EXPECT_EQ(filtered(type), any) << type;
}

TEST_P(ShadowNumbers, TwelveHundredLayersAreAsManyAsThereIsRoomForAndOneLightIsRightAfterwards)
{
    const QVector<float> before = maps().values;
    const MessageCapture messages;
    QStringList failed;
    ShaderProgram::setFailureHandler([&](const ShaderFailure &failure) { failed << failure.label; });
    pass = passFactory().make(text(GetParam().className));
    pass->setInput(0, QVariant::fromValue(model.get()));
    pass->setInput(GetParam().mapSize, QSize(16, 16));
    setLights(200);
    runFrame(*pass);
    const ShadowMapRenderData *record = ShadowMapRenderData::fromVariant(pass->output(0));
    ASSERT_NE(record, nullptr);
    const GLLimits limits = OpenGLDeviceContext::current()->limits();
    const int matrices = (std::min(limits.vertexUniforms, limits.geometryUniforms) - 64) / 16;
    const bool holdsAll = qstrcmp(GetParam().className, "ShadowMapRenderPass2") == 0;
    const int room = std::min(limits.arrayLayers, holdsAll ? matrices : limits.arrayLayers);
    EXPECT_EQ(record->layerCount, std::min(1200, room / 6 * 6));
    EXPECT_EQ(messages.containing(text("casts no shadow: with its 6 layers there would be")),
              200 - record->layerCount / 6);
    setLights(1);
    EXPECT_EQ(maps().values, before);
    EXPECT_EQ(failed, QStringList());
    ShaderProgram::setFailureHandler({});
}

TEST_F(NumbersTest, AStencilMaterialIsComparedWithWhatAStencilHolds)
{
    const MessageCapture messages;
    Values values;
    GaussianBlurRenderPass pass;
    pass.setInput(0, kViewport);
    pass.setInput(1, textureToVariant(values.color.get()));
    pass.setInput(2, 2.0f);
    pass.setInput(4, textureToVariant(values.target.depthStencil()));
    for (const int material : {kMax, 300, 255, 254, 0}) {
        pass.setInput(5, material);
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.count("glStencilFunc", {GL_EQUAL, double(std::min(material, 254) + 1), 0xff}), 1) << material;
    }
    EXPECT_EQ(messages.texts(), QStringList(text("GaussianBlurRenderPass: Kvo_int_StencilMaterial 2147483647 is beyond "
                                                 "what a stencil holds; 254 is used")));
}

TEST_F(NumbersTest, ANegativeNodeBufferWidthIsNone)
{
    Values values;
    if (!hasGLExtension("ARB_shader_image_load_store"))
        GTEST_SKIP() << "missing extension: ARB_shader_image_load_store";
    const MessageCapture messages;
    VisibilitySortRenderPass pass;
    pass.setInput(0, kViewport);
    pass.setInput(1, values.recorded(0));
    pass.setInput(2, values.recorded(1));
    for (const int width : {-1, kMin}) {
        pass.setInput(3, width);
        const GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.draws(), 0);
        EXPECT_EQ(pass.output(2).toInt(), width) << "handed on as it came";
    }
    EXPECT_EQ(messages.texts(QtWarningMsg),
              QStringList(text("VisibilitySortRenderPass: Kvo_int_NodeBufferWidth -1 is not from 0 to "
                               "65536; 0 is used")));
}

TEST_F(NumbersTest, AListOfFragmentsThatLeadsBackIntoItselfEnds)
{
    Values values;
    const std::vector<quint32> heads(size_t(kWidth) * kHeight, 1);
    const std::vector<quint32> nodes{1, 1, 0, 0};
    const auto makeIntegers = [](GLenum internalFormat, GLenum format, int width, int height,
                                 const std::vector<quint32> &data) {
        auto texture = std::make_unique<Texture>();
        texture->setTarget(GL_TEXTURE_2D);
        texture->bind();
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
        glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), width, height, 0, format, GL_UNSIGNED_INT, data.data());
        texture->unbind();
        return texture;
    };
    const auto headPointers = makeIntegers(GL_R32UI, GL_RED_INTEGER, kWidth, kHeight, heads);
    const auto nodeBuffer = makeIntegers(GL_RGBA32UI, GL_RGBA_INTEGER, 1, 1, nodes);
    VisibilityDeferredRenderPass pass;
    pass.setInput(0, QRect(0, 0, 2, 2));
    pass.setInput(1, perspective());
    pass.setInput(2, cameraAt(4));
    pass.setInput(3, textureToVariant(headPointers.get()));
    pass.setInput(4, textureToVariant(nodeBuffer.get()));
    pass.setInput(5, 1);
    ModelData glass = cubeScene(); // an opaque fragment would end the walk
    for (ModelMaterial &one : glass.materials)
        one.D = 0.5f;
    ASSERT_TRUE(values.model.upload(glass));
    pass.setInput(6, QVariant::fromValue(&values.model));
    runFrame(pass);
    EXPECT_LT(secondsOfFrame(pass), kFirstFrame);
}

TEST_F(NumbersTest, RectanglesWithCornersBeyondAllSumsAreCutThere)
{
    const MessageCapture messages;
    Values values;
    TextureToScreenRenderPass pass;
    pass.setInput(1, textureToVariant(values.color.get()));
    pass.setInput(7, framebufferToVariant(values.screen.framebuffer()));
    for (const bool superSampling : {false, true}) {
        pass.setInput(0, kViewport);
        pass.setInput(2, superSampling);
        for (const int slot : {3, 6}) {
            for (const QRect &rect : {corners(kMin, kMin, kMax, kMax), corners(0, 0, kMax, kMax)}) {
                pass.setInput(slot, rect);
                runFrame(pass);
            }
            pass.setInput(slot, QVariant());
            runFrame(pass);
        }
    }
    EXPECT_EQ(messages.containing(text("TextureToScreenRenderPass: Kvo_QRect_ViewportOut has a corner beyond 8388608; "
                                       "it is moved there")),
              2);
    EXPECT_EQ(messages.texts().size(), 4);
}

namespace {

// A file that says it has so many bytes, of which the disk holds the first ones.
QString sparseFile(const ImageFiles &files, const char *name, const QByteArray &begin, qint64 size)
{
    const QString path = files.write(name, begin);
    EXPECT_TRUE(QFile::resize(path, size));
    return path;
}

class LongImageFile : public NumbersTest, public ::testing::WithParamInterface<std::pair<const char *, qint64>>
{};

constexpr qint64 kGigabyte = qint64(1) << 30;

INSTANTIATE_TEST_SUITE_P(Sizes, LongImageFile,
                         ::testing::Values(std::pair("jpg", 6 * kGigabyte), std::pair("png", 6 * kGigabyte),
                                           std::pair("jpg", kGigabyte), std::pair("bmp", 6 * kGigabyte)),
                         [](const auto &row) {
                             return row.param.first + std::string("_") + std::to_string(row.param.second / kGigabyte);
                         });

} // namespace

TEST_P(LongImageFile, IsRefusedWithAMessageAndIsNotRead)
{
    const auto &[format, size] = GetParam();
    const ImageFiles files;
    for (const bool hasHeader : {true, false}) {
        const QByteArray begin = hasHeader ? ImageFiles::encoded(ImageFiles::pattern(16, 12), format) : QByteArray();
        const std::string name = std::string(hasHeader ? "long." : "zeros.") + format;
        const QString path = sparseFile(files, name.c_str(), begin, size);
        const MessageCapture messages;
        const qint64 resident = residentBytes();
        QElapsedTimer timer;
        timer.start();
        TextureLoaderRenderPass pass;
        pass.setInput(0, path);
        runFrame(pass);
        EXPECT_EQ(TextureManager::Instance().textureFromFile(path), nullptr);
        EXPECT_LT(timer.elapsed(), 2000);
        EXPECT_LT(residentBytes() - resident, 100 * kMegabyte);
        EXPECT_EQ(messages.count(QtWarningMsg), 2) << qPrintable(messages.texts().join(u'\n'));
        EXPECT_EQ(messages.containing(QStringLiteral("Image '%1' cannot be read: ").arg(path)), 2);
        EXPECT_EQ(sizeOfOutput(pass), QSize(1, 1));
    }
}

TEST_F(NumbersTest, AJpegIsWholeWithItsPixelsWhateverACameraAppends)
{
    const ImageFiles files;
    const QByteArray image = ImageFiles::encoded(ImageFiles::pattern(16, 12), "jpg");
    const qsizetype end = image.lastIndexOf("\xff\xd9");
    const auto expect = [&](const QByteArray &data, const QSize &size, const std::string &what) {
        const MessageCapture messages;
        TextureLoaderRenderPass pass;
        pass.setInput(0, files.write((what + ".jpg").c_str(), data));
        runFrame(pass);
        EXPECT_EQ(sizeOfOutput(pass), size) << what;
        EXPECT_EQ(messages.containing(text("the end of the file is missing")), size.width() == 1 ? 1 : 0) << what;
    };
    // Also where what stands behind is longer than the blocks in which a file is read.
    for (const int behind : {0, 1, 65534, 65535, 65536, 65537, 200000})
        expect(image + QByteArray(behind, 'x'), QSize(16, 12), std::to_string(behind) + " bytes behind");
    expect(image.left(end), QSize(16, 12), "without the mark of the end");
    for (const int missing : {8, 20, 40})
        expect(image.left(end - missing), QSize(1, 1), std::to_string(missing) + " bytes of pixels missing");
}
