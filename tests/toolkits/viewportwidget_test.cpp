// The real widget on a virtual X server, driven by the events of a hand. ctest runs this binary with contexts of
// their own per window, with shared ones, and at a device pixel ratio of 2.

#include "support/glcalls.h"
#include "support/messages.h"
#include "support/scenes.h"
#include "toolkits/pictures.h"
#include "toolkits/raycast.h"

#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/sceneimport.h>
#include <host/viewportwidget.h>
#include <renderpasses/gradientrenderpass.h>
#include <renderpasses/texturetoscreenrenderpass.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QNativeGestureEvent>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QPointingDevice>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QWheelEvent>

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

constexpr int kWidth = 240;
constexpr int kHeight = 160;
const QString kPipelines = QStringLiteral(KVO_SOURCE_DIR "/pipelines/");
const QString kBox = u"/usr/share/assimp/models/glTF2/BoxTextured-glTF-Binary/BoxTextured.glb"_s;

// Four items of three materials that partly hide each other.
ModelData row()
{
    ModelData data;
    data.meshes << cubeMesh() << triangleMesh();
    data.materials << material({0.9f, 0.2f, 0.1f}) << material({0.1f, 0.8f, 0.2f}) << material({0.2f, 0.3f, 0.9f});
    const auto add = [&](int mesh, int surface, const QVector3D &place, float turn, float scale) {
        ModelItem item;
        item.mesh = mesh;
        item.material = surface;
        item.transform.translate(place);
        item.transform.rotate(turn, 0.3f, 1.0f, 0.2f);
        item.transform.scale(scale);
        data.items.append(item);
    };
    add(0, 2, {-2.2f, 0, 0}, 20, 0.8f);
    add(0, 0, {0.3f, 0.4f, -1}, -35, 0.9f);
    add(1, 1, {0.1f, -0.6f, 1.2f}, 10, 0.7f);
    add(0, 1, {2.4f, -0.2f, 0.3f}, 60, 0.6f);
    return data;
}

bool waitFor(const std::function<bool()> &condition, int milliseconds = 20000)
{
    return QTest::qWaitFor(condition, milliseconds);
}

void work(int milliseconds)
{
    QTest::qWait(milliseconds);
}

// Shown and settled, as the window system let it be.
void showAndSettle(ViewportWidget &view)
{
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(view.window()));
    ASSERT_TRUE(waitFor([&] { return view.frameCount() > 0 && view.isSettled(); }));
}

bool settle(ViewportWidget &view)
{
    work(0);
    return waitFor([&] { return view.isSettled(); });
}

std::unique_ptr<ViewportWidget> viewOf(const ModelData &data, const char *pipeline = "forward")
{
    auto view = std::make_unique<ViewportWidget>();
    view->resize(kWidth, kHeight);
    view->setModel(data);
    QStringList errors;
    EXPECT_TRUE(view->setPipelineFile(kPipelines + QLatin1StringView(pipeline) + u".json"_s, &errors))
        << qPrintable(errors.join(u'\n'));
    return view;
}

void drag(QWidget &widget, Qt::MouseButton button, const QPoint &from, const QPoint &to,
          Qt::KeyboardModifiers modifiers = {})
{
    QTest::mousePress(&widget, button, modifiers, from);
    const QPoint middle = (from + to) / 2;
    for (const QPoint &at : {middle, to}) {
        QMouseEvent move(QEvent::MouseMove, at, widget.mapToGlobal(at), Qt::NoButton, button, modifiers);
        QCoreApplication::sendEvent(&widget, &move);
    }
    QTest::mouseRelease(&widget, button, modifiers, to);
}

void wheel(QWidget &widget, const QPoint &at, int steps)
{
    QWheelEvent event(at, widget.mapToGlobal(at), QPoint(), QPoint(0, 120 * steps), Qt::NoButton, Qt::NoModifier,
                      Qt::NoScrollPhase, false);
    QCoreApplication::sendEvent(&widget, &event);
}

void write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
}

QByteArray gradientFile(const char *color)
{
    return QByteArray(R"({ "passes": [
  { "name": "Fill", "class": "GradientRenderPass",
    "inputs": { "Viewport": "@viewport", "ColorTop": "COLOR", "ColorBottom": "COLOR" } },
  { "name": "Present", "class": "TextureToScreenRenderPass",
    "inputs": { "Viewport": "@viewport", "Texture": { "from": "Fill.Frame" }, "FramebufferOut": "@screen" } } ] })")
        .replace("COLOR", color);
}

QColor middleOf(ViewportWidget &view)
{
    const QImage image = view.grabFramebuffer();
    return image.pixelColor(image.width() / 2, image.height() / 2);
}

// A pixel of the widget's picture in the ray caster's terms.
RayHit rayAt(const ViewportWidget &view, const ModelData &data, const QPoint &position)
{
    const double ratio = view.devicePixelRatio();
    const QSizeF pixels = QSizeF(view.size()) * ratio;
    const QPointF pixel(std::floor(position.x() * ratio) + 0.5, std::floor(position.y() * ratio) + 0.5);
    return castRay(data, view.camera(), pixel, pixels);
}

class ViewportWidgetTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        // What widgets leave is gone with their contexts; shared ones live on with the application.
        if (!QCoreApplication::testAttribute(Qt::AA_ShareOpenGLContexts)) {
            EXPECT_EQ(GlCalls::live(), 0) << qPrintable(GlCalls::liveObjects().join(u'\n'));
        }
    }

    QTemporaryDir folder;
};

} // namespace

TEST_F(ViewportWidgetTest, LeftDragTurnsThePicture)
{
    const auto view = viewOf(row());
    showAndSettle(*view);
    const QImage before = view->grabFramebuffer();
    EXPECT_EQ(before.size(), view->size() * view->devicePixelRatio());
    const OrbitCamera camera = view->camera();
    QSignalSpy moved(view.get(), &ViewportWidget::cameraChanged);
    drag(*view, Qt::LeftButton, {120, 80}, {180, 60});
    // 0.4 degrees per unit; to the right turns the model to the right, the eye to the left.
    EXPECT_NEAR(view->camera().yaw(), camera.yaw() - 24, 1e-3);
    EXPECT_NEAR(view->camera().pitch(), camera.pitch() - 8, 1e-3);
    EXPECT_GT(moved.count(), 0);
    ASSERT_TRUE(settle(*view));
    EXPECT_GT(differing(before, view->grabFramebuffer()), 0.05);
    drag(*view, Qt::LeftButton, {180, 60}, {120, 80});
    ASSERT_TRUE(settle(*view));
    EXPECT_LT(differing(before, view->grabFramebuffer()), 0.005);
}

TEST_F(ViewportWidgetTest, RightDragTakesTheSurfaceAlong)
{
    const ModelData data = row();
    const auto view = viewOf(data);
    showAndSettle(*view);
    const QPoint from(62, 84), to(131, 55);
    const Pick before = view->pickAt(from);
    ASSERT_TRUE(before.isHit());
    drag(*view, Qt::RightButton, from, to);
    const Pick after = view->pickAt(to);
    ASSERT_TRUE(after.isHit());
    EXPECT_EQ(after.item, before.item);
    // Within the part of the world that a pixel shows.
    EXPECT_LT((after.position - before.position).length(), 0.05f);
}

TEST_F(ViewportWidgetTest, WheelKeepsTheSurfaceUnderTheCursor)
{
    const auto view = viewOf(row());
    showAndSettle(*view);
    const QPoint at(62, 84);
    const Pick before = view->pickAt(at);
    ASSERT_TRUE(before.isHit());
    const float distance = view->camera().distance();
    for (int i = 0; i < 5; ++i)
        wheel(*view, at, 1);
    EXPECT_NEAR(view->camera().distance(), distance / std::pow(1.15f, 5.0f), 1e-3f);
    const Pick after = view->pickAt(at);
    EXPECT_EQ(after.item, before.item);
    EXPECT_EQ(after.triangle, before.triangle);
    EXPECT_LT((after.position - before.position).length(), 0.03f);
    for (int i = 0; i < 5; ++i)
        wheel(*view, at, -1);
    EXPECT_NEAR(view->camera().distance(), distance, 1e-3f);
}

TEST_F(ViewportWidgetTest, PicksWhatARayMeets)
{
    const ModelData data = row();
    const auto view = viewOf(data);
    showAndSettle(*view);
    for (const bool orthographic : {false, true}) {
        view->setOrthographic(orthographic);
        ASSERT_TRUE(settle(*view));
        QVector<int> hits(data.items.size());
        int misses = 0;
        for (int y = 3; y < kHeight; y += 9) {
            for (int x = 2; x < kWidth; x += 7) {
                const RayHit expected = rayAt(*view, data, {x, y});
                if (expected.isNearEdge)
                    continue; // which of two triangles covers a pixel there is the rasteriser's rounding
                const Pick pick = view->pickAt({x, y});
                ASSERT_EQ(pick.item, expected.item) << x << ", " << y;
                if (!pick.isHit()) {
                    ++misses;
                    continue;
                }
                ++hits[pick.item];
                EXPECT_EQ(pick.triangle, expected.triangle) << x << ", " << y;
                EXPECT_EQ(pick.material, data.items[pick.item].material);
                // Floats interpolated over a triangle some units away.
                EXPECT_LT((pick.position - expected.position).length(), 2e-4f) << x << ", " << y;
            }
        }
        EXPECT_GT(misses, 50);
        for (int item = 0; item < data.items.size(); ++item)
            EXPECT_GT(hits[item], 2) << item;
    }
    EXPECT_FALSE(view->pickAt({-1, 5}).isHit());
    EXPECT_FALSE(view->pickAt({kWidth, 5}).isHit());
}

TEST_F(ViewportWidgetTest, AreaHoldsTheItemsThatShowInIt)
{
    const ModelData data = row();
    const auto view = viewOf(data);
    showAndSettle(*view);
    int found = 0;
    for (const QRect &area : {QRect(0, 0, kWidth, kHeight), QRect(30, 50, 60, 60), QRect(100, 70, 50, 40),
                              QRect(150, 20, 80, 90), QRect(0, 0, 20, 10), QRect(-50, 60, 130, 30)}) {
        QVector<int> some, all;
        for (int y = area.top(); y <= area.bottom(); ++y) {
            for (int x = area.left(); x <= area.right(); ++x) {
                if (x < 0)
                    continue;
                const RayHit hit = rayAt(*view, data, {x, y});
                if (hit.item >= 0 && !all.contains(hit.item))
                    all.append(hit.item);
                if (hit.item >= 0 && !hit.isNearEdge && !some.contains(hit.item))
                    some.append(hit.item);
            }
        }
        std::sort(some.begin(), some.end());
        std::sort(all.begin(), all.end());
        ASSERT_EQ(some, all) << "an area whose answer hangs on an edge";
        EXPECT_EQ(view->itemsIn(area), all);
        found += int(all.size());
    }
    EXPECT_GT(found, 7);
    // As far as integers go it is the whole picture.
    const QVector<int> whole = view->itemsIn(QRect(0, 0, kWidth, kHeight));
    constexpr int kLeast = std::numeric_limits<int>::min();
    constexpr int kMost = std::numeric_limits<int>::max();
    for (const QRect &area :
         {QRect(QPoint(0, 0), QPoint(kMost - 1, kMost - 1)), QRect(QPoint(0, 0), QPoint(kMost, kMost)),
          QRect(QPoint(kLeast, kLeast), QPoint(kMost, kMost))})
        EXPECT_EQ(view->itemsIn(area), whole) << area.left() << " to " << area.right();
}

TEST_F(ViewportWidgetTest, ClickSelectsAndOutlines)
{
    const ModelData data = row();
    const auto view = viewOf(data);
    view->setOutline(QColor(255, 0, 255), 2);
    showAndSettle(*view);
    const QImage before = view->grabFramebuffer();
    QSignalSpy clicked(view.get(), &ViewportWidget::clicked);
    QSignalSpy selected(view.get(), &ViewportWidget::selectionChanged);
    const QPoint at(62, 84);
    const RayHit hit = rayAt(*view, data, at);
    ASSERT_GE(hit.item, 0);
    QTest::mouseClick(view.get(), Qt::LeftButton, {}, at);
    ASSERT_EQ(clicked.count(), 1);
    EXPECT_EQ(clicked[0][0].value<Pick>().item, hit.item);
    EXPECT_EQ(view->selection(), QVector<int>{hit.item});
    EXPECT_EQ(selected.count(), 1);
    ASSERT_TRUE(settle(*view));

    // Against the item alone, by the ray caster: magenta up to two pixels outside of it, and nothing else anywhere.
    ModelData alone = data;
    for (int item = 0; item < data.items.size(); ++item)
        if (item != hit.item)
            alone.items[item].transform.translate(1e6f, 0, 0);
    const QImage after = view->grabFramebuffer();
    const QSizeF pixels = after.size();
    std::vector<bool> inside(std::size_t(after.width() * after.height()));
    for (int y = 0; y < after.height(); ++y)
        for (int x = 0; x < after.width(); ++x)
            inside[std::size_t(y * after.width() + x)] =
                castRay(alone, view->camera(), {x + 0.5, y + 0.5}, pixels).item == hit.item;
    int line = 0;
    for (int y = 0; y < after.height(); ++y) {
        for (int x = 0; x < after.width(); ++x) {
            double nearest = 100;
            for (int v = std::max(0, y - 4); v < std::min(after.height(), y + 5); ++v)
                for (int u = std::max(0, x - 4); u < std::min(after.width(), x + 5); ++u)
                    if (inside[std::size_t(v * after.width() + u)])
                        nearest = std::min(nearest, std::hypot(u - x, v - y));
            const QColor color = after.pixelColor(x, y);
            const bool isMagenta = color.red() > 240 && color.green() < 15 && color.blue() > 240;
            // A pixel of the silhouette may fall to either side.
            if (nearest == 0 || nearest > 3.6) {
                EXPECT_FALSE(isMagenta && nearest != 0) << x << ", " << y;
                if (nearest > 3.6) {
                    ASSERT_EQ(color, before.pixelColor(x, y)) << x << ", " << y;
                }
            } else if (nearest == 1) {
                line += isMagenta;
            }
        }
    }
    EXPECT_GT(line, 60);

    QTest::mouseClick(view.get(), Qt::LeftButton, {}, QPoint(4, 4));
    EXPECT_TRUE(view->selection().isEmpty());
    ASSERT_TRUE(settle(*view));
    EXPECT_EQ(differing(before, view->grabFramebuffer()), 0.0);
    view->setSelecting(false);
    QTest::mouseClick(view.get(), Qt::LeftButton, {}, at);
    EXPECT_TRUE(view->selection().isEmpty());
    EXPECT_EQ(clicked.count(), 3);
}

TEST_F(ViewportWidgetTest, ControlDragSelectsAnArea)
{
    const auto view = viewOf(row());
    showAndSettle(*view);
    QSignalSpy area(view.get(), &ViewportWidget::areaSelected);
    const OrbitCamera before = view->camera();
    drag(*view, Qt::LeftButton, {5, 5}, {kWidth - 5, kHeight - 5}, Qt::ControlModifier);
    ASSERT_EQ(area.count(), 1);
    EXPECT_EQ(area[0][0].value<QVector<int>>(), (QVector<int>{0, 1, 2, 3}));
    EXPECT_EQ(view->selection(), (QVector<int>{0, 1, 2, 3}));
    EXPECT_TRUE(view->camera() == before);
}

TEST_F(ViewportWidgetTest, LeftAloneItDrawsNothing)
{
    const auto view = viewOf(row());
    showAndSettle(*view);
    const int frames = view->frameCount();
    const QImage before = view->grabFramebuffer();
    work(200);
    view->update(); // as a window does that was covered
    work(100);
    EXPECT_EQ(view->frameCount(), frames);
    EXPECT_EQ(view->grabFramebuffer(), before);
    view->invalidate();
    EXPECT_TRUE(waitFor([&] { return view->frameCount() == frames + 1; }));
    work(100);
    EXPECT_EQ(view->frameCount(), frames + 1);
}

TEST_F(ViewportWidgetTest, DrawsOnUntilAnAccumulationHasConverged)
{
    const auto view = viewOf(row(), "taa");
    showAndSettle(*view);
    work(100);
    const int first = view->frameCount();
    const QImage settled = view->grabFramebuffer();
    // Thirty jittered frames after each change, and no more; also after those that the passes do not notice.
    for (const char *color : {"#ff0000", "#2b3442"}) {
        const int before = view->frameCount();
        view->setSlotValues({{u"Backdrop.ColorTop"_s, QLatin1StringView(color)}});
        ASSERT_TRUE(waitFor([&] { return view->isSettled() && view->frameCount() > before; }));
        work(100);
        EXPECT_EQ(view->frameCount() - before, 30);
    }
    EXPECT_GT(first, 29);
    // The backdrop that was there between is out of the mean: within what another draw of random offsets gives.
    EXPECT_LT(differing(settled, view->grabFramebuffer()), 0.08);
    EXPECT_EQ(view->pipeline()->inputs(u"Smooth"_s)[4].value, QVariant(false)) << "as the file has it";
}

TEST_F(ViewportWidgetTest, PictureOfTwiceTheSizeIsThatOfTheCommandLine)
{
    const ModelData data = importScene(kBox);
    for (const char *pipeline : {"deferred-model", "smaa"}) {
        const auto view = viewOf(data, pipeline);
        showAndSettle(*view);
        drag(*view, Qt::LeftButton, {100, 80}, {170, 110});
        view->setSelection({0}); // shows on screen only
        const QSize size(2 * kWidth, 2 * kHeight);
        const QImage grabbed = view->grabPicture(size);
        ASSERT_EQ(grabbed.size(), size);
        const QString path = folder.filePath(u"expected.png"_s);
        QProcess kvorender;
        kvorender.start(QCoreApplication::applicationDirPath() + u"/kvorender"_s,
                        {kBox, u"-p"_s, kPipelines + QLatin1StringView(pipeline) + u".json"_s, u"-s"_s,
                         u"%1x%2"_s.arg(size.width()).arg(size.height()), u"-c"_s, view->camera().settings(), u"-o"_s,
                         path});
        ASSERT_TRUE(kvorender.waitForFinished(120000));
        ASSERT_EQ(kvorender.exitCode(), 0) << kvorender.readAllStandardError().constData();
        // The camera goes through a text and another class; a pixel on an edge may fall to the other side.
        EXPECT_LT(differing(grabbed, QImage(path)), 0.0005) << pipeline;
        QImage flat = grabbed;
        flat.fill(grabbed.pixelColor(2, 2));
        EXPECT_GT(differing(grabbed, flat), 0.1);
        // And on screen it goes on as it was.
        ASSERT_TRUE(settle(*view));
        view->setSelection({});
        ASSERT_TRUE(settle(*view));
        const QImage small = view->grabFramebuffer();
        if (view->devicePixelRatio() == 2) {
            EXPECT_LT(differing(small, grabbed), 0.0005);
        }
    }
    const auto view = viewOf(data);
    QString error;
    EXPECT_TRUE(view->grabPicture({1 << 20, 1 << 20}, &error).isNull());
    EXPECT_FALSE(error.isEmpty());
}

TEST_F(ViewportWidgetTest, ReadsAChangedFileAgain)
{
    const QString path = folder.filePath(u"live.json"_s);
    write(path, gradientFile("#ff0000"));
    ViewportWidget view;
    view.resize(kWidth, kHeight);
    ASSERT_TRUE(view.setPipelineFile(path));
    showAndSettle(view);
    QSignalSpy reloaded(&view, &ViewportWidget::pipelineReloaded);
    EXPECT_EQ(middleOf(view), QColor(255, 0, 0));
    const auto becomes = [&](const QColor &color) { return waitFor([&] { return middleOf(view) == color; }, 5000); };

    write(path, gradientFile("#00ff00")); // in place
    EXPECT_TRUE(becomes(QColor(0, 255, 0)));
    for (const char *color : {"#0000ff", "#ffff00"}) { // removed, and written anew after a while; twice
        QFile::remove(path);
        work(150);
        EXPECT_NE(middleOf(view), QColor(color));
        write(path, gradientFile(color));
        EXPECT_TRUE(becomes(QColor(color)));
    }
    for (const char *color : {"#00ffff", "#ff00ff"}) { // written beside it and renamed over it
        write(path + u".new"_s, gradientFile(color));
        QFile::remove(path);
        ASSERT_TRUE(QFile::rename(path + u".new"_s, path));
        EXPECT_TRUE(becomes(QColor(color)));
    }
    for (const auto &signal : std::as_const(reloaded))
        EXPECT_EQ(signal[0].toStringList(), QStringList());

    reloaded.clear();
    write(path, "{ \"passes\": [ { \"name\": \"A\", \"class\": \"NoSuchPass\" } ] }");
    ASSERT_TRUE(waitFor([&] { return reloaded.count() > 0; }, 5000));
    EXPECT_TRUE(reloaded[0][0].toStringList().value(0).contains(u"NoSuchPass"_s));
    EXPECT_EQ(middleOf(view), QColor(255, 0, 255)) << "the one before stays";
    write(path, gradientFile("#ffffff"));
    EXPECT_TRUE(becomes(QColor(255, 255, 255)));
    // Something else in the folder is not its business.
    const int frames = view.frameCount();
    write(folder.filePath(u"other.txt"_s), "x");
    work(200);
    EXPECT_EQ(view.frameCount(), frames);
}

TEST_F(ViewportWidgetTest, ShowsAPipelineThatTheHostBuilt)
{
    auto pipeline = std::make_unique<Pipeline>();
    pipeline->add(u"Fill"_s, std::make_unique<GradientRenderPass>());
    pipeline->add(u"Present"_s, std::make_unique<TextureToScreenRenderPass>());
    pipeline->connect(u"Fill.Frame"_s, u"Present.Texture"_s);
    pipeline->bindStandard();
    pipeline->bind(u"Present"_s, u"FramebufferOut"_s, u"screen"_s);
    ViewportWidget view;
    view.resize(kWidth, kHeight);
    view.setPipeline(std::move(pipeline));
    view.setSlotValues({{u"Fill.ColorTop"_s, QColor(0, 128, 255)}, {u"Fill.ColorBottom"_s, QColor(0, 128, 255)}});
    showAndSettle(view);
    EXPECT_EQ(middleOf(view), QColor(0, 128, 255));
    // It outlives the context, as that of a file does.
    QWidget other;
    other.resize(300, 300);
    other.show();
    view.setParent(&other);
    view.show();
    ASSERT_TRUE(settle(view));
    EXPECT_EQ(middleOf(view), QColor(0, 128, 255));
    view.setParent(nullptr);
}

TEST_F(ViewportWidgetTest, SaysWhatIsWrong)
{
    ViewportWidget view;
    view.resize(kWidth, kHeight);
    QSignalSpy errors(&view, &ViewportWidget::errorsChanged);
    QSignalSpy faults(&view, &ViewportWidget::faultsChanged);
    QSignalSpy shaders(&view, &ViewportWidget::shaderFailed);
    const QString path = folder.filePath(u"wrong.json"_s);
    write(path, gradientFile("#336699"));
    QStringList mistakes;
    EXPECT_FALSE(view.setPipelineFile(u"/nowhere.json"_s, &mistakes));
    EXPECT_EQ(mistakes.size(), 1);
    ASSERT_TRUE(view.setPipelineFile(path));
    view.setSlotValues({{u"Fill.ColourTop"_s, u"#ffffff"_s}, {u"Bare"_s, 1}});
    view.show();
    ASSERT_TRUE(waitFor([&] { return errors.count() > 0; }));
    const QStringList said = errors[0][0].toStringList();
    ASSERT_EQ(said.size(), 2);
    EXPECT_TRUE(said[1].contains(u"ColorTop"_s)) << qPrintable(said[1]);
    view.setSlotValues({});
    ASSERT_TRUE(waitFor([&] { return errors.count() > 1; }));
    EXPECT_EQ(errors[1][0].toStringList(), QStringList());
    EXPECT_EQ(middleOf(view), QColor(0x33, 0x66, 0x99)) << "what the file says";

    bool handlerHeard = false;
    ShaderProgram::setFailureHandler([&](const ShaderFailure &) { handlerHeard = true; });
    write(path, R"({ "passes": [ { "name": "S", "class": "ShaderRenderPass", "calls": [
      { "addOutput": ["Kvo_KvoTexture*_Out"] }, { "setFragmentShaderSource": ["#version 150\nnonsense"] } ],
      "inputs": { "Viewport": "@viewport" } } ] })");
    ASSERT_TRUE(waitFor([&] { return shaders.count() > 0; }));
    EXPECT_TRUE(shaders[0][0].toString().contains(u"nonsense"_s));
    EXPECT_TRUE(handlerHeard) << "the host's own handler stays";
    ShaderProgram::setFailureHandler({});
    EXPECT_EQ(faults.count(), 0);
}

TEST_F(ViewportWidgetTest, ModelOfTheHostMayGoFirstOrLast)
{
    if (!QCoreApplication::testAttribute(Qt::AA_ShareOpenGLContexts))
        GTEST_SKIP() << "a model of the host's needs shared contexts";
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext context;
    context.setShareContext(QOpenGLContext::globalShareContext());
    ASSERT_TRUE(context.create() && context.makeCurrent(&surface));
    auto model = std::make_unique<GPUModel>();
    ASSERT_TRUE(model->upload(row()));
    auto view = viewOf(ModelData(), "forward");
    view->setModel(model.get());
    showAndSettle(*view);
    EXPECT_TRUE(view->pickAt({62, 84}).isHit());
    EXPECT_EQ(view->pickAt({62, 84}).material, -1) << "the widget does not know";
    const QImage shown = view->grabFramebuffer();
    view->setSelection({0, 1});
    ASSERT_TRUE(settle(*view));

    ASSERT_TRUE(context.makeCurrent(&surface));
    model.reset();
    view->invalidate();
    ASSERT_TRUE(settle(*view));
    EXPECT_GT(differing(shown, view->grabFramebuffer()), 0.05);
    EXPECT_FALSE(view->pickAt({62, 84}).isHit());

    ASSERT_TRUE(context.makeCurrent(&surface));
    model = std::make_unique<GPUModel>();
    ASSERT_TRUE(model->upload(row()));
    view->setModel(model.get());
    view->setSelection({});
    ASSERT_TRUE(settle(*view));
    EXPECT_LT(differing(shown, view->grabFramebuffer()), 0.001);
    view.reset();
    ASSERT_TRUE(context.makeCurrent(&surface));
    EXPECT_EQ(model->itemCount(), 4);
    model.reset();
}

TEST_F(ViewportWidgetTest, TwoOfThemKeepApart)
{
    auto one = viewOf(row());
    auto other = viewOf(row(), "toon");
    showAndSettle(*one);
    showAndSettle(*other);
    const QImage first = one->grabFramebuffer();
    EXPECT_GT(differing(first, other->grabFramebuffer()), 0.05);
    drag(*other, Qt::LeftButton, {100, 80}, {160, 70});
    ASSERT_TRUE(settle(*other));
    EXPECT_EQ(one->grabFramebuffer(), first);
    other.reset();
    one->invalidate();
    ASSERT_TRUE(settle(*one));
    EXPECT_EQ(one->grabFramebuffer(), first);
}

TEST_F(ViewportWidgetTest, MovesIntoAnotherWindowAndBack)
{
    const ModelData data = row();
    for (const char *pipeline : {"forward", "taa", "shadows", "oit"}) {
        auto view = viewOf(data, pipeline);
        view->setSelection({1});
        showAndSettle(*view);
        const QImage before = view->grabFramebuffer();
        const QOpenGLContext *context = view->context();
        {
            QWidget window;
            window.resize(400, 300);
            window.show();
            view->setParent(&window);
            view->show();
            ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
            ASSERT_TRUE(settle(*view));
            EXPECT_LT(differing(before, view->grabFramebuffer()), 0.08) << pipeline;
            EXPECT_TRUE(view->pickAt({62, 84}).isHit());
            if (!QCoreApplication::testAttribute(Qt::AA_ShareOpenGLContexts)) {
                EXPECT_NE(view->context(), context) << "or this test says nothing";
            }
            view->setParent(nullptr);
        }
        view->show();
        ASSERT_TRUE(settle(*view));
        // Random offsets differ from run to run; all else is the same.
        EXPECT_LE(differing(before, view->grabFramebuffer()), qstrcmp(pipeline, "taa") == 0 ? 0.08 : 0.0) << pipeline;
    }
}

TEST_F(ViewportWidgetTest, HiddenItRestsAndShownItIsThere)
{
    const auto view = viewOf(row());
    showAndSettle(*view);
    const QImage before = view->grabFramebuffer();
    view->hide();
    work(50);
    const int frames = view->frameCount();
    view->look(OrbitCamera::View::Top);
    work(100);
    EXPECT_EQ(view->frameCount(), frames);
    view->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(view.get()));
    ASSERT_TRUE(waitFor([&] { return view->isSettled(); }));
    EXPECT_GT(differing(before, view->grabFramebuffer()), 0.05);
    view->resize(kWidth + 40, kHeight - 30);
    ASSERT_TRUE(waitFor([&] { return view->grabFramebuffer().size() == view->size() * view->devicePixelRatio(); }));
    ASSERT_TRUE(settle(*view));
    EXPECT_EQ(
        view->grabFramebuffer(),
        view->grabPicture(view->size() * view->devicePixelRatio()).convertToFormat(view->grabFramebuffer().format()));
}

TEST_F(ViewportWidgetTest, NeverShownItStillGivesAPicture)
{
    {
        const auto unused = viewOf(row());
    }
    const auto view = viewOf(row());
    const QImage picture = view->grabPicture({kWidth, kHeight});
    ASSERT_EQ(picture.size(), QSize(kWidth, kHeight));
    showAndSettle(*view);
    EXPECT_LT(differing(picture, view->grabPicture({kWidth, kHeight})), 0.0001);
}

TEST_F(ViewportWidgetTest, KeysLookFromStandardDirections)
{
    const auto view = viewOf(row());
    showAndSettle(*view);
    QTest::keyClick(view.get(), Qt::Key_3);
    EXPECT_FLOAT_EQ(view->camera().yaw(), 90);
    QTest::keyClick(view.get(), Qt::Key_7, Qt::ControlModifier);
    EXPECT_FLOAT_EQ(view->camera().pitch(), -90);
    QTest::keyClick(view.get(), Qt::Key_5);
    EXPECT_TRUE(view->camera().isOrthographic());
    ASSERT_TRUE(settle(*view));
    const QImage seen = view->grabFramebuffer();
    view->setUp({0, 0, 1});
    ASSERT_TRUE(settle(*view));
    EXPECT_GT(differing(seen, view->grabFramebuffer()), 0.02);
    wheel(*view, {10, 10}, 5);
    const float near = view->camera().distance();
    QTest::keyClick(view.get(), Qt::Key_F);
    EXPECT_GT(view->camera().distance(), near * 1.5f);
    EXPECT_EQ(view->camera().scene().minimum, boxOf(row()).minimum);
}

TEST_F(ViewportWidgetTest, FingersTurnPanAndPinch)
{
    const auto view = viewOf(row());
    showAndSettle(*view);
    const std::unique_ptr<QPointingDevice> screen(QTest::createTouchDevice());
    auto hand = QTest::touchEvent(view.get(), screen.get(), false); // remembers its fingers
    const OrbitCamera start = view->camera();
    hand.press(0, {100, 80}, view.get()).commit();
    hand.move(0, {120, 80}, view.get()).commit();
    EXPECT_NEAR(view->camera().yaw(), start.yaw() - 8, 1e-3);
    hand.stationary(0).press(1, {60, 80}, view.get()).commit();
    EXPECT_NEAR(view->camera().yaw(), start.yaw() - 8, 1e-3) << "another finger is no movement";
    const float distance = view->camera().distance();
    // From 60 apart to 120 apart, around the same middle.
    const Pick before = view->pickAt({90, 80});
    hand.move(0, {150, 80}, view.get()).move(1, {30, 80}, view.get()).commit();
    EXPECT_NEAR(view->camera().distance(), distance / 2, 1e-3);
    const Pick after = view->pickAt({90, 80});
    EXPECT_EQ(before.item, after.item);
    // Both by the same way: what is under them comes along, with nothing turned.
    const float yaw = view->camera().yaw();
    const QVector3D pivot = view->camera().pivot();
    hand.move(0, {160, 100}, view.get()).move(1, {40, 100}, view.get()).commit();
    EXPECT_EQ(view->camera().yaw(), yaw);
    EXPECT_GT((view->camera().pivot() - pivot).length(), 0.01f);
    hand.release(0, {160, 100}, view.get()).release(1, {40, 100}, view.get()).commit();

    const float beforePinch = view->camera().distance();
    QNativeGestureEvent pinch(Qt::ZoomNativeGesture, QPointingDevice::primaryPointingDevice(), 2, QPointF(90, 80),
                              QPointF(90, 80), view->mapToGlobal(QPointF(90, 80)), 0.25, QPointF());
    QCoreApplication::sendEvent(view.get(), &pinch);
    EXPECT_NEAR(view->camera().distance(), beforePinch / 1.25f, 1e-3);
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (argc > 1 && qstrcmp(argv[argc - 1], "--shared") == 0)
        QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    ViewportWidget::setDefaultFormat();
    const QApplication application(argc, argv);
    MessageCapture::install();
    GlCalls::install();
    return RUN_ALL_TESTS();
}
