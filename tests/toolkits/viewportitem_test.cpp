// The QML item in a real window on a virtual X server. ctest runs this binary with both render loops of the scene
// graph, and with a scene graph that is not on OpenGL.

#include "support/scenes.h"
#include "toolkits/pictures.h"

#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/sceneimport.h>
#include <host/screentarget.h>
#include <host/viewportitem.h>

#include <QGuiApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickView>
#include <QSignalSpy>
#include <QSurfaceFormat>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

constexpr int kWidth = 240;
constexpr int kHeight = 160;
const QString kPipelines = QStringLiteral(KVO_SOURCE_DIR "/pipelines/");
const QString kModel = u"/usr/share/assimp/models/glTF2/BoxTextured-glTF-Binary/BoxTextured.glb"_s;

// What the item should show, by a Pipeline in a context of this thread.
QImage expectedPicture(const ModelData &data, const QString &file, const OrbitCamera &camera, const QSize &size,
                       const QString &slotText = QString())
{
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext context;
    if (!context.create() || !context.makeCurrent(&surface))
        return {};
    ViewportItem::lockLibrary();
    QImage picture;
    {
        GPUModel model;
        model.upload(data);
        Pipeline pipeline;
        QStringList errors;
        EXPECT_TRUE(loadPipeline(file, &pipeline, &errors)) << qPrintable(errors.join(u'\n'));
        if (!slotText.isEmpty()) {
            EXPECT_TRUE(pipeline.setValueText(slotText.section(u'.', 0, 0),
                                              slotText.section(u'.', 1).section(u'=', 0, 0),
                                              slotText.section(u'=', 1)));
        }
        ScreenTarget target;
        EXPECT_TRUE(target.resize(size));
        target.clear(Qt::black);
        const float aspect = float(size.width()) / float(size.height());
        pipeline.setModel(&model);
        pipeline.setViewport(QRect(QPoint(), size));
        pipeline.setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspect), camera.nearPlane(),
                           camera.farPlane());
        pipeline.setScreen(target.framebuffer());
        EXPECT_TRUE(pipeline.render());
        picture = target.image();
    }
    context.doneCurrent();
    ViewportItem::unlockLibrary();
    return picture;
}

bool isOnOpenGL(QQuickWindow &window)
{
    return window.rendererInterface()->graphicsApi() == QSGRendererInterface::OpenGL;
}

class ViewportItemTest : public ::testing::Test
{
protected:
    // A window with one item and a red stripe beside it.
    std::unique_ptr<QQuickView> open(const QByteArray &properties)
    {
        const QString path = folder.filePath(u"scene.qml"_s);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return {};
        file.write("import QtQuick\nimport Kvo\nItem { width: 300; height: 200\n"
                   "  Rectangle { anchors.fill: parent; color: \"red\" }\n"
                   "  Viewport { objectName: \"viewport\"; x: 40; y: 20; width: 240; height: 160\n"
                   + properties + "\n  }\n}\n");
        file.close();
        auto view = std::make_unique<QQuickView>();
        view->setSource(QUrl::fromLocalFile(path));
        EXPECT_TRUE(view->errors().isEmpty()) << qPrintable(view->errors().value(0).toString());
        view->show();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(view.get()));
        return view;
    }

    static ViewportItem *itemOf(QQuickView &view)
    {
        return view.rootObject()->findChild<ViewportItem *>(u"viewport"_s);
    }

    static bool settle(const ViewportItem *item)
    {
        QTest::qWait(100);
        return QTest::qWaitFor([&] { return item->isSettled(); }, 20000);
    }

    static QImage pictureOf(QQuickView &view) { return view.grabWindow().copy(40, 20, kWidth, kHeight); }

    QTemporaryDir folder;
};

QByteArray withModel(const char *pipeline, const char *more = "")
{
    return "source: \"file://" + kModel.toUtf8() + "\"; pipeline: \"" + kPipelines.toUtf8() + pipeline + ".json\"\n"
           + more;
}

} // namespace

TEST_F(ViewportItemTest, ShowsWhatThePipelineDrawsInATargetOfItsOwn)
{
    const ModelData data = importScene(kModel);
    for (const char *name : {"deferred-model", "smaa"}) {
        const auto view = open(withModel(name));
        ViewportItem *item = itemOf(*view);
        ASSERT_TRUE(QTest::qWaitFor([&] { return item->camera().scene().maximum == boxOf(data).maximum; }, 20000));
        ASSERT_TRUE(settle(item));
        const QImage shown = pictureOf(*view);
        const QImage expected =
            expectedPicture(data, kPipelines + QLatin1StringView(name) + u".json"_s, item->camera(), {kWidth, kHeight});
        ASSERT_FALSE(expected.isNull());
        // deferred-model leaves the background transparent: there the window shows.
        int compared = 0;
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const QColor color = expected.pixelColor(x, y);
                const QColor over = shown.pixelColor(x, y);
                if (color.alpha() < 255)
                    continue;
                ++compared;
                ASSERT_LE(std::abs(over.red() - color.red()), 2) << name << " " << x << ", " << y;
                ASSERT_LE(std::abs(over.green() - color.green()), 2) << name << " " << x << ", " << y;
                ASSERT_LE(std::abs(over.blue() - color.blue()), 2) << name << " " << x << ", " << y;
            }
        }
        EXPECT_GT(compared, kWidth * kHeight / 5);
        EXPECT_EQ(view->grabWindow().pixelColor(5, 5), QColor(Qt::red));
        // A lower half of its own, or an upright picture and a turned one would be the same.
        EXPECT_GT(differing(shown, shown.mirrored()), 0.1);
    }
}

TEST_F(ViewportItemTest, AnotherSizeIsDrawnAnew)
{
    const ModelData data = importScene(kModel);
    const auto view = open(withModel("smaa"));
    ViewportItem *item = itemOf(*view);
    ASSERT_TRUE(QTest::qWaitFor([&] { return item->camera().scene().maximum == boxOf(data).maximum; }, 20000));
    ASSERT_TRUE(settle(item));
    const OrbitCamera camera = item->camera();
    for (const QSize &size : {QSize(180, 170), QSize(90, 40), QSize(kWidth, kHeight)}) {
        item->setSize(size);
        ASSERT_TRUE(settle(item));
        EXPECT_TRUE(item->camera() == camera) << "or something else has it drawn";
        const QImage shown = view->grabWindow().copy(40, 20, size.width(), size.height());
        const QImage expected = expectedPicture(data, kPipelines + u"smaa.json"_s, camera, size);
        EXPECT_EQ(differing(shown, expected), 0) << size.width();
    }
}

TEST_F(ViewportItemTest, SlotValuesComeAndGo)
{
    const ModelData data = importScene(kModel);
    const auto view = open(withModel("smaa", "slotValues: ({\"Backdrop.ColorTop\": \"#00ff00\"})"));
    ViewportItem *item = itemOf(*view);
    ASSERT_TRUE(QTest::qWaitFor([&] { return item->camera().scene().maximum == boxOf(data).maximum; }, 20000));
    ASSERT_TRUE(settle(item));
    const QString file = kPipelines + u"smaa.json"_s;
    EXPECT_EQ(differing(pictureOf(*view),
                        expectedPicture(data, file, item->camera(), {kWidth, kHeight}, u"Backdrop.ColorTop=#00ff00"_s)),
              0);
    item->setSlotValues({});
    ASSERT_TRUE(settle(item));
    EXPECT_EQ(differing(pictureOf(*view), expectedPicture(data, file, item->camera(), {kWidth, kHeight})), 0);
    QSignalSpy errors(item, &ViewportItem::errorsChanged);
    item->setSlotValues({{u"Backdrop.NoSuchSlot"_s, 1}});
    ASSERT_TRUE(QTest::qWaitFor([&] { return errors.count() > 0; }));
    EXPECT_TRUE(item->errors().value(0).contains(u"NoSuchSlot"_s));
}

TEST_F(ViewportItemTest, AHandTurnsPicksAndShowsAll)
{
    const auto view = open(withModel("smaa"));
    ViewportItem *item = itemOf(*view);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !item->isSettled() || item->camera().distance() < 3; }, 20000));
    ASSERT_TRUE(settle(item));
    const QImage before = pictureOf(*view);
    const OrbitCamera camera = item->camera();
    const QPoint middle(40 + kWidth / 2, 20 + kHeight / 2);
    QTest::mousePress(view.get(), Qt::LeftButton, {}, middle);
    for (int i = 1; i <= 10; ++i)
        QTest::mouseMove(view.get(), middle + QPoint(5 * i, 0));
    QTest::mouseRelease(view.get(), Qt::LeftButton, {}, middle + QPoint(50, 0));
    EXPECT_LT(item->yaw(), qreal(camera.yaw()) - 10);
    ASSERT_TRUE(settle(item));
    EXPECT_GT(differing(before, pictureOf(*view)), 0.05);

    QSignalSpy clicked(item, &ViewportItem::clicked);
    QSignalSpy picked(item, &ViewportItem::picked);
    QTest::qWait(600); // or it would be a double click
    QTest::mouseClick(view.get(), Qt::LeftButton, {}, middle);
    ASSERT_TRUE(QTest::qWaitFor([&] { return clicked.count() > 0; }));
    EXPECT_EQ(clicked[0][0].toMap().value(u"item"_s).toInt(), 0);
    EXPECT_EQ(clicked[0][0].toMap().value(u"material"_s).toInt(), 0);
    item->pick(2, 2);
    ASSERT_TRUE(QTest::qWaitFor([&] { return picked.count() > 0; }));
    EXPECT_EQ(picked[0][0].toMap().value(u"item"_s).toInt(), -1);
    // The place on the surface comes back to where it was asked for.
    item->pick(100.5, 60.5);
    ASSERT_TRUE(QTest::qWaitFor([&] { return picked.count() > 1; }));
    const auto place = picked[1][0].toMap().value(u"position"_s).value<QVector3D>();
    const auto at = item->camera().project(place, QSizeF(kWidth, kHeight));
    ASSERT_TRUE(at.has_value());
    EXPECT_NEAR(at->x(), 100.5, 0.05);
    EXPECT_NEAR(at->y(), 60.5, 0.05);

    item->setSelection({0});
    ASSERT_TRUE(settle(item));
    int orange = 0;
    const QImage outlined = pictureOf(*view);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            orange += outlined.pixelColor(x, y) == QColor(0xff, 0x9a, 0x1f);
    EXPECT_GT(orange, 100);
}

TEST_F(ViewportItemTest, LeftAloneItDrawsNothing)
{
    const auto view = open(withModel("taa"));
    ViewportItem *item = itemOf(*view);
    QSignalSpy frames(item, &ViewportItem::frameDrawn);
    ASSERT_TRUE(QTest::qWaitFor([&] { return frames.count() >= 30 && item->isSettled(); }, 20000));
    ASSERT_TRUE(settle(item));
    const qsizetype before = frames.count();
    view->update(); // the window, with all that is in it
    QTest::qWait(200);
    EXPECT_EQ(frames.count(), before);
    item->setYaw(item->yaw() + 10);
    QTest::qWait(100);
    ASSERT_TRUE(settle(item));
    QTest::qWait(200);
    EXPECT_EQ(frames.count() - before, 30);
}

TEST_F(ViewportItemTest, SaysWhatCannotBeRead)
{
    const auto view = open("source: \"file:///nowhere.glb\"; pipeline: \"no-such-pipeline\"");
    ViewportItem *item = itemOf(*view);
    ASSERT_TRUE(QTest::qWaitFor([&] { return item->errors().size() > 1; }));
    const QString all = item->errors().join(u'\n');
    EXPECT_TRUE(all.contains(u"/nowhere.glb"_s)) << qPrintable(all);
    EXPECT_TRUE(all.contains(u"no-such-pipeline"_s)) << qPrintable(all);
}

TEST_F(ViewportItemTest, ReadsAChangedFileAgainAndWritesPictures)
{
    const QString path = folder.filePath(u"live.json"_s);
    const auto write = [&](const char *color) {
        QFile::remove(path);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(R"({ "passes": [ { "name": "Fill", "class": "GradientRenderPass",
            "inputs": { "Viewport": "@viewport", "ColorTop": "COLOR", "ColorBottom": "COLOR" } },
          { "name": "Present", "class": "TextureToScreenRenderPass",
            "inputs": { "Viewport": "@viewport", "Texture": { "from": "Fill.Frame" }, "FramebufferOut": "@screen" } } ] })")
                       .replace("COLOR", color));
    };
    write("#0000ff");
    const auto view = open("pipeline: \"" + path.toUtf8() + "\"");
    const auto becomes = [&](const QColor &color) {
        return QTest::qWaitFor([&] { return pictureOf(*view).pixelColor(100, 100) == color; });
    };
    EXPECT_TRUE(becomes(QColor(0, 0, 255)));
    write("#00ff00");
    EXPECT_TRUE(becomes(QColor(0, 255, 0)));
    ViewportItem *item = itemOf(*view);
    QSignalSpy grabbed(item, &ViewportItem::grabbed);
    const QString picture = folder.filePath(u"large.png"_s);
    item->grab(picture, 700, 500);
    ASSERT_TRUE(QTest::qWaitFor([&] { return grabbed.count() > 0; }));
    EXPECT_EQ(grabbed[0][1].toString(), QString());
    EXPECT_EQ(QImage(picture).size(), QSize(700, 500));
    EXPECT_EQ(QImage(picture).pixelColor(350, 20), QColor(0, 255, 0));
}

TEST_F(ViewportItemTest, TwoWindowsAndTheirEnds)
{
    for (int round = 0; round < 3; ++round) {
        auto one = open(withModel("smaa"));
        auto other = open(withModel("deferred-model"));
        // Away in the middle of whatever it does, then the one that goes on.
        QTest::qWait(40 * round);
        one.reset();
        ViewportItem *item = itemOf(*other);
        ASSERT_TRUE(QTest::qWaitFor([&] { return item->isSettled(); }, 20000));
        // An item that leaves its window, and one that changes it.
        auto third = open("");
        item->setParentItem(third->rootObject());
        QTest::qWait(50);
        EXPECT_TRUE(QTest::qWaitFor([&] { return item->isSettled(); }, 20000));
        item->setParentItem(nullptr);
        QTest::qWait(50);
        delete item;
    }
}

TEST(ViewportItemElsewhere, AnotherBackendIsSaidAndHarmless)
{
    QQuickView view;
    view.resize(200, 150);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    if (isOnOpenGL(view))
        GTEST_SKIP() << "the scene graph is on OpenGL";
    auto *item = new ViewportItem(view.contentItem());
    item->setSize(QSizeF(100, 80));
    item->setModel(cubeScene());
    item->setPipeline(kPipelines + u"forward.json"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !item->errors().isEmpty(); }));
    EXPECT_TRUE(item->errors().value(0).contains(u"OpenGL"_s));
    item->pick(5, 5);
    QTest::qWait(100);
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND")) {
        QQuickWindow::setGraphicsApi(QSGRendererInterface::OpenGL);
        QSurfaceFormat format;
        format.setVersion(4, 5);
        format.setProfile(QSurfaceFormat::CoreProfile);
        QSurfaceFormat::setDefaultFormat(format);
    } else {
        ::testing::GTEST_FLAG(filter) = "ViewportItemElsewhere*";
    }
    const QGuiApplication application(argc, argv);
    // Half of the runs take the types from the library, half from the module on the import path.
    if (qEnvironmentVariableIsEmpty("QML_IMPORT_PATH"))
        registerQuickTypes();
    return RUN_ALL_TESTS();
}
