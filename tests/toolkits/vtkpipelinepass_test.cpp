// The pass in VTK windows on a virtual X server.

#include "gl/hoststate.h"

#include <gl/opengldevicecontext.h>
#include <host/pipeline.h>
#include <host/vtkpipelinepass.h>

#include <QCoreApplication>

#include <vtkActor.h>
#include <vtkAutoInit.h>
#include <vtkCamera.h>
#include <vtkCubeSource.h>
#include <vtkNew.h>
#include <vtkObject.h>
#include <vtkObjectFactory.h>
#include <vtkOutputWindow.h>
#include <vtkPolyDataMapper.h>
#include <vtkProperty.h>
#include <vtkRenderPass.h>
#include <vtkRenderState.h>
#include <vtkRenderWindow.h>
#include <vtkRenderer.h>
#include <vtkSphereSource.h>
#include <vtkUnsignedCharArray.h>

#include <gtest/gtest.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <vector>

VTK_MODULE_INIT(vtkRenderingOpenGL2)

using namespace Brevane::Kvo;

namespace {

constexpr int kWidth = 200;
constexpr int kHeight = 140;

std::string chain(const std::string &middle, const std::string &last)
{
    return R"({ "passes": [ { "name": "Scene", "class": "VtkFrame", "inputs": { "Viewport": "@viewport" } },)" + middle
           + R"({ "name": "Present", "class": "TextureToScreenRenderPass", "inputs": {
               "Viewport": "@viewport", "Texture": { "from": ")"
           + last + R"(" }, "FramebufferOut": "@screen" } } ] })";
}

std::string shader(const std::string &input, const std::string &expression)
{
    return R"({ "name": "Shader", "class": "ShaderRenderPass", "calls": [ { "addInput": ["Kvo_KvoTexture*_In"] },
               { "addOutput": ["Kvo_KvoTexture*_Out"] },
               { "setFragmentShaderSource": ["#version 150\nuniform sampler2D u_In;\nout vec4 o_Out;\nvoid main() {\n  vec4 c = texelFetch(u_In, ivec2(gl_FragCoord.xy), 0);\n  o_Out = )"
           + expression + R"(;\n}\n"] } ], "inputs": { "Viewport": "@viewport", "In": { "from": ")" + input
           + R"(" } } },)";
}

const std::string kThrough = chain("", "Scene.Frame");
const std::string kInverted = chain(shader("Scene.Frame", "vec4(1.0 - c.rgb, 1.0)"), "Shader.Out");
const std::string kDepth = chain(shader("Scene.Depth", "vec4(vec3(c.r), 1.0)"), "Shader.Out");
const std::string kSmaa = chain(R"({ "name": "Smooth", "class": "SMAARenderPass", "inputs": { "Viewport": "@viewport",
  "Frame": { "from": "Scene.Frame" }, "Mode": 0, "JitterIndex": -1 } },)",
                                "Smooth.Frame");
const std::string kTaa =
    chain(R"({ "name": "Smooth", "class": "TemporalAARenderPass", "inputs": { "Viewport": "@viewport",
  "Frame": { "from": "Scene.Frame" }, "ProjectionMatrix": "@projection", "CameraMatrix": "@camera", "Dirty": false } },)",
          "Smooth.Frame");

struct Picture
{
    int width = 0, height = 0;
    std::vector<unsigned char> pixels; // three each, from the lower left

    int at(int x, int y, int channel) const { return pixels[std::size_t((y * width + x) * 3 + channel)]; }
};

Picture pictureOf(vtkRenderWindow *window)
{
    window->Render();
    const int *size = window->GetSize();
    Picture picture{size[0], size[1], {}};
    vtkNew<vtkUnsignedCharArray> data;
    window->GetPixelData(0, 0, picture.width - 1, picture.height - 1, 0, data);
    picture.pixels.assign(data->GetPointer(0), data->GetPointer(0) + data->GetNumberOfValues());
    return picture;
}

double worst(const Picture &a, const Picture &b)
{
    if (a.pixels.size() != b.pixels.size())
        return 999;
    int most = 0;
    for (std::size_t i = 0; i < a.pixels.size(); ++i)
        most = std::max(most, std::abs(int(a.pixels[i]) - int(b.pixels[i])));
    return most;
}

double meanError(const Picture &a, const Picture &b)
{
    double sum = 0;
    for (std::size_t i = 0; i < a.pixels.size(); ++i)
        sum += std::abs(int(a.pixels[i]) - int(b.pixels[i]));
    return sum / double(a.pixels.size());
}

struct Scene
{
    explicit Scene(int width = kWidth, int height = kHeight, int samples = 0)
    {
        window->SetSize(width, height);
        window->SetMultiSamples(samples);
        window->AddRenderer(renderer);
        fill(renderer);
    }

    static void fill(vtkRenderer *renderer)
    {
        vtkNew<vtkSphereSource> sphere;
        vtkNew<vtkCubeSource> cube;
        for (int i = 0; i < 6; ++i) {
            vtkNew<vtkPolyDataMapper> mapper;
            if (i % 2 == 0)
                mapper->SetInputConnection(sphere->GetOutputPort());
            else
                mapper->SetInputConnection(cube->GetOutputPort());
            vtkNew<vtkActor> actor;
            actor->SetMapper(mapper);
            actor->SetPosition(1.1 * (i % 3), 1.1 * (i / 3), 0.4 * i);
            actor->RotateZ(17 * i);
            actor->GetProperty()->SetColor(0.4 + 0.1 * i, 0.9 - 0.1 * i, 0.6);
            renderer->AddActor(actor);
        }
        renderer->SetBackground(0.1, 0.2, 0.35);
        renderer->ResetCamera();
        renderer->GetActiveCamera()->Azimuth(25);
        renderer->GetActiveCamera()->Elevation(15);
        renderer->ResetCameraClippingRange();
    }

    vtkNew<vtkRenderer> renderer;
    vtkNew<vtkRenderWindow> window;
};

/// A delegate of the test's own.
class Probe : public vtkRenderPass
{
public:
    static Probe *New();
    vtkTypeMacro(Probe, vtkRenderPass)

        void Render(const vtkRenderState *state) override
    {
        draw(state);
    }

    std::function<void(const vtkRenderState *)> draw;
};
vtkStandardNewMacro(Probe)

    // Values of the context and what is bound to it.
    std::map<std::string, std::vector<double>> stateNow()
{
    std::map<std::string, std::vector<double>> state;
    for (std::size_t piece = 0; piece < kStateValues; ++piece)
        if (hasStatePiece(StatePiece(piece)))
            state[nameOf(StatePiece(piece))] = valueOf(StatePiece(piece));
    for (const GLenum name :
         {GL_DRAW_FRAMEBUFFER_BINDING, GL_READ_FRAMEBUFFER_BINDING, GL_CURRENT_PROGRAM, GL_VERTEX_ARRAY_BINDING,
          GL_ACTIVE_TEXTURE, GL_ARRAY_BUFFER_BINDING, GL_PIXEL_PACK_BUFFER_BINDING, GL_PIXEL_UNPACK_BUFFER_BINDING,
          GL_UNIFORM_BUFFER_BINDING, GL_TEXTURE_BUFFER_BINDING, GL_PACK_ALIGNMENT, GL_UNPACK_ALIGNMENT,
          GL_UNPACK_ROW_LENGTH, GL_PACK_ROW_LENGTH, GL_DRAW_BUFFER, GL_READ_BUFFER}) {
        GLint value = 0;
        glGetIntegerv(name, &value);
        state["0x" + std::to_string(name)] = {double(value)};
    }
    GLint unit = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &unit);
    for (int i = 0; i < 16; ++i) {
        glActiveTexture(GLenum(GL_TEXTURE0 + i));
        for (const GLenum name : {GL_TEXTURE_BINDING_2D, GL_TEXTURE_BINDING_2D_ARRAY, GL_TEXTURE_BINDING_BUFFER,
                                  GL_TEXTURE_BINDING_CUBE_MAP, GL_SAMPLER_BINDING}) {
            GLint value = 0;
            glGetIntegerv(name, &value);
            state["unit " + std::to_string(i) + " 0x" + std::to_string(name)] = {double(value)};
        }
    }
    glActiveTexture(GLenum(unit));
    return state;
}

vtkSmartPointer<VtkPipelinePass> passOf(const std::string &text)
{
    auto pass = vtkSmartPointer<VtkPipelinePass>::New();
    EXPECT_TRUE(pass->SetPipelineText(text)) << pass->GetErrors();
    return pass;
}

} // namespace

TEST(VtkPipelinePass, HandsVtksPictureThroughAsItIs)
{
    Scene scene;
    const Picture plain = pictureOf(scene.window);
    const auto pass = passOf(kThrough);
    scene.renderer->SetPass(pass);
    const Picture through = pictureOf(scene.window);
    EXPECT_EQ(pass->GetErrors(), "");
    EXPECT_EQ(worst(plain, through), 0);
    EXPECT_GT(*std::max_element(plain.pixels.begin(), plain.pixels.end()), 150);
    EXPECT_GT(pass->GetNumberOfRenderedProps(), 0);
}

TEST(VtkPipelinePass, PassesReadColourAndDepth)
{
    Scene scene;
    const Picture plain = pictureOf(scene.window);
    const std::unique_ptr<float[]> depths(scene.window->GetZbufferData(0, 0, kWidth - 1, kHeight - 1));
    const auto inverted = passOf(kInverted);
    scene.renderer->SetPass(inverted);
    const Picture negative = pictureOf(scene.window);
    for (std::size_t i = 0; i < plain.pixels.size(); ++i)
        ASSERT_NEAR(negative.pixels[i], 255 - plain.pixels[i], 1) << i; // half floats in between
    const auto depth = passOf(kDepth);
    scene.renderer->SetPass(depth);
    const Picture distances = pictureOf(scene.window);
    int surfaces = 0;
    for (int i = 0; i < kWidth * kHeight; ++i) {
        // A pool's half floats, then 8 bits.
        ASSERT_NEAR(distances.pixels[std::size_t(i) * 3], 255 * depths[std::size_t(i)], 1) << i;
        surfaces += depths[std::size_t(i)] < 1;
    }
    EXPECT_GT(surfaces, 3000);
}

TEST(VtkPipelinePass, LeavesTheStateAsItWas)
{
    for (const std::string &text : {kThrough, kInverted, kSmaa, kTaa}) {
        Scene scene;
        scene.window->Render();
        const auto pass = passOf(text);
        vtkNew<Probe> nothing;
        nothing->draw = [](const vtkRenderState *) {};
        pass->SetDelegatePass(nothing);
        std::map<std::string, std::vector<double>> before, after;
        vtkNew<Probe> around;
        around->draw = [&](const vtkRenderState *state) {
            pass->Render(state);
            before = stateNow();
            pass->Render(state);
            after = stateNow();
        };
        scene.renderer->SetPass(around);
        scene.window->Render();
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
        EXPECT_GT(before.size(), 100U);
        for (const auto &[name, value] : before)
            EXPECT_EQ(after[name], value) << name;
        // And against that of a frame without the pass.
        std::map<std::string, std::vector<double>> bare;
        around->draw = [&](const vtkRenderState *) { bare = stateNow(); };
        scene.window->Render();
        std::map<std::string, std::vector<double>> with;
        around->draw = [&](const vtkRenderState *state) {
            bare = stateNow();
            pass->Render(state);
            with = stateNow();
        };
        scene.window->Render();
        for (const auto &[name, value] : bare)
            EXPECT_EQ(with[name], value) << name;
        pass->ReleaseGraphicsResources(scene.window);
        scene.renderer->SetPass(nullptr);
    }
}

TEST(VtkPipelinePass, ARendererInAPartOfTheWindowKeepsToIt)
{
    Scene scene;
    scene.renderer->SetViewport(0.5, 0.25, 1, 1);
    vtkNew<vtkRenderer> other;
    other->SetViewport(0, 0, 0.5, 1);
    Scene::fill(other);
    scene.window->AddRenderer(other);
    const Picture plain = pictureOf(scene.window);
    const auto pass = passOf(kInverted);
    scene.renderer->SetPass(pass);
    for (int round = 0; round < 2; ++round) {
        const Picture picture = pictureOf(scene.window);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const bool isInside = x >= kWidth / 2 && y >= kHeight / 4;
                for (int channel = 0; channel < 3; ++channel)
                    ASSERT_NEAR(picture.at(x, y, channel),
                                isInside ? 255 - plain.at(x, y, channel) : plain.at(x, y, channel), 1)
                        << x << ", " << y;
            }
        }
    }
}

TEST(VtkPipelinePass, SmoothsEdges)
{
    // Four samples a side as the reference.
    Scene fine(4 * kWidth, 4 * kHeight);
    const Picture large = pictureOf(fine.window);
    Picture reference{kWidth, kHeight, std::vector<unsigned char>(std::size_t(kWidth * kHeight * 3))};
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            for (int channel = 0; channel < 3; ++channel) {
                int sum = 0;
                for (int v = 0; v < 4; ++v)
                    for (int u = 0; u < 4; ++u)
                        sum += large.at(4 * x + u, 4 * y + v, channel);
                reference.pixels[std::size_t((y * kWidth + x) * 3 + channel)] = static_cast<unsigned char>(sum / 16);
            }
        }
    }
    Scene scene;
    const double rough = meanError(pictureOf(scene.window), reference);
    const auto smaa = passOf(kSmaa);
    scene.renderer->SetPass(smaa);
    EXPECT_LT(meanError(pictureOf(scene.window), reference), 0.75 * rough);
    const auto taa = passOf(kTaa);
    taa->SetJitterFrames(16);
    scene.renderer->SetPass(taa);
    for (int i = 0; i < 17; ++i)
        scene.window->Render();
    EXPECT_LT(meanError(pictureOf(scene.window), reference), 0.45 * rough);
    double center[2];
    scene.renderer->GetActiveCamera()->GetWindowCenter(center);
    EXPECT_EQ(center[0], 0);
    EXPECT_EQ(center[1], 0);
}

TEST(VtkPipelinePass, MultisampledWindowsWorkToo)
{
    Scene bare;
    const Picture plain = pictureOf(bare.window);
    Scene scene(kWidth, kHeight, 4);
    const auto pass = passOf(kThrough);
    scene.renderer->SetPass(pass);
    EXPECT_EQ(worst(pictureOf(scene.window), plain), 0);
}

TEST(VtkPipelinePass, SurvivesOtherSizesWindowsAndEnds)
{
    const auto pass = passOf(kSmaa);
    Picture first;
    {
        Scene scene;
        scene.renderer->SetPass(pass);
        first = pictureOf(scene.window);
        for (const auto &[width, height] : {std::pair(120, 90), {333, 211}, {kWidth, kHeight}}) {
            scene.window->SetSize(width, height);
            const Picture picture = pictureOf(scene.window);
            EXPECT_EQ(picture.width, width);
        }
        EXPECT_EQ(worst(pictureOf(scene.window), first), 0);
        Scene beside;
        const auto other = passOf(kSmaa);
        beside.renderer->SetPass(other);
        EXPECT_EQ(worst(pictureOf(beside.window), first), 0);
        EXPECT_EQ(worst(pictureOf(scene.window), first), 0);
    }
    // The window went first; the pass goes on in another one.
    Scene scene;
    scene.renderer->SetPass(pass);
    EXPECT_EQ(worst(pictureOf(scene.window), first), 0);
    EXPECT_EQ(pass->GetErrors(), "");
}

TEST(VtkPipelinePass, SaysWhatIsWrong)
{
    Scene scene;
    const Picture plain = pictureOf(scene.window);
    vtkNew<VtkPipelinePass> pass;
    EXPECT_FALSE(pass->SetPipelineFile("/nowhere.json"));
    EXPECT_NE(pass->GetErrors().find("/nowhere.json"), std::string::npos);
    EXPECT_FALSE(pass->SetPipelineText("{ \"passes\": [ { \"name\": \"A\", \"class\": \"VtkFrme\" } ] }"));
    EXPECT_NE(pass->GetErrors().find("VtkFrame"), std::string::npos) << "the nearest right name";
    ASSERT_TRUE(pass->SetPipelineText(kSmaa));
    EXPECT_FALSE(pass->SetSlotValue("Smooth.Mod", "0"));
    EXPECT_NE(pass->GetErrors().find("Mode"), std::string::npos);
    EXPECT_TRUE(pass->SetSlotValue("Smooth.Mode", "0"));
    EXPECT_EQ(pass->GetErrors(), "");
    // Without a pipeline the picture is VTK's, and the reason is told.
    vtkObject::GlobalWarningDisplayOff();
    vtkNew<VtkPipelinePass> empty;
    scene.renderer->SetPass(empty);
    EXPECT_EQ(worst(pictureOf(scene.window), plain), 0);
    EXPECT_NE(empty->GetErrors(), "");
    vtkObject::GlobalWarningDisplayOn();
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
