// The real window of kvoview on a virtual X server, driven as by hands and by files that change.

#include <epoxy/gl.h>

#include "support/glcalls.h"
#include "support/messages.h"
#include "support/scenes.h"
#include "toolkits/pictures.h"
#include "toolkits/raycast.h"

#include "exporting.h"
#include "frameprobe.h"
#include "graphview.h"
#include "inspector.h"
#include "logpanel.h"
#include "modelimport.h"
#include "passespanel.h"
#include "resourceview.h"
#include "session.h"
#include "sloteditor.h"
#include "slotspanel.h"
#include "texels.h"
#include "textureview.h"
#include "window.h"

#include <gl/guards.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/camera.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/slotvalue.h>
#include <host/viewportwidget.h>

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QDropEvent>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QMimeData>
#include <QProcess>
#include <QProgressBar>
#include <QSettings>
#include <QSignalSpy>
#include <QSlider>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>
#include <QTreeWidget>

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>
#include <numeric>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

const QString kPipelines = QStringLiteral(KVO_SOURCE_DIR "/pipelines/");
const QString kBox = u"/usr/share/assimp/models/glTF2/BoxTextured-glTF-Binary/BoxTextured.glb"_s;
const QString kEngine = u"/usr/share/assimp/models/glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb"_s;

// Three boxes side by side.
ModelData boxes()
{
    ModelData data;
    data.meshes << cubeMesh();
    data.materials << material({0.9f, 0.2f, 0.1f}) << material({0.1f, 0.8f, 0.2f}) << material({0.2f, 0.3f, 0.9f});
    for (int i = 0; i < 3; ++i) {
        ModelItem item;
        item.material = i;
        item.transform.translate(2.4f * float(i - 1), 0, 0.7f * float(i));
        item.transform.rotate(25.0f * float(i), 0.3f, 1.0f, 0.2f);
        data.items << item;
    }
    return data;
}

const QByteArray kShader = R"(#version 150
uniform float Kvo_float_Level;
uniform vec3 Kvo_QVector3D_Tint;
out vec4 o_Frame;
void main()
{
  o_Frame = vec4(Kvo_QVector3D_Tint * Kvo_float_Level, 1.0);
}
)";

const QByteArray kShaderFile = R"({
  // A colour of the hand's.
  "passes": [
    { "name": "Fill", "class": "ShaderRenderPass", // it fills
      "calls": [ { "addInput": ["Kvo_float_Level"] }, { "addInput": ["Kvo_QVector3D_Tint"] },
                 { "addOutput": ["Kvo_KvoTexture*_Frame"] },
                 { "setFragmentShaderSource": [{ "contentOf": "fill.frag" }] } ],
      "inputs": { "Viewport": "@viewport", "Level": 0.5, "Tint": [1, 1, 1] } },
    { "name": "Present", "class": "TextureToScreenRenderPass",
      "inputs": { "Viewport": "@viewport", "Texture": { "from": "Fill.Frame" }, "FramebufferOut": "@screen" } } ] }
)";

const QByteArray kTwoColors = R"({ "passes": [
  { "name": "Red", "class": "GradientRenderPass",
    "inputs": { "Viewport": "@viewport", "ColorTop": "#ff0000", "ColorBottom": "#ff0000" } },
  { "name": "Blue", "class": "GradientRenderPass",
    "inputs": { "Viewport": "@viewport", "ColorTop": "#0000ff", "ColorBottom": "#0000ff" } },
  { "name": "Soft", "class": "GaussianBlurRenderPass",
    "inputs": { "Viewport": "@viewport", "Input": { "from": "Red.Frame" }, "BlurRadius": 2 } },
  { "name": "Present", "class": "TextureToScreenRenderPass",
    "inputs": { "Viewport": "@viewport", "Texture": { "from": "Soft.Output" }, "FramebufferOut": "@screen" } } ] }
)";

bool waitFor(const std::function<bool()> &condition, int milliseconds = 20000)
{
    return QTest::qWaitFor(condition, milliseconds);
}

void write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(path);
    return file.readAll();
}

class KvoviewTest : public ::testing::Test
{
protected:
    void SetUp() override { QSettings().clear(); }
    void TearDown() override
    {
        window.reset();
        EXPECT_EQ(GlCalls::live(), 0) << qPrintable(GlCalls::liveObjects().join(u'\n'));
    }

    QString path(const QString &name) const { return folder.filePath(name); }
    QString fileWith(const QByteArray &content, const QString &name = u"pipeline.json"_s) const
    {
        write(path(name), content);
        return path(name);
    }

    // Shown with a pipeline and settled.
    void show(const QString &pipeline, const ViewOptions &options = {})
    {
        window = std::make_unique<Window>(options, false);
        window->resize(1000, 700);
        ASSERT_TRUE(window->openPipeline(pipeline)) << qPrintable(window->problem());
        window->run(0);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
        ASSERT_TRUE(waitFor([this] { return window->session()->pipeline() && view().frameCount() > 0; }));
        settle();
    }
    void showModel(const ModelData &model = boxes())
    {
        window->showModel(model, QString());
        settle();
    }
    void settle()
    {
        QTest::qWait(0);
        ASSERT_TRUE(waitFor([this] { return view().isSettled(); }));
        QTest::qWait(0);
    }
    QImage picture()
    {
        settle();
        return view().grabFramebuffer();
    }
    QColor middle()
    {
        const QImage image = picture();
        return image.pixelColor(image.width() / 2, image.height() / 2);
    }
    void drop(const QString &file)
    {
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(file)});
        QDragEnterEvent enter(QPoint(50, 50), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(window.get(), &enter);
        EXPECT_TRUE(enter.isAccepted());
        QDropEvent event(QPointF(50, 50), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(window.get(), &event);
    }
    // By the keyboard, into the field of a number.
    void type(const QString &slot, const QString &text)
    {
        SlotEditor *editor = window->slotsPanel()->editor(slot);
        ASSERT_NE(editor, nullptr) << qPrintable(slot);
        auto *field = editor->findChild<QDoubleSpinBox *>();
        ASSERT_NE(field, nullptr);
        field->setFocus();
        field->selectAll();
        QTest::keyClicks(field, text);
        QTest::keyClick(field, Qt::Key_Return);
    }
    void click(const char *action) { window->action(QLatin1StringView(action))->trigger(); }

    ViewportWidget &view() { return *window->view(); }
    Session &session() { return *window->session(); }
    Pipeline &pipeline() { return *session().pipeline(); }

    QTemporaryDir folder;
    std::unique_ptr<Window> window;
};

void drag(QWidget *widget, const QPoint &from, const QPoint &to)
{
    QTest::mousePress(widget, Qt::LeftButton, {}, from);
    for (const QPoint &at : {(from + to) / 2, to}) {
        QMouseEvent move(QEvent::MouseMove, at, widget->mapToGlobal(at), Qt::NoButton, Qt::LeftButton, {});
        QCoreApplication::sendEvent(widget, &move);
    }
    QTest::mouseRelease(widget, Qt::LeftButton, {}, to);
}

} // namespace

// Slots

// The view of a text is the picture's of kvorender, and turns around the text's own up, from straight above too.
TEST(KvoviewCamera, IsThatOfItsText)
{
    constexpr float kMatrix = 2e-4f; // angles and places of some 20 units in single precision
    const GPUModel::BoundingBox box{{-1, -2, -3}, {4, 5, 6}};
    for (const char *angles : {"", "yaw=-30:pitch=20", "yaw=30:pitch=90", "yaw=-100:pitch=-90", "yaw=10:pitch=89.7",
                               "yaw=170:pitch=-89.9", "eye=9,3,2:target=1,1,1"})
        for (const char *up : {"", "up=0,0,1", "up=1,2,0"}) {
            const QString text = QStringList({QLatin1StringView(angles), QLatin1StringView(up)}).join(u':');
            SCOPED_TRACE(text.toStdString());
            const QString settings = text.startsWith(u':') ? text.mid(1) : text.endsWith(u':') ? text.chopped(1) : text;
            OrbitCamera camera, again;
            Camera picture;
            QString error;
            ASSERT_TRUE(cameraOf(settings, box, 1.5f, &camera, &error)) << qPrintable(error);
            ASSERT_TRUE(Camera::parse(settings, box, 1.5f, &picture, &error)) << qPrintable(error);
            for (int i = 0; i < 16; ++i)
                EXPECT_NEAR(camera.cameraMatrix().constData()[i], picture.cameraMatrix().constData()[i], kMatrix);
            const QVector3D axis =
                *up ? (up[3] == '1' ? QVector3D(1, 2, 0).normalized() : QVector3D(0, 0, 1)) : QVector3D(0, 1, 0);
            EXPECT_LT((camera.up() - axis).length(), 1e-6f);
            // What it says of itself is read back as itself, but for the axis at the poles.
            ASSERT_TRUE(cameraOf(camera.settings(), box, 1.5f, &again, &error)) << qPrintable(error);
            for (int i = 0; i < 16; ++i)
                EXPECT_NEAR(camera.cameraMatrix().constData()[i], again.cameraMatrix().constData()[i], kMatrix);
            if (std::abs(camera.pitch()) < 89.0f) {
                EXPECT_LT((again.up() - axis).length(), 1e-6f);
            }
        }
}

TEST_F(KvoviewTest, AnEditedSlotIsSeenUndoneAndRestored)
{
    write(path(u"fill.frag"_s), kShader);
    show(fileWith(kShaderFile));
    EXPECT_NEAR(middle().red(), 128, 1);
    EXPECT_EQ(session().chosenPass(), u"Fill"_s);
    EXPECT_TRUE(window->slotsPanel()->restoreButton(u"Level"_s)->isEnabled()) << "the file gives a value";
    type(u"Level"_s, u"0.75"_s);
    EXPECT_NEAR(middle().red(), 191, 1);
    EXPECT_TRUE(window->isWindowModified());
    EXPECT_EQ(pipeline().inputs(u"Fill"_s)[1].value.toFloat(), 0.75f);
    click("undo");
    EXPECT_NEAR(middle().red(), 128, 1);
    EXPECT_FALSE(window->isWindowModified());
    EXPECT_NEAR(window->slotsPanel()->editor(u"Level"_s)->findChild<QDoubleSpinBox *>()->value(), 0.5, 1e-6);
    click("redo");
    EXPECT_NEAR(middle().red(), 191, 1);
    window->slotsPanel()->restoreButton(u"Level"_s)->click();
    EXPECT_EQ(pipeline().inputs(u"Fill"_s)[1].kind, PassInput::Kind::Default);
    EXPECT_FALSE(window->slotsPanel()->restoreButton(u"Level"_s)->isEnabled());
    click("undo");
    click("undo");
    EXPECT_NEAR(middle().red(), 128, 1);

    // A vector, number by number.
    const auto fields = window->slotsPanel()->editor(u"Tint"_s)->findChildren<QDoubleSpinBox *>();
    ASSERT_EQ(fields.size(), 3);
    fields[1]->setValue(0.0);
    const QColor tinted = middle();
    EXPECT_NEAR(tinted.red(), 128, 1);
    EXPECT_EQ(tinted.green(), 0);
}

TEST_F(KvoviewTest, APullAtASliderIsOneStepBack)
{
    show(fileWith(kTwoColors));
    session().choosePass(u"Soft"_s);
    auto *slider = window->slotsPanel()->editor(u"BlurRadius"_s)->findChild<QSlider *>();
    ASSERT_NE(slider, nullptr);
    const int steps = session().undoStack()->count();
    slider->setSliderDown(true);
    for (int place : {40, 80, 120})
        slider->setSliderPosition(place), slider->setValue(place);
    slider->setSliderDown(false);
    settle();
    EXPECT_EQ(session().undoStack()->count(), steps + 1);
    const auto radius = [this] { return pipeline().inputs(u"Soft"_s); };
    const auto valueOf = [&](const QString &slot) {
        for (const PassInput &input : radius())
            if (input.slot.endsWith(slot))
                return input.value.toDouble();
        return -1.0;
    };
    EXPECT_GT(valueOf(u"BlurRadius"_s), 10.0);
    click("undo");
    EXPECT_EQ(valueOf(u"BlurRadius"_s), 2.0);
}

TEST_F(KvoviewTest, OutputsThatAreNoTexturesShowTheirValues)
{
    show(kPipelines + u"luminance.json"_s);
    showModel();
    QString pass, slot;
    for (const QString &name : pipeline().order())
        if (pipeline().className(name) == u"LuminanceAverageRenderPass")
            pass = name;
    for (const QString &output : pipeline().outputs(pass))
        if (output.startsWith(u"Kvo_float_"_s))
            slot = output;
    ASSERT_FALSE(slot.isEmpty());
    session().choosePass(pass);
    view().invalidate();
    settle();
    const QString expected = describeSlotValue(pipeline().output(pass, slot));
    EXPECT_GT(expected.toDouble(), 0.0);
    EXPECT_TRUE(waitFor(
        [&] {
            for (const QLabel *label : window->slotsPanel()->findChildren<QLabel *>())
                if (label->toolTip() == expected)
                    return true;
            return false;
        },
        3000))
        << qPrintable(expected);
}

TEST_F(KvoviewTest, SourcesThatFitCanBeChosen)
{
    show(fileWith(kTwoColors));
    EXPECT_EQ(middle().red(), 255);
    session().choosePass(u"Present"_s);
    QComboBox *source = window->slotsPanel()->sourceChoice(u"Texture"_s);
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(source->currentText(), u"Soft.Output"_s);
    EXPECT_EQ(source->findText(u"@camera"_s), -1) << "a matrix is no texture";
    const int blue = source->findText(u"Blue.Frame"_s);
    ASSERT_GE(blue, 0);
    source->setCurrentIndex(blue);
    Q_EMIT source->activated(blue);
    EXPECT_EQ(middle().blue(), 255);
    click("undo");
    EXPECT_EQ(middle().red(), 255);
    EXPECT_EQ(window->slotsPanel()->sourceChoice(u"Texture"_s)->currentText(), u"Soft.Output"_s);
}

TEST_F(KvoviewTest, LookingAtPassesSaysNothing)
{
    show(kPipelines + u"viewport.json"_s);
    const MessageCapture messages;
    for (const QString &pass : session().pipeline()->passNames()) {
        session().choosePass(pass);
        settle();
    }
    EXPECT_TRUE(messages.texts().isEmpty()) << messages.texts().join(u'\n').toStdString();
    // Inputs that the file added have what fits them, too.
    session().choosePass(u"Sky"_s);
    QComboBox *source = window->slotsPanel()->sourceChoice(u"Clouds"_s);
    ASSERT_NE(source, nullptr);
    EXPECT_GE(source->findText(u"@near"_s), 0);
    EXPECT_EQ(source->findText(u"@camera"_s), -1);
}

// Passes

TEST_F(KvoviewTest, PassesGoOffRenamedReplacedInsertedAndRemoved)
{
    show(fileWith(kTwoColors));
    QTreeWidget *list = window->passes()->list();
    ASSERT_EQ(list->topLevelItemCount(), 4);
    EXPECT_EQ(list->topLevelItem(2)->text(4), u"GaussianBlurRenderPass"_s);
    ASSERT_TRUE(waitFor([&] {
        view().invalidate();
        return !list->topLevelItem(2)->text(2).isEmpty() && list->topLevelItem(2)->text(2) != u"–"_s;
    })) << "times come with the frames";

    // The soft one off: the same colour comes past it. The red one off: nothing comes.
    session().choosePass(u"Soft"_s);
    list->setFocus();
    QTest::keyClick(list, Qt::Key_Space);
    settle();
    EXPECT_FALSE(pipeline().isEnabled(u"Soft"_s));
    EXPECT_EQ(middle().red(), 255);
    ASSERT_TRUE(waitFor([&] { return list->topLevelItem(2)->checkState(0) == Qt::Unchecked; }));
    list->topLevelItem(0)->setCheckState(0, Qt::Unchecked);
    ASSERT_TRUE(waitFor([&] { return !pipeline().isEnabled(u"Red"_s); }));
    EXPECT_LT(middle().red(), 100) << "only the background";
    click("undo");
    click("undo");
    EXPECT_TRUE(pipeline().isEnabled(u"Soft"_s));
    EXPECT_EQ(middle().red(), 255);

    list->topLevelItem(0)->setText(0, u"Scarlet"_s);
    ASSERT_TRUE(waitFor([&] { return pipeline().pass(u"Scarlet"_s) != nullptr; }));
    EXPECT_TRUE(session().text().contains("\"from\": \"Scarlet.Frame\""));
    QSignalSpy failed(&session(), &Session::failed);
    EXPECT_FALSE(session().rename(u"Scarlet"_s, u"Blue"_s)) << "that one is taken";
    EXPECT_EQ(failed.count(), 1);
    click("undo");
    EXPECT_NE(pipeline().pass(u"Red"_s), nullptr);

    ASSERT_TRUE(
        session().insert(u"More"_s, u"GaussianBlurRenderPass"_s, u"Present"_s, u"Texture"_s, u"Input"_s, u"Output"_s));
    EXPECT_TRUE(session().text().contains("\"More\""));
    EXPECT_EQ(middle().red(), 255);
    ASSERT_TRUE(session().remove(u"Soft"_s));
    EXPECT_EQ(pipeline().pass(u"Soft"_s), nullptr);
    EXPECT_EQ(pipeline().source(u"More"_s, u"Input"_s), u"Red.Kvo_KvoTexture*_Frame"_s) << "what it passed by";
    EXPECT_EQ(middle().red(), 255);
    EXPECT_FALSE(session().replace(u"More"_s, u"GradientRenderPass"_s));
    ASSERT_TRUE(session().add(session().freeName(u"GradientRenderPass"_s), u"GradientRenderPass"_s));
    EXPECT_EQ(list->topLevelItemCount(), 5);
    for (int i = 0; i < 3; ++i)
        click("undo");
    EXPECT_NE(pipeline().pass(u"Soft"_s), nullptr);
    EXPECT_EQ(pipeline().pass(u"More"_s), nullptr);
    EXPECT_EQ(middle().red(), 255);
    for (int i = 0; i < 3; ++i)
        click("redo");
    EXPECT_EQ(pipeline().pass(u"Soft"_s), nullptr);
    EXPECT_NE(pipeline().pass(u"Gradient"_s), nullptr);
    EXPECT_EQ(middle().red(), 255);
}

TEST_F(KvoviewTest, EachPassGoesAHundredTimesWithoutGrowth)
{
    show(kPipelines + u"glow.json"_s);
    window->showPanel(u"messages"_s);
    window->resize(700, 420);
    showModel();
    const QStringList passes = pipeline().order();
    const auto round = [&](const QString &pass) {
        for (const bool on : {false, true}) {
            session().setEnabled(pass, on);
            view().grabFramebuffer();
        }
        QCoreApplication::processEvents();
        session().undoStack()->clear(); // steps back are kept on purpose
    };
    for (const QString &pass : passes)
        round(pass);
    const int objects = GlCalls::live();
    const QImage before = picture();
    const auto resident = [] {
        const QByteArray statm = contentOf(u"/proc/self/statm"_s);
        return statm.split(' ').value(1).toLongLong() * 4; // KiB
    };
    const qint64 memory = resident();
    for (const QString &pass : passes)
        for (int i = 0; i < 100; ++i)
            round(pass);
    settle();
    EXPECT_LE(GlCalls::live(), objects);
    // What malloc and the driver's compiler keep; a texture of each frame would be hundreds of MiB.
    EXPECT_LT(resident() - memory, 16 * 1024);
    EXPECT_EQ(picture(), before);
    EXPECT_EQ(window->problem(), QString());
}

// Graph

TEST_F(KvoviewTest, ADragInTheGraphConnects)
{
    show(fileWith(kTwoColors));
    window->showPanel(u"graph"_s);
    QTest::qWait(50);
    GraphView *graph = window->graph();
    QWidget *canvas = graph->viewport();
    const QPoint from = graph->outputKnob(u"Blue"_s, u"Frame"_s);
    const QPoint to = graph->inputKnob(u"Present"_s, u"Texture"_s);
    ASSERT_TRUE(canvas->rect().contains(from) && canvas->rect().contains(to));
    drag(canvas, from, to);
    EXPECT_EQ(middle().blue(), 255);
    EXPECT_TRUE(session().text().contains("\"from\": \"Blue.Frame\""));
    click("undo");
    EXPECT_EQ(middle().red(), 255);

    // From an input back to an output works too; what does not fit says why.
    drag(canvas, graph->inputKnob(u"Present"_s, u"Texture"_s), graph->outputKnob(u"Blue"_s, u"Frame"_s));
    EXPECT_EQ(middle().blue(), 255);
    QSignalSpy failed(&session(), &Session::failed);
    drag(canvas, graph->outputKnob(u"Blue"_s, u"Frame"_s), graph->inputKnob(u"Present"_s, u"FramebufferOut"_s));
    ASSERT_EQ(failed.count(), 1);
    EXPECT_TRUE(failed[0][0].toStringList()[0].contains(u"cannot link"_s))
        << qPrintable(failed[0][0].toStringList()[0]);
    drag(canvas, graph->outputKnob(u"Soft"_s, u"Output"_s), graph->inputKnob(u"Soft"_s, u"Input"_s));
    ASSERT_EQ(failed.count(), 2);
    EXPECT_TRUE(failed[1][0].toStringList()[0].contains(u"cycle"_s)) << qPrintable(failed[1][0].toStringList()[0]);
    drag(canvas, graph->outputKnob(u"Soft"_s, u"Output"_s), graph->outputKnob(u"Red"_s, u"Frame"_s));
    EXPECT_EQ(failed.count(), 3);
    EXPECT_TRUE(window->messages()->toPlainText().contains(u"cycle"_s));
    // A link that is let go of beside everything is gone.
    drag(canvas, graph->inputKnob(u"Soft"_s, u"Input"_s), QPoint(canvas->width() - 3, 3));
    EXPECT_EQ(pipeline().source(u"Soft"_s, u"Input"_s), QString());
    click("undo");
    EXPECT_EQ(pipeline().source(u"Soft"_s, u"Input"_s), u"Red.Kvo_KvoTexture*_Frame"_s);

    // A click chooses, the arrows go along the chain.
    QTest::mouseClick(canvas, Qt::LeftButton, {}, graph->outputKnob(u"Blue"_s, u"Frame"_s) - QPoint(40, 12));
    EXPECT_EQ(session().chosenPass(), u"Blue"_s);
    QTest::keyClick(graph, Qt::Key_Right);
    EXPECT_EQ(session().chosenPass(), u"Soft"_s);
    EXPECT_EQ(window->passes()->list()->currentItem()->text(0), u"Soft"_s);
}

// Textures

TEST_F(KvoviewTest, ATapShowsTheValuesOfTheTexture)
{
    show(kPipelines + u"deferred-model.json"_s);
    showModel();
    window->showPanel(u"inspector"_s);
    settle();
    Inspector *inspector = window->inspector();
    inspector->lookAt(u"Model"_s, u"Depth"_s);
    settle();
    const QSize size = view().size() * view().devicePixelRatio();
    ASSERT_EQ(inspector->texels().size(), size);
    ASSERT_TRUE(inspector->texels().isDepth());

    // The same texture, read behind the same pass by other means.
    TexturePixels own;
    pipeline().setPassObserver([&](const QString &pass, RenderPass *) {
        if (pass == u"Model") {
            ASSERT_TRUE(readTexture(textureFromVariant(pipeline().output(pass, u"Depth"_s)), &own));
        }
    });
    view().invalidate();
    settle();
    int onModel = 0;
    for (const QPoint &at : {QPoint(size.width() / 2, size.height() / 2), QPoint(5, 7),
                             QPoint(size.width() / 3, size.height() / 2), QPoint(2 * size.width() / 3, 100)}) {
        const double expected = double(own.values[(size.height() - 1 - at.y()) * size.width() + at.x()]);
        inspector->textureView()->setHovered(at);
        const QString text = inspector->texelText();
        EXPECT_TRUE(text.startsWith(u"(%1, %2): %3"_s.arg(at.x()).arg(at.y()).arg(expected, 0, 'g', 9)))
            << qPrintable(text);
        onModel += expected < 1.0;
    }
    EXPECT_GT(onModel, 0);

    // As a distance: against a ray.
    auto *channels = inspector->findChild<QComboBox *>(u"channels"_s);
    channels->setCurrentText(u"Depth, linear"_s);
    settle();
    const QPoint at(size.width() / 2, size.height() / 2);
    const RayHit hit = castRay(boxes(), view().camera(), QPointF(at) + QPointF(0.5, 0.5), QSizeF(size));
    ASSERT_GE(hit.item, 0);
    const float distance = QVector3D::dotProduct(hit.position - view().camera().eye(), view().camera().forward());
    inspector->textureView()->setHovered(std::nullopt);
    inspector->textureView()->setHovered(at);
    const double told = inspector->texelText().section(u"distance "_s, 1).toDouble();
    // 24 bits of depth over the range of the clip planes.
    EXPECT_NEAR(told, double(distance), 2e-3);

    // Saved with its values.
    QString error;
    EXPECT_TRUE(inspector->save(path(u"depth.exr"_s), &error)) << qPrintable(error);
    EXPECT_TRUE(inspector->save(path(u"depth.png"_s), &error)) << qPrintable(error);
    EXPECT_EQ(QImage(path(u"depth.png"_s)).size(), size);
    EXPECT_FALSE(inspector->save(path(u"none/depth.png"_s), &error));
}

TEST_F(KvoviewTest, MomentsAndComparisonsDiffer)
{
    show(fileWith(kTwoColors));
    window->showPanel(u"inspector"_s);
    Inspector *inspector = window->inspector();
    inspector->lookAt(u"Red"_s);
    settle();
    inspector->textureView()->setHovered(QPoint(3, 4));
    EXPECT_EQ(inspector->texelText(), u"(3, 4): 1  0  0  1"_s);
    auto *compare = inspector->findChildren<QComboBox *>()[0];
    for (QComboBox *box : inspector->findChildren<QComboBox *>())
        if (box->accessibleName() == u"Compare")
            compare = box;
    QComboBox *other = nullptr;
    for (QComboBox *box : inspector->findChildren<QComboBox *>())
        if (box->accessibleName() == u"Output to compare with")
            other = box;
    ASSERT_NE(other, nullptr);
    other->setCurrentText(u"Blue.Frame"_s);
    compare->setCurrentText(u"difference"_s);
    settle();
    inspector->textureView()->setHovered(std::nullopt);
    inspector->textureView()->setHovered(QPoint(3, 4));
    EXPECT_EQ(inspector->texelText(), u"(3, 4): 1  0  1  0"_s);
    compare->setCurrentText(u"wipe"_s);
    settle();
    inspector->textureView()->setHovered(std::nullopt);
    inspector->textureView()->setHovered(QPoint(3, 4));
    EXPECT_EQ(inspector->texelText(), u"(3, 4): 1  0  0  1\nother: 0  0  1  1"_s);
    // A hidden inspector costs no frame anything.
    const auto readBacks = [this] {
        const GlCalls calls;
        view().invalidate();
        settle();
        return calls.count("glGetTexImage");
    };
    EXPECT_EQ(readBacks(), 2);
    window->findChild<QWidget *>(u"inspector"_s)->hide();
    settle();
    EXPECT_EQ(readBacks(), 0);
    const int frames = view().frameCount();
    QTest::qWait(200);
    EXPECT_EQ(view().frameCount(), frames);
}

TEST_F(KvoviewTest, ZoomKeepsTheTexelUnderTheCursor)
{
    TextureView textureView;
    textureView.resize(300, 200);
    QImage image(64, 32, QImage::Format_RGB32);
    image.fill(Qt::black);
    textureView.setPicture(image);
    EXPECT_NEAR(textureView.zoom(), 300.0 / 64, 1e-9);
    const QPointF at = textureView.positionOf({10, 5});
    EXPECT_EQ(textureView.texelAt(at), std::optional(QPoint(10, 5)));
    QWheelEvent wheel(at, at, QPoint(), QPoint(0, 120 * 12), Qt::NoButton, {}, Qt::NoScrollPhase, false);
    QCoreApplication::sendEvent(&textureView, &wheel);
    EXPECT_GT(textureView.zoom(), 40.0);
    EXPECT_LT(QLineF(textureView.positionOf({10, 5}), at).length(), 1e-6);
    EXPECT_EQ(textureView.texelAt({-1e4, 0}), std::nullopt);
    QTest::keyClick(&textureView, Qt::Key_F);
    EXPECT_NEAR(textureView.zoom(), 300.0 / 64, 1e-9);
    QTest::keyClick(&textureView, Qt::Key_Right);
    EXPECT_EQ(textureView.hovered(), std::optional(QPoint(33, 16)));
}

namespace {

// Counts up from the lower left, in steps that all formats of these tests hold exactly.
float texelValue(int x, int y, int layer, int channel)
{
    return 0.25f * float(x) + 2.0f * float(y) + 32.0f * float(layer) + 256.0f * float(channel);
}

std::vector<float> texelsOf(int width, int height, int layers, int channels)
{
    std::vector<float> values;
    for (int layer = 0; layer < layers; ++layer)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                for (int channel = 0; channel < channels; ++channel)
                    values.push_back(texelValue(x, y, layer, channel));
    return values;
}

void expectCounted(const Texels &texels, int width, int height, int layers, int channels)
{
    ASSERT_EQ(texels.size(), QSize(width, height));
    ASSERT_EQ(texels.layers(), layers);
    ASSERT_EQ(texels.channels(), channels);
    for (int layer = 0; layer < layers; ++layer)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                for (int channel = 0; channel < channels; ++channel)
                    ASSERT_EQ(texels.at({x, height - 1 - y}, layer)[channel], double(texelValue(x, y, layer, channel)))
                        << x << ", " << y << ", layer " << layer << ", channel " << channel;
}

} // namespace

TEST_F(KvoviewTest, TexelsAreThoseOfTheTexture)
{
    show(fileWith(kTwoColors));
    view().makeCurrent();
    QString error;
    Texels texels;
    {
        Texture plane;
        plane.setTarget(GL_TEXTURE_2D);
        const AutoBinder bound(&plane);
        // Three levels of their own content.
        for (int level = 0, width = 6; level < 3; ++level, width /= 2) {
            std::vector<float> values = texelsOf(width, std::max(1, 4 >> level), 1, 2);
            for (float &value : values)
                value += float(level);
            glTexImage2D(GL_TEXTURE_2D, level, GL_RG32F, width, std::max(1, 4 >> level), 0, GL_RG, GL_FLOAT,
                         values.data());
        }
        ASSERT_TRUE(Texels::read(&plane, 0, &texels, &error)) << qPrintable(error);
        expectCounted(texels, 6, 4, 1, 2);
        EXPECT_EQ(texels.facts().text(), u"2D 6x4 RG32F, 3 levels"_s);
        ASSERT_TRUE(Texels::read(&plane, 2, &texels, &error)) << qPrintable(error);
        EXPECT_EQ(texels.size(), QSize(1, 1));
        EXPECT_EQ(texels.at({0, 0}, 0), (QVector<double>{2, 258}));
        EXPECT_FALSE(Texels::read(&plane, 3, &texels, &error));
        EXPECT_TRUE(texels.isEmpty());
    }
    {
        Texture array;
        array.setTarget(GL_TEXTURE_2D_ARRAY);
        const AutoBinder bound(&array);
        const std::vector<float> values = texelsOf(5, 3, 4, 1);
        glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, GL_R32F, 5, 3, 4, 0, GL_RED, GL_FLOAT, values.data());
        ASSERT_TRUE(Texels::read(&array, 0, &texels, &error)) << qPrintable(error);
        expectCounted(texels, 5, 3, 4, 1);
        // The layers apart: statistics and what is written.
        for (int layer = 0; layer < 4; ++layer) {
            const TexelStatistics statistics = texels.statistics(layer, Look());
            EXPECT_EQ(statistics.least, double(texelValue(0, 0, layer, 0)));
            EXPECT_EQ(statistics.most, double(texelValue(4, 2, layer, 0)));
            EXPECT_EQ(statistics.finite, 15);
            // The mean of an even grid is the middle.
            EXPECT_NEAR(statistics.mean, (statistics.least + statistics.most) / 2, 1e-9);
            EXPECT_EQ(std::accumulate(statistics.histogram.begin(), statistics.histogram.end(), qint64(0)), 15);
            EXPECT_GE(statistics.histogram.front(), 1);
            EXPECT_GE(statistics.histogram.back(), 1);
            EXPECT_EQ(texels.layer(layer).values.first(), texelValue(0, 0, layer, 0));
        }
        EXPECT_TRUE(texels.at({0, 0}, 4).isEmpty());
        EXPECT_TRUE(texels.at({5, 0}, 0).isEmpty());
    }
    {
        Texture cube;
        cube.setTarget(GL_TEXTURE_CUBE_MAP);
        const AutoBinder bound(&cube);
        const std::vector<float> values = texelsOf(2, 2, 6, 4);
        for (int face = 0; face < 6; ++face)
            glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(face), 0, GL_RGBA32F, 2, 2, 0, GL_RGBA, GL_FLOAT,
                         values.data() + face * 16);
        ASSERT_TRUE(Texels::read(&cube, 0, &texels, &error)) << qPrintable(error);
        expectCounted(texels, 2, 2, 6, 4);
        EXPECT_TRUE(texels.facts().text().contains(u"6 faces"_s));
    }
    view().doneCurrent();
}

TEST_F(KvoviewTest, WhatIsNoNumberIsCountedAndMarked)
{
    show(fileWith(kTwoColors));
    view().makeCurrent();
    Texels texels, whole, other;
    QString error;
    {
        constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
        constexpr float kInf = std::numeric_limits<float>::infinity();
        const float values[] = {0.0f, 1.0f, kNaN, kInf, -kInf, 3.0f};
        Texture texture;
        texture.setTarget(GL_TEXTURE_2D);
        const AutoBinder bound(&texture);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_R32F, 6, 1, 0, GL_RED, GL_FLOAT, values);
        ASSERT_TRUE(Texels::read(&texture, 0, &texels, &error)) << qPrintable(error);
        const quint32 ids[] = {0, 1, 2, 4000000000u, 2, 0};
        Texture integers;
        integers.setTarget(GL_TEXTURE_2D);
        const AutoBinder alsoBound(&integers);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_R32UI, 6, 1, 0, GL_RED_INTEGER, GL_UNSIGNED_INT, ids);
        ASSERT_TRUE(Texels::read(&integers, 0, &whole, &error)) << qPrintable(error);
    }
    view().doneCurrent();
    const TexelStatistics statistics = texels.statistics(0, Look());
    EXPECT_EQ(statistics.finite, 3);
    EXPECT_EQ(statistics.notNumbers, 1);
    EXPECT_EQ(statistics.infinities, 2);
    EXPECT_EQ(statistics.least, 0.0);
    EXPECT_EQ(statistics.most, 3.0);
    Look look;
    look.high = 2.0;
    const QImage marked = texels.picture(0, look);
    EXPECT_EQ(marked.pixel(0, 0), qRgb(0, 0, 0));
    EXPECT_EQ(marked.pixel(1, 0), qRgb(128, 128, 128));
    EXPECT_EQ(marked.pixel(2, 0), qRgb(255, 0, 255));
    EXPECT_EQ(marked.pixel(3, 0), qRgb(255, 220, 0));
    EXPECT_EQ(marked.pixel(4, 0), qRgb(0, 220, 255));
    EXPECT_EQ(marked.pixel(5, 0), qRgb(255, 255, 255));

    EXPECT_TRUE(whole.isInteger());
    EXPECT_EQ(whole.at({3, 0}, 0), QVector<double>{4000000000.0});
    look.channels = Look::Channels::Ids;
    const QImage colors = whole.picture(0, look);
    EXPECT_EQ(colors.pixel(0, 0), qRgb(0, 0, 0));
    EXPECT_EQ(colors.pixel(2, 0), colors.pixel(4, 0));
    EXPECT_NE(colors.pixel(1, 0), colors.pixel(2, 0));
    EXPECT_NE(colors.pixel(3, 0), colors.pixel(2, 0));
    EXPECT_FALSE(Texels::difference(texels, Texels(), &other, &error));
    ASSERT_TRUE(Texels::difference(whole, whole, &other, &error));
    EXPECT_EQ(other.at({3, 0}, 0), QVector<double>{0.0});
}

TEST_F(KvoviewTest, DepthBecomesDistance)
{
    QMatrix4x4 perspective, orthographic;
    perspective.perspective(50, 1.5f, 0.5f, 40);
    orthographic.ortho(-2, 2, -2, 2, 0.5f, 40);
    for (const QMatrix4x4 &projection : {perspective, orthographic}) {
        for (const float distance : {0.5f, 0.9f, 3.0f, 17.0f, 40.0f}) {
            const QVector4D clip = projection * QVector4D(0, 0, -distance, 1);
            const double depth = 0.5 * double(clip.z()) / double(clip.w()) + 0.5;
            // Floats in the matrix; near the far plane a step of depth is wide.
            EXPECT_NEAR(Texels::linearDepth(depth, projection), double(distance), 2e-4 * double(distance * distance));
        }
    }
}

// Files

TEST_F(KvoviewTest, AShaderThatBreaksKeepsThePictureAndMarksTheLine)
{
    write(path(u"fill.frag"_s), kShader);
    show(fileWith(kShaderFile));
    const QImage good = picture();
    QByteArray broken = kShader;
    write(path(u"fill.frag"_s), broken.replace("vec4(Kvo", "vec4(Nowhere_Kvo"));
    ASSERT_TRUE(waitFor([this] { return window->problem().contains(u"fill.frag"_s); }, 5000));
    const QString said = window->messages()->toPlainText();
    EXPECT_TRUE(said.contains(path(u"fill.frag"_s))) << qPrintable(said);
    bool isMarked = false;
    for (const QString &line : said.split(u'\n'))
        isMarked = isMarked || (line.startsWith(u'>') && line.contains(u"Nowhere_Kvo"_s));
    EXPECT_TRUE(isMarked) << qPrintable(said);
    EXPECT_EQ(picture(), good);

    // Gone for a while, as editors do, and right again.
    ASSERT_TRUE(QFile::remove(path(u"fill.frag"_s)));
    QTest::qWait(400);
    EXPECT_EQ(picture(), good);
    QByteArray mended = kShader;
    write(path(u"fill.frag"_s), mended.replace("* Kvo_float_Level", "* Kvo_float_Level * 0.5"));
    ASSERT_TRUE(waitFor([this] { return window->problem().isEmpty(); }, 5000)) << qPrintable(window->problem());
    EXPECT_NEAR(middle().red(), 64, 1);
}

TEST_F(KvoviewTest, ChangesOfTheHandStayWhenAShaderIsReadAgain)
{
    write(path(u"fill.frag"_s), kShader);
    show(fileWith(kShaderFile));
    type(u"Level"_s, u"1"_s);
    EXPECT_EQ(middle().red(), 255);
    QByteArray other = kShader;
    write(path(u"fill.frag"_s), other.replace("* Kvo_float_Level", "* Kvo_float_Level * 0.5"));
    ASSERT_TRUE(waitFor([this] { return middle().red() < 200; }, 5000));
    EXPECT_NEAR(middle().red(), 128, 1);
    click("undo");
    EXPECT_NEAR(middle().red(), 64, 1);
}

TEST_F(KvoviewTest, SavesWithCommentsAndReadsAgain)
{
    write(path(u"fill.frag"_s), kShader);
    show(fileWith(kShaderFile));
    type(u"Level"_s, u"0.25"_s);
    click("save");
    EXPECT_FALSE(window->isWindowModified());
    EXPECT_EQ(contentOf(path(u"pipeline.json"_s)),
              QByteArray(kShaderFile).replace("\"Level\": 0.5", "\"Level\": 0.25"));
    QTest::qWait(200);
    EXPECT_EQ(session().undoStack()->count(), 1) << "what it wrote itself is no news";
    ASSERT_TRUE(session().save(path(u"copy.json"_s)));
    EXPECT_EQ(contentOf(path(u"copy.json"_s)), contentOf(path(u"pipeline.json"_s)));
    EXPECT_TRUE(window->windowTitle().contains(u"copy"_s));

    // Somebody else writes it: what was there comes back by undo.
    write(path(u"copy.json"_s), QByteArray(kShaderFile).replace("\"Level\": 0.5", "\"Level\": 1"));
    ASSERT_TRUE(waitFor([this] { return middle().red() == 255; }, 5000));
    click("undo");
    EXPECT_NEAR(middle().red(), 64, 1);
    // And something that is none: the picture stays, with a word.
    write(path(u"copy.json"_s), "{ \"passes\": [ }");
    ASSERT_TRUE(waitFor([this] { return window->messages()->toPlainText().contains(u"copy.json:1"_s); }, 5000));
    EXPECT_NEAR(middle().red(), 64, 1);
    EXPECT_FALSE(session().save(path(u"no folder/x.json"_s)));
}

TEST_F(KvoviewTest, FilesAreDropped)
{
    show(fileWith(kTwoColors));
    drop(kPipelines + u"background-image.json"_s);
    EXPECT_TRUE(session().path().endsWith(u"background-image.json"_s));
    settle();
    drop(kBox);
    EXPECT_TRUE(window->modelImport()->isRunning());
    ASSERT_TRUE(waitFor([this] { return !window->modelImport()->isRunning(); }));
    EXPECT_TRUE(window->windowTitle().contains(u"BoxTextured"_s));
    EXPECT_GT(view().camera().scene().maximum.x(), 0.1f);
    // An image goes into the first path of the chosen pass.
    QImage image(8, 8, QImage::Format_RGB32);
    image.fill(Qt::green);
    ASSERT_TRUE(image.save(path(u"green.png"_s)));
    const QImage before = picture();
    QString taker;
    for (const QString &pass : pipeline().order())
        if (pipeline().className(pass) == u"BackgroundImageRenderPass")
            taker = pass;
    session().choosePass(taker);
    drop(path(u"green.png"_s));
    EXPECT_TRUE(session().text().contains("green.png"));
    EXPECT_GT(differing(before, picture()), 0.05);
    // The image itself is painted anew.
    const QImage green = picture();
    image.fill(Qt::red);
    ASSERT_TRUE(image.save(path(u"green.png"_s)));
    EXPECT_TRUE(waitFor([&] { return differing(green, picture()) > 0.05; }, 5000));
    session().choosePass(u"Present"_s);
    drop(path(u"green.png"_s));
    EXPECT_TRUE(window->messages()->toPlainText().contains(u"takes no image"_s));
}

TEST_F(KvoviewTest, WhatCannotBeReadIsSaidAndTheWindowStays)
{
    show(fileWith(kTwoColors));
    const QImage good = picture();
    drop(u"/nowhere.glb"_s);
    ASSERT_TRUE(waitFor([this] { return !window->modelImport()->isRunning(); }));
    EXPECT_TRUE(window->problem().contains(u"/nowhere.glb"_s)) << qPrintable(window->problem());
    write(path(u"broken.glb"_s), QByteArray(5000, 'x'));
    drop(path(u"broken.glb"_s));
    ASSERT_TRUE(waitFor([this] { return !window->modelImport()->isRunning(); }));
    EXPECT_TRUE(window->problem().contains(u"broken.glb"_s)) << qPrintable(window->problem());
    drop(kBox);
    ASSERT_TRUE(waitFor([this] { return !window->modelImport()->isRunning(); }));
    EXPECT_EQ(window->problem(), QString());

    EXPECT_FALSE(window->openPipeline(u"no such"_s));
    EXPECT_TRUE(window->problem().contains(u"no such"_s));
    EXPECT_FALSE(
        window->openPipeline(fileWith(R"({ "passes": [ { "name": "A", "class": "Gradent" } ] })", u"bad.json"_s)));
    EXPECT_TRUE(window->problem().contains(u"bad.json:1"_s)) << qPrintable(window->problem());
    EXPECT_FALSE(window->openPipeline(fileWith("", u"empty.json"_s)));
    EXPECT_EQ(picture(), good);
    EXPECT_TRUE(window->isVisible());
    EXPECT_TRUE(window->openPipeline(path(u"pipeline.json"_s)));
    EXPECT_EQ(window->problem(), QString());
}

// Run where the platform has no GL: see the list of tests.
TEST_F(KvoviewTest, WithoutAContextTheWindowStaysAndSaysSo)
{
    if (QGuiApplication::platformName() != u"offscreen" || qEnvironmentVariableIsSet("DISPLAY"))
        GTEST_SKIP() << "this platform has contexts";
    const MessageCapture messages;
    window = std::make_unique<Window>(ViewOptions(), false);
    EXPECT_TRUE(window->openPipeline(kPipelines + u"forward.json"_s)) << qPrintable(window->problem());
    window->run(0);
    ASSERT_TRUE(waitFor([this] { return window->problem().contains(u"OpenGL"_s); }, 10000));
    EXPECT_TRUE(window->isVisible());
    // Nothing that one may do then ends it.
    for (const QAction *action : window->findChildren<QAction *>())
        if (!QStringList{u"open"_s, u"saveas"_s, u"picture"_s, u"turntable"_s, u"background"_s, u"quit"_s, u"keys"_s}
                 .contains(action->objectName())
            && !action->objectName().isEmpty())
            window->action(action->objectName())->trigger();
    for (const char *panel : {"passes", "slots", "inspector", "graph", "resources", "messages"})
        window->showPanel(QLatin1StringView(panel));
    EXPECT_FALSE(session().setValue(u"Model"_s, u"Viewport"_s, 1));
    EXPECT_FALSE(session().remove(u"Model"_s));
    EXPECT_FALSE(session().rename(u"Model"_s, u"B"_s));
    window->openModel(kBox);
    ASSERT_TRUE(waitFor([this] { return !window->modelImport()->isRunning(); }));
    QTest::qWait(50);
    EXPECT_TRUE(window->isVisible());
}

TEST_F(KvoviewTest, AnImportIsCancelled)
{
    show(fileWith(kTwoColors));
    // An importer that never comes to an end.
    write(path(u"importer"_s), "#!/bin/sh\nexec sleep 1000\n");
    ASSERT_TRUE(QFile::setPermissions(path(u"importer"_s), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    qputenv("KVO_IMPORT_PROGRAM", QFile::encodeName(path(u"importer"_s)));
    window->openModel(kEngine);
    QTest::qWait(200);
    EXPECT_TRUE(window->modelImport()->isRunning());
    EXPECT_TRUE(window->findChild<QProgressBar *>()->isVisible());
    QElapsedTimer timer;
    timer.start();
    window->findChild<QStatusBar *>()->findChild<QToolButton *>()->click();
    EXPECT_LT(timer.elapsed(), 5000);
    qunsetenv("KVO_IMPORT_PROGRAM");
    EXPECT_FALSE(window->modelImport()->isRunning());
    EXPECT_FALSE(window->findChild<QProgressBar *>()->isVisible());
    EXPECT_TRUE(window->problem().contains(u"cancelled"_s)) << qPrintable(window->problem());
    QTest::qWait(50);
    EXPECT_FALSE(window->windowTitle().contains(u"Engine"_s));
}

TEST_F(KvoviewTest, TheCommandLineSaysWhatWasChanged)
{
    write(path(u"fill.frag"_s), kShader);
    ViewOptions options;
    options.scene.floor = true;
    options.scene.opacities = {{QString(), 0.4f}};
    show(fileWith(kShaderFile), options);
    type(u"Level"_s, u"0.25"_s);
    click("command");
    const QString command = QGuiApplication::clipboard()->text();
    EXPECT_TRUE(command.startsWith(u"kvorender -p "_s)) << qPrintable(command);
    for (const QString &part : {u"--floor"_s, u"--opacity 0.4"_s, u"--set Fill.Level=0.25"_s, path(u"pipeline.json"_s)})
        EXPECT_TRUE(command.contains(part)) << qPrintable(command);
    EXPECT_FALSE(command.contains(u"Tint"_s));
}

TEST_F(KvoviewTest, ATurntableGoesAround)
{
    show(kPipelines + u"forward.json"_s);
    showModel();
    QString error;
    const OrbitCamera camera = view().camera();
    ASSERT_TRUE(writeTurntable(
        &session(), path(u"turn.png"_s), {120, 80}, 4, [](int) { return true; }, &error))
        << qPrintable(error);
    EXPECT_TRUE(view().camera() == camera);
    const QImage first(path(u"turn-000.png"_s));
    const QImage third(path(u"turn-002.png"_s));
    EXPECT_EQ(first.size(), QSize(120, 80));
    EXPECT_GT(differing(first, third), 0.02);
    EXPECT_FALSE(writeTurntable(
        &session(), path(u"more.png"_s), {120, 80}, 4, [](int) { return false; }, &error));
    EXPECT_FALSE(QFile::exists(path(u"more-001.png"_s)));
}

// Resources, picking, keys, rest

TEST_F(KvoviewTest, ResourcesAreBarsOverThePasses)
{
    show(kPipelines + u"glow.json"_s);
    showModel();
    window->showPanel(u"resources"_s);
    settle();
    view().invalidate();
    settle();
    FrameProbe *probe = session().findChild<FrameProbe *>();
    const ResourceRecord &record = probe->record();
    EXPECT_EQ(record.passes, pipeline().order());
    EXPECT_GT(record.bytes, 0);
    EXPECT_LE(record.bytes, record.peakBytes);
    // Behind the last pass nothing of a frame is held that has no history.
    int taken = 0;
    for (const ResourceRow &row : record.rows) {
        ASSERT_EQ(row.uses.size(), record.passes.size());
        EXPECT_EQ(row.uses.last().references, 0) << qPrintable(row.name);
        taken += row.takers;
    }
    EXPECT_GT(taken, 1);
    EXPECT_TRUE(window->resources()->totals().contains(u"@model"_s)) << qPrintable(window->resources()->totals());
}

TEST_F(KvoviewTest, AClickSaysWhatIsThere)
{
    show(kPipelines + u"forward.json"_s);
    showModel();
    const QPoint at(view().width() / 2, view().height() / 2);
    const Pick pick = view().pickAt(at);
    ASSERT_TRUE(pick.isHit());
    QTest::mouseClick(&view(), Qt::LeftButton, {}, at);
    QString said;
    for (const QLabel *label : window->findChildren<QLabel *>())
        if (label->text().startsWith(u"item "_s))
            said = label->text();
    EXPECT_TRUE(said.contains(u"item %1"_s.arg(pick.item))) << qPrintable(said);
    EXPECT_TRUE(said.contains(u"triangle %1"_s.arg(pick.triangle))) << qPrintable(said);
    EXPECT_TRUE(said.contains(u"material %1"_s.arg(pick.material))) << qPrintable(said);
}

TEST_F(KvoviewTest, EveryKeyIsInTheListAndDoesWhatItSays)
{
    show(kPipelines + u"forward.json"_s);
    showModel();
    const QString keys = window->keysText();
    int shortcuts = 0;
    for (const QAction *action : window->findChildren<QAction *>()) {
        if (action->shortcut().isEmpty() || action->associatedObjects().isEmpty())
            continue;
        EXPECT_TRUE(keys.contains(action->shortcut().toString(QKeySequence::NativeText).toHtmlEscaped()))
            << qPrintable(action->text());
        ++shortcuts;
    }
    EXPECT_GT(shortcuts, 25);
    view().setFocus();
    QTest::keyClick(&view(), Qt::Key_3);
    EXPECT_FLOAT_EQ(view().camera().yaw(), 90);
    QApplication::setActiveWindow(window.get()); // there is no window manager to do it
    QTest::keyClick(window.get(), Qt::Key_F1);
    auto *dialog = window->findChild<QWidget *>(u"keysdialog"_s);
    ASSERT_NE(dialog, nullptr);
    EXPECT_TRUE(dialog->isVisible());
    dialog->close();
    // Panels by their numbers; every widget that takes the focus has a name for who hears it.
    QTest::keyClick(window.get(), Qt::Key_3, Qt::AltModifier);
    EXPECT_TRUE(window->inspector()->isVisible());
    settle();
    for (const QWidget *widget : window->findChildren<QWidget *>()) {
        if (widget->focusPolicy() == Qt::NoFocus || !widget->isVisible() || widget->inherits("QTabBar")
            || widget->inherits("QScrollArea") || widget->inherits("QMenuBar") || widget->inherits("QLabel")
            || widget->objectName().startsWith(u"qt_"_s) || widget->inherits("QLineEdit"))
            continue;
        const QString text = widget->property("text").toString();
        EXPECT_FALSE(widget->accessibleName().isEmpty() && text.isEmpty())
            << widget->metaObject()->className() << " in " << widget->parent()->metaObject()->className();
    }
}

TEST_F(KvoviewTest, LeftAloneItDrawsNothing)
{
    show(kPipelines + u"deferred-model.json"_s);
    showModel();
    for (const char *panel : {"resources", "inspector", "messages", "graph"}) {
        window->showPanel(QLatin1StringView(panel));
        QTest::qWait(100);
        settle();
        const int frames = view().frameCount();
        QTest::qWait(400);
        EXPECT_EQ(view().frameCount(), frames) << panel;
    }
    click("statistics");
    settle();
    const int frames = view().frameCount();
    QTest::qWait(400);
    EXPECT_EQ(view().frameCount(), frames);
    window->resize(900, 620);
    QTest::qWait(50);
    settle();
    EXPECT_EQ(view().grabFramebuffer().size(), view().size() * view().devicePixelRatio());
}

TEST_F(KvoviewTest, LayoutAndThemeAreKept)
{
    {
        Window first({}, true);
        first.openPipeline(fileWith(kTwoColors));
        first.run(0);
        first.action(u"dark"_s)->setChecked(true);
        first.showPanel(u"inspector"_s);
        QTest::qWait(50);
        first.close();
    }
    Window second({}, true);
    EXPECT_TRUE(second.action(u"dark"_s)->isChecked());
    EXPECT_LT(QApplication::palette().color(QPalette::Window).lightness(), 100);
    EXPECT_FALSE(second.findChild<QWidget *>(u"inspector"_s)->isHidden());
    EXPECT_EQ(QSettings().value(u"recent"_s).toStringList().value(0), path(u"pipeline.json"_s));
    second.action(u"dark"_s)->setChecked(false);
    EXPECT_GT(QApplication::palette().color(QPalette::Window).lightness(), 150);
}

TEST_F(KvoviewTest, GridAndAxesLieBehindThePicture)
{
    ViewOptions options;
    options.pipeline.background = QColor(10, 20, 30);
    show(kPipelines + u"forward.json"_s, options);
    showModel();
    view().setSelecting(false);
    const QImage plain = picture();
    EXPECT_EQ(plain.pixelColor(3, 3), QColor(10, 20, 30));
    const QPoint at(plain.width() / 2, plain.height() / 2);
    click("grid");
    const QImage grid = picture();
    EXPECT_GT(differing(plain, grid), 0.005);
    EXPECT_EQ(grid.pixelColor(at), plain.pixelColor(at)) << "the box is in front";
    click("axes");
    const QImage axes = picture();
    // The x axis a good way beside the boxes, along which it runs: red there.
    OrbitCamera camera = view().camera();
    const GPUModel::BoundingBox box = camera.scene();
    const float side = std::max(
        {box.maximum.x() - box.minimum.x(), box.maximum.y() - box.minimum.y(), box.maximum.z() - box.minimum.z()});
    const QSizeF size = axes.size();
    int red = 0;
    for (float share = 0.75f; share < 0.99f; share += 0.02f) {
        const std::optional<QPointF> along = camera.project({side * share, 0, 0}, size);
        const std::optional<QPointF> height = camera.project({0, side * share, 0}, size);
        ASSERT_TRUE(along && height);
        for (const auto &[point, isX] : {std::pair(*along, true), std::pair(*height, false)}) {
            const QPoint pixel(int(point.x()), int(point.y()));
            if (!axes.rect().contains(pixel) || plain.pixelColor(pixel) != QColor(10, 20, 30))
                continue;
            const QColor color = axes.pixelColor(pixel);
            EXPECT_TRUE(isX ? color.red() > 2 * color.green() : color.green() > 2 * color.red()) << share;
            ++red;
        }
    }
    EXPECT_GT(red, 5);
    click("axes");
    click("grid");
    EXPECT_EQ(picture(), plain);
    EXPECT_EQ(view().grabPicture({64, 48}).pixelColor(1, 1), QColor(10, 20, 30));
}

// What lets light through is laid on the background in the same way by both.
TEST_F(KvoviewTest, OpacityMeansTheSameAsForKvorender)
{
    for (const QString &name : {u"forward"_s, u"viewport"_s, u"oit"_s}) {
        const QString model = kEngine;
        QProcess kvorender;
        kvorender.start(QCoreApplication::applicationDirPath() + u"/kvorender"_s,
                        {model, u"-p"_s, name, u"--opacity"_s, u"0.4"_s, u"--scale"_s, u"fit"_s, u"--floor"_s, u"-s"_s,
                         u"320x200"_s, u"-c"_s, u"yaw=30:pitch=15"_s, u"--background"_s, u"#203040"_s, u"-n"_s, u"2"_s,
                         u"-q"_s, u"-o"_s, path(u"r.png"_s)});
        ASSERT_TRUE(kvorender.waitForFinished(120000));
        ASSERT_EQ(kvorender.exitCode(), 0) << kvorender.readAllStandardError().constData();
        ViewOptions options;
        options.scene.scale = SceneSettings::kScaleToFit;
        options.scene.floor = true;
        options.scene.opacities = {{QString(), 0.4f}};
        options.pipeline.camera = u"yaw=30:pitch=15"_s;
        options.pipeline.background = QColor(0x20, 0x30, 0x40);
        options.size = QSize(320, 200);
        show(kPipelines + name + u".json"_s, options);
        view().setMaximumSize(320, 200);
        ASSERT_TRUE(waitFor([this] { return view().size() == QSize(320, 200); }));
        window->openModel(model);
        ASSERT_TRUE(waitFor([this] { return !window->modelImport()->isRunning(); }));
        const QImage shown = picture();
        const QImage expected(path(u"r.png"_s));
        ASSERT_EQ(shown.size(), expected.size());
        // Planes near and far are found in two ways: pixels on edges may fall to either side.
        EXPECT_LT(differing(shown, expected), 0.01) << qPrintable(name);
        window.reset();
    }
}

// Beside the frame itself there are the panels, which may take 5 ms: of the medians, since the machine is shared.
TEST_F(KvoviewTest, APulledSliderIsSeenWithTheNextFrame)
{
    show(kPipelines + u"deferred-model.json"_s);
    window->resize(1280 + 420, 720 + 340);
    view().setMinimumSize(1280, 720);
    view().setMaximumSize(1280, 720);
    showModel();
    ASSERT_TRUE(
        session().insert(u"Glow"_s, u"GaussianBlurRenderPass"_s, u"Present"_s, u"Texture"_s, u"Input"_s, u"Output"_s));
    session().choosePass(u"Glow"_s);
    settle();
    auto *slider = window->slotsPanel()->editor(u"BlurRadius"_s)->findChild<QSlider *>();
    ASSERT_NE(slider, nullptr);
    const auto median = [](std::vector<double> times) {
        std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
        return times[times.size() / 2];
    };
    const auto untilFrame = [&](const std::function<void()> &begin) {
        const int frame = view().frameCount();
        QElapsedTimer timer;
        timer.start();
        begin();
        while (view().frameCount() == frame && timer.elapsed() < 5000)
            QCoreApplication::processEvents();
        return double(timer.nsecsElapsed()) / 1e6;
    };
    std::vector<double> plain, pulled;
    slider->setSliderDown(true);
    for (int i = 0; i < 60; ++i) {
        // The same change without the window.
        plain.push_back(untilFrame([&] {
            pipeline().setValue(u"Glow"_s, u"BlurRadius"_s, 3.0f + float(i % 2));
            view().invalidate();
        }));
        settle();
        pulled.push_back(untilFrame([&] { slider->setValue(3 + i % 2); }));
        // Until it rests, so that no frame is counted that was asked for before.
        settle();
    }
    slider->setSliderDown(false);
    RecordProperty("frame_ms", std::to_string(median(plain)));
    RecordProperty("slider_ms", std::to_string(median(pulled)));
    std::printf("[ measured ] frame %.2f ms, slider %.2f ms\n", median(plain), median(pulled));
    EXPECT_LT(median(pulled) - median(plain), 5.0);
}

TEST_F(KvoviewTest, TheEngineOpensWhileTheWindowAnswers)
{
    show(kPipelines + u"forward.json"_s);
    QElapsedTimer timer;
    timer.start();
    window->openModel(kEngine);
    const qint64 answered = timer.elapsed();
    EXPECT_LT(answered, 100) << "the import runs beside";
    int frame = -1; // counted from when the model is there
    const auto got =
        QObject::connect(window->modelImport(), &ModelImport::finished, &view(), [&] { frame = view().frameCount(); });
    ASSERT_TRUE(waitFor([&] { return frame >= 0 && view().frameCount() > frame; }));
    QObject::disconnect(got);
    std::printf("[ measured ] engine on screen after %lld ms\n", static_cast<long long>(timer.elapsed()));
    EXPECT_TRUE(view().pickAt({view().width() / 2, view().height() / 2}).isHit());
}

// The pictures of docs/kvoview.md, with KVO_WRITE_DOCS set.
TEST_F(KvoviewTest, PicturesOfThePanels)
{
    if (!qEnvironmentVariableIsSet("KVO_WRITE_DOCS"))
        GTEST_SKIP() << "KVO_WRITE_DOCS is not set";
    const QString images = QStringLiteral(KVO_SOURCE_DIR "/docs/images/");
    const auto save = [&](const char *name) {
        settle();
        QTest::qWait(600);
        settle();
        EXPECT_TRUE(window->QWidget::grab().save(images + QLatin1StringView(name)));
    };
    ViewOptions options;
    options.scene.scale = SceneSettings::kScaleToFit;
    options.scene.floor = true;
    show(kPipelines + u"viewport.json"_s, options);
    window->resize(1400, 900);
    window->action(u"dark"_s)->setChecked(true);
    window->openModel(kEngine);
    ASSERT_TRUE(waitFor([this] { return !window->modelImport()->isRunning(); }, 60000));
    session().choosePass(u"Obscurance"_s);
    view().setRunning(true);
    QTest::qWait(6000);
    view().setRunning(false);
    click("statistics");
    save("kvoview.png");
    window->showPanel(u"resources"_s);
    view().invalidate();
    save("kvoview-resources.png");
    window->showPanel(u"inspector"_s);
    window->inspector()->lookAt(u"Model"_s, u"Depth"_s);
    window->inspector()->findChild<QComboBox *>(u"channels"_s)->setCurrentText(u"Depth, linear"_s);
    settle();
    TextureView *texture = window->inspector()->textureView();
    texture->setZoom(6);
    texture->setHovered(texture->texelAt(QPointF(texture->width() / 2.0, texture->height() / 3.0)));
    window->showPanel(u"graph"_s);
    save("kvoview-textures.png");

    window->action(u"dark"_s)->setChecked(false);
    window->findChild<QWidget *>(u"inspector"_s)->hide();
    write(path(u"fill.frag"_s), kShader);
    window->openPipeline(fileWith(kShaderFile));
    settle();
    QByteArray broken = kShader;
    write(path(u"fill.frag"_s), broken.replace("vec4(Kvo", "vec4(Sun"));
    ASSERT_TRUE(waitFor([this] { return !window->problem().isEmpty(); }, 5000));
    save("kvoview-error.png");
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ViewportWidget::setDefaultFormat();
    const QTemporaryDir settings;
    QSettings::setDefaultFormat(QSettings::IniFormat);
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settings.path());
    const QApplication application(argc, argv);
    QCoreApplication::setOrganizationName(u"kvo"_s);
    QCoreApplication::setApplicationName(u"kvoview"_s);
    MessageCapture::install();
    GlCalls::install();
    return RUN_ALL_TESTS();
}
