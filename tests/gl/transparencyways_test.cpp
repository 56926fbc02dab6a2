// What docs/transparency.md tells of three ways to see through a model, by calls that were recorded: what each takes in
// memory, and how often it draws the model.

#include "support/docfiles.h"
#include "support/glcalls.h"
#include "support/gltest.h"
#include "support/stage.h"
#include "support/texturememory.h"

#include <gl/glinfo.h>
#include <gl/opengldevicecontext.h>
#include <host/depthpeelingpass.h>
#include <host/pipeline.h>
#include <renderpasses/transparencyrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>

#include <QRegularExpression>

#include <algorithm>
#include <iterator>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

void addWeighted(Pipeline &pipeline)
{
    pipeline.add("Weighted", std::make_unique<TransparencyRenderPass>());
}

void addLists(Pipeline &pipeline)
{
    pipeline.add("Record", std::make_unique<VisibilityBufferRenderPass>());
    pipeline.add("Sort", std::make_unique<VisibilitySortRenderPass>());
    pipeline.add("Shade", std::make_unique<VisibilityDeferredRenderPass>());
    for (const char *slot : {"HeadPointers", "NodeBuffer", "NodeBufferWidth"}) {
        EXPECT_TRUE(pipeline.connect("Record", slot, "Sort", slot));
        EXPECT_TRUE(pipeline.connect("Sort", slot, "Shade", slot));
    }
}

void addLayers(Pipeline &pipeline)
{
    auto pass = std::make_unique<DepthPeelingPass>();
    pass->setFragmentShaderSource(QStringLiteral("#version 150\nuniform sampler2D u_BaseColor;\nout vec4 o_Frame;\n"
                                                 "void main() { o_Frame = texelFetch(u_BaseColor, "
                                                 "ivec2(gl_FragCoord.xy), 0); }\n"));
    pass->setInput(DepthPeelingPass::InLayers, 4);
    pipeline.add("Layers", std::move(pass));
}

/// What three frames of a size take, textures and buffers, and draws of the last.
struct Cost
{
    qint64 bytes = 0;
    int items = 0; ///< Of the model, each as often as it is drawn.
    bool hasLists = false; ///< What there is of lists where the driver has no stores to images is the nearest layer.
};

// Several in a draw where the driver can.
int drawnItems(const GlCalls &calls)
{
    int items = 0;
    for (const GlCall &call : calls.all()) {
        if (qstrcmp(call.name, "glMultiDrawElementsIndirect") == 0)
            items += int(call.args.at(3));
        else if (QByteArrayView(call.name).startsWith("glDrawElements"))
            ++items;
    }
    return items;
}

// In a context of its own, so that the pool begins empty.
Cost costOf(void (*add)(Pipeline &), const QSize &size)
{
    Cost cost;
    GLContext::Options options;
    options.debug = false;
    GLContext context(options);
    EXPECT_TRUE(context.makeCurrent()) << qPrintable(context.error());
    {
        GPUModel model;
        EXPECT_TRUE(model.upload(threeCubes(0.5f)));
        Camera camera;
        const float aspect = float(size.width()) / float(size.height());
        camera.fit(model.sceneBounds(), Stage::kYaw, Stage::kPitch, aspect);

        TextureMemory memory;
        GlCalls calls;
        Pipeline pipeline;
        add(pipeline);
        pipeline.bindStandard();
        pipeline.setViewport(QRect(QPoint(0, 0), size));
        pipeline.setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspect), camera.nearPlane, camera.farPlane);
        pipeline.setModel(&model);
        QString error;
        for (int frame = 0; frame < 3; ++frame) {
            calls.clear();
            EXPECT_TRUE(pipeline.render(nullptr, &error)) << qPrintable(error);
            memory.add(calls);
            for (const GlCall &call : calls.all()) {
                if (qstrcmp(call.name, "glBufferData") == 0)
                    cost.bytes += qint64(call.args.at(1));
            }
        }
        cost.bytes += memory.bytes();
        cost.items = drawnItems(calls);
        cost.hasLists = hasGLExtension("GL_ARB_shader_image_load_store");
    }
    OpenGLDeviceContext::releaseCurrent();
    return cost;
}

/// A cell of the page's table, and the number that a phrase has in it.
QString cell(const char *row, int way)
{
    const QRegularExpression line(QStringLiteral("^\\| %1 \\|(.*)\\|$").arg(QLatin1String(row)),
                                  QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(fileText(sourcePath(QStringLiteral("docs/transparency.md"))));
    EXPECT_TRUE(match.hasMatch()) << row;
    return match.captured(1).split(QLatin1Char('|')).value(way).trimmed();
}

int numberBefore(const char *unit, const QString &text)
{
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("([0-9]+) %1").arg(QLatin1String(unit))).match(text);
    EXPECT_TRUE(match.hasMatch()) << unit << " in " << qPrintable(text);
    return match.captured(1).toInt();
}

struct Way
{
    const char *name;
    void (*add)(Pipeline &);
    const char *draws; ///< How the page puts it.
    int items; ///< Three cubes, of which one lets light through.
};

class WaysThrough : public GLTest, public ::testing::WithParamInterface<Way>
{};

// Layer by layer, a third draw finds that there is none beyond the front and the back of the cube.
const Way kWays[] = {
    {"Weighted", addWeighted, "once, solid parts before the rest", 3},
    {"Lists", addLists, "once", 3},
    {"Layers", addLayers, "once per layer", 3},
};

} // namespace

TEST_P(WaysThrough, TakeTheMemoryAndTheDrawsThatThePageTells)
{
    constexpr QSize kSmall(320, 180);
    constexpr QSize kLarge(640, 360);
    constexpr int kPixels = 320 * 180;
    const int column = int(std::distance(kWays, std::find_if(std::begin(kWays), std::end(kWays), [](const Way &way) {
                                             return qstrcmp(way.name, GetParam().name) == 0;
                                         })));
    const Cost small = costOf(GetParam().add, kSmall);
    const Cost large = costOf(GetParam().add, kLarge);
    const QString memory = cell("memory", column);

    const bool isOfLists = memory.contains(QLatin1String("MiB"));
    const bool isWithout = isOfLists && !large.hasLists;
    const int perPixel = numberBefore(isWithout ? "without lists" : "bytes a pixel", memory);
    EXPECT_EQ(double(large.bytes - small.bytes) / (3.0 * kPixels), perPixel);
    // The model's own is in it, some kilobytes.
    const double rest = double(small.bytes - qint64(perPixel) * kPixels) / (1 << 20);
    EXPECT_NEAR(rest, isOfLists && !isWithout ? numberBefore("MiB", memory) : 0, 0.1);

    EXPECT_EQ(cell("the model is drawn", column), QLatin1String(GetParam().draws));
    EXPECT_EQ(large.items, GetParam().items);
}

INSTANTIATE_TEST_SUITE_P(Ways, WaysThrough, ::testing::ValuesIn(kWays),
                         [](const auto &way) { return std::string(way.param.name); });
