#include "support/allocations.h"
#include "support/draw.h"
#include "support/listreadback.h"
#include "support/messages.h"
#include "support/modelpass.h"
#include "support/modelreference.h"
#include "support/passes.h"
#include "support/scenes.h"
#include "support/shaderedit.h"
#include "support/shadowmaps.h"

#include <gl/bufferobject.h>
#include <gl/drawbuffers.h>
#include <gl/framebufferobject.h>
#include <gl/glinfo.h>
#include <gl/glslmacroprocessor.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <gl/vertexarrayobject.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>
#include <model/instancedataplan.h>
#include <model/instancedataregistry.h>
#include <renderpasses/forwardrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr size_t kMaxDepth = 50;
constexpr double kByte = 0.5 / 255 + 1e-6; // half a step of the target

bool canBuildLists()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store")
           && hasGLExtension("ARB_shading_language_420pack");
}

#define KVO_REQUIRE_LISTS()                                                                                            \
    do {                                                                                                               \
        if (!canBuildLists())                                                                                          \
            GTEST_SKIP() << "missing: image stores, for lists of more than one fragment";                              \
    } while (false)

/// Record, sort and shade, wired.
class Chain
{
public:
    enum Input { kViewport, kProjection, kCamera, kHeadPointers, kNodeBuffer, kNodeBufferWidth, kGeometry };

    void setUp(const QRect &viewport, const QMatrix4x4 &projection, const QMatrix4x4 &camera, GPUModel *model)
    {
        const QVariant geometry = model ? QVariant::fromValue(model) : QVariant();
        const std::pair<int, QVariant> common[] = {{0, viewport}, {1, projection}, {2, camera}};
        for (const auto &[input, value] : common) {
            record.setInput(input, value);
            shade.setInput(input, value);
        }
        record.setInput(3, geometry);
        sort.setInput(0, viewport);
        shade.setInput(kGeometry, geometry);
        glViewport(0, 0, viewport.width(), viewport.height());
    }

    void recordAndSort()
    {
        runFrame(record);
        for (int i = 0; i < 3; ++i)
            sort.setInput(1 + i, record.output(i));
        runFrame(sort);
        for (int i = 0; i < 3; ++i)
            shade.setInput(kHeadPointers + i, sort.output(i));
    }

    void run()
    {
        recordAndSort();
        glDepthMask(GL_TRUE);
        runFrame(shade);
    }

    Image<float> frame() const { return readTexture<float>(outputTexture(shade, 0)); }

    VisibilityBufferRenderPass record;
    VisibilitySortRenderPass sort;
    VisibilityDeferredRenderPass shade;
};

struct Layer
{
    Vector3 color;
    double alpha;
    float depth;
};

/// The walk of the shading over fragments from the head of a list on.
std::array<double, 4> blended(const std::vector<Layer> &list)
{
    std::array<double, 4> out{0, 0, 0, 1};
    for (const Layer &layer : list) {
        for (size_t c = 0; c < 3; ++c)
            out[c] = out[c] * (1 - layer.alpha) + layer.color[c] * layer.alpha;
        out[3] = std::clamp(layer.alpha + (1 - layer.alpha) * out[3], 0.0, 1.0);
        for (size_t c = 0; c < 3; ++c)
            out[c] = out[3] * layer.alpha * layer.color[c] + out[c];
        out[3] = (1 - layer.alpha) * out[3];
        if (layer.alpha >= 1)
            break;
    }
    for (double &c : out)
        c = std::clamp(c, 0.0, 1.0);
    return out;
}

/// Lists leave the recording newest first; the sort orders the first 50 of them.
std::vector<Layer> asSorted(std::vector<Layer> inDrawOrder)
{
    std::reverse(inDrawOrder.begin(), inDrawOrder.end());
    const auto end = inDrawOrder.begin() + long(std::min(inDrawOrder.size(), kMaxDepth));
    std::sort(inDrawOrder.begin(), end, [](const Layer &a, const Layer &b) { return a.depth < b.depth; });
    return inDrawOrder;
}

Vector3 colorOf(const ModelMaterial &m, const Vector3 &normal)
{
    return blinnPhong({double(m.Kd.x()), double(m.Kd.y()), double(m.Kd.z())},
                      {double(m.Ks.x()), double(m.Ks.y()), double(m.Ks.z())}, double(m.Ns), normal);
}

ModelItem quadAt(float z, int materialIndex)
{
    ModelItem item;
    item.material = materialIndex;
    item.transform.translate(0, 0, z);
    return item;
}

/// A textured, bent surface in perspective: cubes with rounded normals.
ModelData cubes(float opacity)
{
    ModelData data;
    data.meshes << cubeMesh();
    for (qsizetype i = 0; i < data.meshes[0].normals.size(); ++i)
        data.meshes[0].normals[i] = (data.meshes[0].normals[i] + data.meshes[0].positions[i]).normalized();
    QImage map(16, 16, QImage::Format_RGBA8888);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 16; ++x)
            map.setPixelColor(x, y, QColor(40 + 10 * x, 60 + 8 * y, 128));
    for (int i = 0; i < 3; ++i) {
        ModelMaterial m = material({0.3f, 0.25f + 0.1f * float(i), 0.4f}, {0.125f, 0.1f, 0.05f}, 6.0f, opacity);
        if (i == 1)
            m.map_Kd = map;
        data.materials << m;
        ModelItem item;
        item.material = i;
        item.transform.translate(-0.9f + 0.8f * float(i), 0.2f * float(i), -1.2f * float(i));
        item.transform.rotate(35.0f + 40.0f * float(i), 1, 2, 0.5f);
        data.items << item;
    }
    return data;
}

class VisibilityShading : public GLTest
{
protected:
    static constexpr int kWidth = 61;
    static constexpr int kHeight = 47;
    static constexpr QRect kViewport{0, 0, kWidth, kHeight};

    void SetUp() override
    {
        GLTest::SetUp();
        chain = std::make_unique<Chain>();
        model = std::make_unique<GPUModel>();
        projection = perspective(float(kWidth) / float(kHeight));
        camera = cameraAt(4);
        camera.rotate(10, 1, 0, 0);
        glClearColor(0, 0, 0, 0);
    }

    void TearDown() override
    {
        chain.reset();
        model.reset();
        GLTest::TearDown();
    }

    void setUpFlat(const ModelData &scene)
    {
        ASSERT_TRUE(model->upload(scene));
        chain->setUp(kViewport, flatProjection(), QMatrix4x4(), model.get());
    }

    std::unique_ptr<Chain> chain;
    std::unique_ptr<GPUModel> model;
    QMatrix4x4 projection;
    QMatrix4x4 camera;
};

const QString kReaderHead = QStringLiteral(R"(#version 150
#include "VisibilityBuffer.glslh"
#instancedata "InstanceInfo"
uniform mat4 u_CameraMatrix;
uniform int u_Skip;
in vec2 vo_TexCoord;
out vec4 out_Normal;
out vec4 out_TexCoord;
out vec4 out_Position;
void main()
{
  uint pointer;
  initializeVisibilityBufferQuery(vo_TexCoord, pointer);
  if(!doesVisibilityBufferHaveFragment(pointer))
    discard;
  vec4 Position;
  float Depth;
  vec3 Normal;
  vec2 TexCoord;
  for(int i = 0; i <= u_Skip && doesVisibilityBufferHaveFragment(pointer); ++i)
    getFragmentInfo(vo_TexCoord, pointer, Position, Depth, Normal, TexCoord);
  out_Normal = vec4((transpose(inverse(u_CameraMatrix * getModelMatrix())) * vec4(Normal, 0.0)).xyz, Depth);
  out_TexCoord = vec4(TexCoord, doesVisibilityBufferHaveFragment(pointer) ? 1.0 : 0.0, 1.0);
  out_Position = u_CameraMatrix * Position;
}
)");

} // namespace

TEST_F(VisibilityShading, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(VisibilityDeferredRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoTexture*_HeadPointers"},
                 {"Kvo_KvoTexture*_NodeBuffer"},
                 {"Kvo_int_NodeBufferWidth"},
                 {"Kvo_KvoGPUModel*_Geometry"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(VisibilityShading, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<VisibilityDeferredRenderPass>();
}

TEST_F(VisibilityShading, TheReaderRebuildsWhatTheRasteriserInterpolates)
{
    const ModelData scene = cubes(0.5f);
    ASSERT_TRUE(model->upload(scene));
    chain->setUp(kViewport, projection, camera, model.get());
    chain->run(); // makes the shared layout of attributes; the frame is not looked at

    // A program of a host's own over the same lists.
    GLSLMacroProcessor processor;
    DrawBuffers::setup(&processor);
    ShaderProgram program;
    program.setMacroProcessor(&processor);
    program.setFragDataLocations(
        {QStringLiteral("out_Normal"), QStringLiteral("out_TexCoord"), QStringLiteral("out_Position")});
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER, kReaderHead);
    program.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("VisibilityBuffer.glslc"));
    program.addShader(GL_FRAGMENT_SHADER,
                      InstanceDataRegistry::Instance().getPlan(QStringLiteral("InstanceInfo"))->glslc());
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());

    const auto targets = {makeTexture(GL_RGBA32F, kWidth, kHeight), makeTexture(GL_RGBA32F, kWidth, kHeight),
                          makeTexture(GL_RGBA32F, kWidth, kHeight)};
    FramebufferObject framebuffer;
    DrawBuffers &geometry = *model->drawBuffers(0);
    const auto view = [&](const QSharedPointer<BufferObject> &buffer, unsigned int format) {
        auto texture = std::make_unique<Texture>();
        texture->setTarget(GL_TEXTURE_BUFFER);
        texture->bind();
        glTexBuffer(GL_TEXTURE_BUFFER, format, buffer->getBO());
        texture->unbind();
        return texture;
    };
    const auto vertices = view(geometry.VAO()->bo(QStringLiteral("va_Vertex")), GL_RGB32F);
    const auto texCoords = view(geometry.VAO()->bo(QStringLiteral("va_TexCoord")), GL_RG32F);
    const auto normals = view(geometry.VAO()->bo(QStringLiteral("va_Normal")), GL_RGB32F);
    const auto indices = view(geometry.indexBO(), GL_R32I);

    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    double worstNormal = 0;
    double worstTexCoord = 0;
    double worstPosition = 0;
    int compared = 0;
    const int layers = canBuildLists() ? 3 : 1;
    for (int layer = 0; layer < layers; ++layer) {
        {
            AutoBinder fbo(&framebuffer);
            unsigned int attachment = GL_COLOR_ATTACHMENT0;
            for (const auto &target : targets)
                framebuffer.attach(target.get(), attachment++, 0);
            framebuffer.setDrawBuffers();
            glClear(GL_COLOR_BUFFER_BIT);
            glDisable(GL_DEPTH_TEST);
            AutoBinder bound(&program);
            Texture *heads = textureFromVariant(chain->sort.output(0));
            Texture *nodes = textureFromVariant(chain->sort.output(1));
            const AutoBinder textures[] = {AutoBinder(heads),          AutoBinder(nodes),
                                           AutoBinder(vertices.get()), AutoBinder(texCoords.get()),
                                           AutoBinder(normals.get()),  AutoBinder(indices.get())};
            program.setUniform(QStringLiteral("u_SamplerHeadPointer"), heads->unit());
            program.setUniform(QStringLiteral("u_SamplerNodeBuffer"), nodes->unit());
            program.setUniform(QStringLiteral("u_SamplerNodeBufferWidth"), chain->sort.output(2));
            program.setUniform(QStringLiteral("u_VertexBuffer"), vertices->unit());
            program.setUniform(QStringLiteral("u_texCoordBuffer"), texCoords->unit());
            program.setUniform(QStringLiteral("u_NormalBuffer"), normals->unit());
            program.setUniform(QStringLiteral("u_IndexBuffer"), indices->unit());
            program.setUniform(QStringLiteral("u_indexedDraw"), true);
            program.setUniform(QStringLiteral("u_CameraMatrix"), camera);
            program.setUniform(QStringLiteral("u_ProjectionMatrix"), projection);
            program.setUniform(QStringLiteral("u_Skip"), layer);
            AutoBinder commands(geometry.getDrawElementsIndirectCommandsUniformBufferObject());
            model->objectData(0)->bind(&program, nullptr);
            const auto quad = OpenGLDeviceContext::current()->screenQuad();
            quad->VAO()->bind();
            quad->VAO()->enableShaderProgramArrays(&program);
            quad->draw();
            quad->VAO()->unbind();
            model->objectData(0)->unbind(&program, nullptr);
        }
        const Image<float> normal = readTexture<float>(targets.begin()[0].get());
        const Image<float> texCoord = readTexture<float>(targets.begin()[1].get());
        const Image<float> position = readTexture<float>(targets.begin()[2].get());
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const ModelFragment &nearest = reference.at(x, y);
                if (nearest.ambiguous || !nearest.covered)
                    continue;
                // Without lists there is draw 0 alone.
                if (!canBuildLists() && nearest.item != 0)
                    continue;
                QVector<ModelFragment> list = reference.layersAt(x, y);
                if (list.size() <= layer)
                    continue;
                std::sort(list.begin(), list.end(),
                          [](const ModelFragment &a, const ModelFragment &b) { return a.depth < b.depth; });
                const ModelFragment &f = list[layer];
                const bool anyTied = std::any_of(list.cbegin(), list.cend(), [](const auto &l) { return l.ambiguous; });
                if (anyTied)
                    continue;
                const auto &n = normal.at(x, y);
                for (size_t c = 0; c < 3; ++c)
                    worstNormal = std::max(worstNormal, std::abs(double(n[c]) - f.normal[c]));
                ASSERT_NEAR(double(n[3]), f.depth, 2e-6);
                worstTexCoord = std::max({worstTexCoord, std::abs(double(texCoord.at(x, y)[0]) - f.u),
                                          std::abs(double(texCoord.at(x, y)[1]) - f.v)});
                // The position is where the depth says.
                const QVector4D clip =
                    projection
                    * QVector4D(position.at(x, y)[0], position.at(x, y)[1], position.at(x, y)[2], position.at(x, y)[3]);
                const double w = double(clip.w());
                worstPosition = std::max({worstPosition, std::abs(double(clip.x()) / w - ((x + 0.5) / kWidth * 2 - 1)),
                                          std::abs(double(clip.y()) / w - ((y + 0.5) / kHeight * 2 - 1)),
                                          std::abs((double(clip.z()) / w + 1) / 2 - f.depth)});
                if (canBuildLists()) {
                    ASSERT_EQ(texCoord.at(x, y)[2], list.size() > layer + 1 ? 1.0f : 0.0f) << "more to come";
                }
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, canBuildLists() ? 1000 : 100);
    // Single precision, in triangles of about 20 pixels.
    EXPECT_LT(worstNormal, 5e-5);
    EXPECT_LT(worstTexCoord, 5e-5);
    EXPECT_LT(worstPosition, 5e-6);
    RecordProperty("worstNormal", QString::number(worstNormal).toStdString());
    RecordProperty("worstTexCoord", QString::number(worstTexCoord).toStdString());
}

TEST_F(VisibilityShading, AnOpaqueSurfaceLooksAsTheForwardPassDrawsItTwiceAsBright)
{
    // The stated blend counts a colour twice; everything else is the same light on the same surface.
    const ModelData scene = cubes(1.0f);
    ASSERT_TRUE(model->upload(scene));
    chain->setUp(kViewport, projection, camera, model.get());
    chain->run();
    ForwardRenderPass forward;
    for (int i = 0; i < 4; ++i)
        forward.setInput(
            i, std::vector<QVariant>{kViewport, projection, camera, QVariant::fromValue(model.get())}[size_t(i)]);
    glDisable(GL_DEPTH_TEST);
    runFrame(forward);
    const Image<float> expected = readTexture<float>(outputTexture(forward, 0));
    const Image<float> actual = chain->frame();
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    int compared = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const ModelFragment &f = reference.at(x, y);
            if (f.ambiguous)
                continue;
            if (!f.covered) {
                ASSERT_TRUE(isPixel(actual, x, y, {0, 0, 0, 0}, 0));
                continue;
            }
            if (!canBuildLists() && f.item != 0)
                continue;
            // The level of detail of a map comes from the four pixels of a quad, which must show one face.
            const auto isSameFace = [&](int dx, int dy) {
                const int qx = x / 2 * 2 + dx;
                const int qy = y / 2 * 2 + dy;
                if (qx >= kWidth || qy >= kHeight)
                    return false;
                const ModelFragment &other = reference.at(qx, qy);
                return other.covered && other.item == f.item && other.triangle / 2 == f.triangle / 2;
            };
            if (f.item == 1 && !(isSameFace(0, 0) && isSameFace(1, 0) && isSameFace(0, 1) && isSameFace(1, 1)))
                continue;
            const auto &e = expected.at(x, y);
            ASSERT_TRUE(isPixel(
                actual, x, y,
                {std::min(1.0, 2 * double(e[0])), std::min(1.0, 2 * double(e[1])), std::min(1.0, 2 * double(e[2])), 0},
                3 * kByte + 1e-3));
            ++compared;
        }
    }
    EXPECT_GT(compared, canBuildLists() ? 600 : 100);
}

TEST_F(VisibilityShading, RandomStacksOfOneToSixtyLayersBlendByTheFourSteps)
{
    KVO_REQUIRE_LISTS();
    // Layer i of 60 covers the pixels from column i on, so that columns have 1 to 60 of them.
    std::mt19937 random(5);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    ModelData scene;
    scene.meshes << quadMesh();
    constexpr int kLayers = 60;
    std::vector<int> order(kLayers);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), random);
    for (int i = 0; i < kLayers; ++i) {
        scene.materials << material({unit(random), unit(random), unit(random)}, {}, 1.0f, 0.02f + 0.3f * unit(random));
        ModelItem item = quadAt(-9.0f + 0.25f * float(order[size_t(i)]), i);
        item.transform.translate(2.0f * float(i) / kWidth, 0, 0);
        scene.items << item;
    }
    setUpFlat(scene);
    chain->run();
    const Image<float> frame = chain->frame();
    for (int x = 0; x < kLayers; ++x) {
        std::vector<Layer> layers;
        for (int i = 0; i <= x; ++i) {
            const float depth = (10.0f - (-9.0f + 0.25f * float(order[size_t(i)]))) / 20.0f;
            layers.push_back({colorOf(scene.materials[i], {0, 0, 1}), double(scene.materials[i].D), depth});
        }
        const std::array<double, 4> expected = blended(asSorted(layers));
        // Half a step of the 8 bits, and single precision over up to 60 layers.
        for (int y : {0, kHeight / 2, kHeight - 1})
            ASSERT_TRUE(isPixel(frame, x, y, expected, kByte + 2e-5)) << x + 1 << " layers";
    }
}

TEST_F(VisibilityShading, TheFirstFragmentCountsTwice)
{
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.25f, 0.75f}, {}, 1.0f, 0.375f);
    scene.items << quadAt(0, 0);
    setUpFlat(scene);
    chain->run();
    const double nDotL = 1 / std::sqrt(3.0);
    const double a = 0.375;
    for (int x : {0, kWidth - 1})
        EXPECT_TRUE(isPixel(chain->frame(), x, 5,
                            {2 * a * 0.5 * nDotL, 2 * a * 0.25 * nDotL, 2 * a * 0.75 * nDotL, 1 - a}, kByte + 1e-6));
}

TEST_F(VisibilityShading, AnOpaqueFragmentAtTheHeadEndsTheWalkWithAlphaZero)
{
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.25f, 0.25f, 0.25f}) << material({1, 0, 0}, {}, 1.0f, 0.5f);
    scene.items << quadAt(1, 0) << quadAt(-1, 1) << quadAt(-2, 1);
    if (!canBuildLists())
        scene.items.resize(1);
    setUpFlat(scene);
    chain->run();
    const double c = 2 * 0.25 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(chain->frame(), 30, 20, {c, c, c, 0}, kByte + 1e-6));
}

TEST_F(VisibilityShading, AFragmentOfNoOpacityChangesNothingAndTheWalkGoesOn)
{
    KVO_REQUIRE_LISTS();
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({1, 1, 1}, {}, 1.0f, 0.0f) << material({0.5f, 0.5f, 0.5f}, {}, 1.0f, 0.25f);
    scene.items << quadAt(1, 0) << quadAt(-1, 1) << quadAt(3, 0);
    setUpFlat(scene);
    chain->run();
    const double c = 2 * 0.25 * 0.5 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(chain->frame(), 30, 20, {c, c, c, 0.75}, kByte + 1e-6));
}

TEST_F(VisibilityShading, APixelWithoutFragmentsKeepsTheCurrentClearColor)
{
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.5f, 0.5f});
    ModelItem half = quadAt(0, 0);
    half.transform.translate(1, 0, 0);
    scene.items << half;
    setUpFlat(scene);
    chain->recordAndSort();
    glClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    runFrame(chain->shade);
    EXPECT_TRUE(isPixel(chain->frame(), 3, 5, {0.25, 0.5, 0.75, 1}, kByte));
    EXPECT_TRUE(isPixel(chain->frame(), kWidth - 3, 5, {1 / std::sqrt(3.0), 1 / std::sqrt(3.0), 1 / std::sqrt(3.0), 0},
                        kByte + 1e-6));
    // What had fragments in the frame before does not count.
    chain->record.setInput(3, QVariant());
    chain->recordAndSort();
    glClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    runFrame(chain->shade);
    EXPECT_TRUE(isPixel(chain->frame(), kWidth - 3, 5, {0.25, 0.5, 0.75, 1}, kByte));
}

TEST_F(VisibilityShading, WithoutListsDrawZeroIsTheOneThatIsRead)
{
    if (canBuildLists())
        GTEST_SKIP() << "missing: a driver without image stores";
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0, 0}, {}, 1.0f, 0.5f) << material({0, 0.5f, 0}, {}, 1.0f, 1.0f);
    scene.items << quadAt(-1, 0) << quadAt(1, 1);
    setUpFlat(scene);
    chain->run();
    // The nearest fragment is of draw 1, and gets the material of draw 0.
    const double c = 2 * 0.5 * 0.5 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(chain->frame(), 30, 20, {c, 0, 0, 0.5}, kByte + 1e-6));
}

TEST_F(VisibilityShading, ManyDrawsEachHaveTheirOwnPlaceAndMaterial)
{
    KVO_REQUIRE_LISTS();
    const int most = DrawBuffers::maxShaderReadableCommands();
    ASSERT_GE(most, 819) << "what the smallest uniform block holds";
    constexpr int kColumns = 40;
    const int rows = std::min(most, 3276) / kColumns;
    const ModelData scene = quadGridScene(kColumns, rows);
    ASSERT_GT(scene.items.size(), 800);
    ASSERT_TRUE(model->upload(scene));
    const QRect viewport(0, 0, 3 * kColumns, 3 * rows);
    chain->setUp(viewport, flatProjection(), QMatrix4x4(), model.get());
    const MessageCapture messages;
    chain->run();
    EXPECT_EQ(messages.count(QtWarningMsg), 0);
    const Image<float> frame = chain->frame();
    const double twice = 2 / std::sqrt(3.0);
    for (int i = 0; i < int(scene.items.size()); ++i) {
        const QVector3D Kd = scene.materials[i].Kd;
        ASSERT_TRUE(isPixel(frame, 3 * (i % kColumns) + 1, 3 * (i / kColumns) + 1,
                            {std::min(1.0, twice * double(Kd.x())), std::min(1.0, twice * double(Kd.y())),
                             std::min(1.0, twice * double(Kd.z())), 0},
                            kByte + 1e-6))
            << "draw " << i;
    }
}

TEST_F(VisibilityShading, MoreDrawsThanTheBlockHoldsAreReportedOnce)
{
    const int most = DrawBuffers::maxShaderReadableCommands();
    ASSERT_TRUE(model->upload(quadGridScene(100, most / 100 + 1)));
    chain->setUp(kViewport, flatProjection(), QMatrix4x4(), model.get());
    const MessageCapture messages;
    chain->run();
    chain->run();
    ASSERT_EQ(messages.count(QtWarningMsg), 1);
    EXPECT_TRUE(messages.texts(QtWarningMsg)[0].contains(QString::number(most)))
        << qPrintable(messages.texts(QtWarningMsg)[0]);
}

TEST_F(VisibilityShading, AModelWithoutIndexBufferIsReadWithThreeViews)
{
    ModelData scene = cubes(0.6f);
    scene.items.resize(1);
    // Vertices in the order of the indices, so that both ways mean the same triangles.
    ModelMesh &mesh = scene.meshes[0];
    ModelMesh flat;
    for (quint32 index : mesh.indices) {
        flat.positions << mesh.positions[index];
        flat.normals << mesh.normals[index];
        flat.texCoords << mesh.texCoords[index];
        flat.indices << quint32(flat.indices.size());
    }
    mesh = flat;
    ASSERT_TRUE(model->upload(scene));
    chain->setUp(kViewport, projection, camera, model.get());
    chain->run();
    const Image<float> indexed = chain->frame();

    VisibilityDeferredRenderPass other;
    const QVariant values[] = {QVariant(kViewport),
                               QVariant(projection),
                               QVariant(camera),
                               chain->sort.output(0),
                               chain->sort.output(1),
                               chain->sort.output(2),
                               QVariant::fromValue(model.get())};
    for (int i = 0; i < 7; ++i)
        other.setInput(i, values[i]);
    model->drawBuffers(0)->setIndexedDraw(nullptr, 0, GL_UNSIGNED_INT);
    const GlCalls calls;
    runFrame(other);
    EXPECT_EQ(calls.count("glTexBuffer"), 3);
    EXPECT_EQ(calls.count("glTexBuffer", {GL_TEXTURE_BUFFER, GL_R32I}), 0);
    const Image<float> plain = readTexture<float>(outputTexture(other, 0));
    EXPECT_TRUE(sameImage(plain, indexed, within(0)));
    const auto notBlack = [](const auto &p) { return p[0] > 0; };
    EXPECT_GT(std::count_if(plain.pixels.cbegin(), plain.pixels.cend(), notBlack), 100);
}

TEST_F(VisibilityShading, ViewsAreMadeOfTheFirstModelOnceAndStay)
{
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.5f, 0.5f}, {}, 1.0f, 0.5f);
    scene.items << quadAt(0, 0);
    setUpFlat(scene);
    {
        const GlCalls calls;
        chain->run();
        EXPECT_EQ(calls.count("glTexBuffer", {GL_TEXTURE_BUFFER, GL_RGB32F}), 2);
        EXPECT_EQ(calls.count("glTexBuffer", {GL_TEXTURE_BUFFER, GL_RG32F}), 1);
        EXPECT_EQ(calls.count("glTexBuffer", {GL_TEXTURE_BUFFER, GL_R32I}), 1);
    }
    const Image<float> before = chain->frame();
    // The second model has its quad elsewhere in its buffers; the views still show the first one's.
    ModelData second = scene;
    second.meshes[0].normals.fill(QVector3D(0, 0, -1));
    GPUModel other;
    ASSERT_TRUE(other.upload(second));
    chain->setUp(kViewport, flatProjection(), QMatrix4x4(), &other);
    const GlCalls calls;
    chain->run();
    for (unsigned int format : {GL_RGB32F, GL_RG32F, GL_R32I})
        EXPECT_EQ(calls.count("glTexBuffer", {GL_TEXTURE_BUFFER, double(format)}), 0);
    EXPECT_TRUE(sameImage(chain->frame(), before, within(0))) << "normals are the first model's";
    chain->setUp(kViewport, flatProjection(), QMatrix4x4(), model.get());
}

TEST_F(VisibilityShading, AFirstStartWithoutModelMakesNoViewsAndTheNextOneDoes)
{
    chain->setUp(kViewport, flatProjection(), QMatrix4x4(), nullptr);
    glClearColor(0.5f, 0.25f, 0.125f, 1);
    {
        const GlCalls calls;
        runFrame(chain->shade);
        EXPECT_EQ(calls.count("glTexBuffer"), 0);
        EXPECT_EQ(calls.draws(), 0);
    }
    const Image<float> cleared = chain->frame();
    for (const auto &pixel : cleared.pixels)
        ASSERT_NEAR(double(pixel[0]), 0.5, kByte) << "a cleared frame";
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.5f, 0.5f}, {}, 1.0f, 0.5f);
    scene.items << quadAt(0, 0);
    setUpFlat(scene);
    const GlCalls calls;
    chain->run();
    EXPECT_EQ(calls.count("glTexBuffer", {GL_TEXTURE_BUFFER, GL_R32I}), 1);
    EXPECT_TRUE(isPixel(chain->frame(), 9, 9, {0.5 / std::sqrt(3.0), 0.5 / std::sqrt(3.0), 0.5 / std::sqrt(3.0), 0.5},
                        kByte + 1e-6));
}

TEST_F(VisibilityShading, AMissingInputOfAnyKindLeavesAClearedFrame)
{
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.5f, 0.5f});
    scene.items << quadAt(0, 0);
    setUpFlat(scene);
    chain->recordAndSort();
    const QVariant values[] = {chain->sort.output(0), chain->sort.output(1), chain->sort.output(2),
                               QVariant::fromValue(model.get())};
    for (int missing = 1; missing < 16; ++missing) {
        VisibilityDeferredRenderPass pass;
        pass.setInput(Chain::kViewport, kViewport);
        pass.setInput(Chain::kProjection, flatProjection());
        pass.setInput(Chain::kCamera, QMatrix4x4());
        for (int i = 0; i < 4; ++i)
            pass.setInput(Chain::kHeadPointers + i, missing & (1 << i) ? QVariant() : values[i]);
        glClearColor(0, 1, 0, 1);
        runFrame(pass);
        const Image<float> frame = readTexture<float>(outputTexture(pass, 0));
        EXPECT_TRUE(isPixel(frame, 10, 10, {0, 1, 0, 1}, 0)) << missing;
    }
}

TEST_F(VisibilityShading, AnOverflowOfTheNodeBufferEndsListsWithoutAGhost)
{
    KVO_REQUIRE_LISTS();
    // Heads and links that lead beyond the buffer, as recording leaves them.
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.5f, 0.5f}, {}, 1.0f, 0.5f);
    scene.items << quadAt(0, 0) << quadAt(1, 0);
    setUpFlat(scene);
    chain->recordAndSort();
    Texture *heads = textureFromVariant(chain->sort.output(0));
    const quint32 beyond = 4096u * 4096u + 1;
    heads->bind();
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 1, 1, GL_RED_INTEGER, GL_UNSIGNED_INT, &beyond);
    heads->unbind();
    Texture *nodes = textureFromVariant(chain->sort.output(1));
    const ListReadback lists(heads, nodes, 4096, 2);
    const quint32 node = lists.head(5, 5) - 1;
    ListNode changed = lists.node(node + 1);
    changed.next = beyond;
    nodes->bind();
    glTexSubImage2D(GL_TEXTURE_2D, 0, GLint(node % 4096), GLint(node / 4096), 1, 1, GL_RGBA_INTEGER, GL_UNSIGNED_INT,
                    &changed);
    nodes->unbind();
    glClearColor(0, 1, 0, 1);
    runFrame(chain->shade);
    const Image<float> frame = chain->frame();
    EXPECT_TRUE(isPixel(frame, 0, 0, {0, 1, 0, 1}, 0)) << "no fragment was stored";
    const double one = 0.5 / std::sqrt(3.0);
    EXPECT_TRUE(isPixel(frame, 5, 5, {one, one, one, 0.5}, kByte + 1e-6)) << "one fragment";
    const std::array<double, 4> two = blended({{{one, one, one}, 0.5, 0.4f}, {{one, one, one}, 0.5, 0.5f}});
    EXPECT_TRUE(isPixel(frame, 9, 9, two, kByte + 1e-6)) << "two fragments";
}

TEST_F(VisibilityShading, WhatTheSortMakesOfAnOverflowIsShadedWithoutAGhost)
{
    KVO_REQUIRE_LISTS();
    // The last fragment of a pixel found no room. The sort reads zeros for it, which come first.
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.25f, 0.75f}, {}, 1.0f, 0.5f) << material({0.25f, 0.75f, 0.5f}, {}, 1.0f, 0.5f);
    scene.items << quadAt(0, 0) << quadAt(1, 1);
    setUpFlat(scene);
    runFrame(chain->record);
    Texture *heads = textureFromVariant(chain->record.output(0));
    Texture *nodes = textureFromVariant(chain->record.output(1));
    const ListReadback lists(heads, nodes, 4096, 2);
    const quint32 node = lists.node(lists.head(5, 5)).next - 1;
    ListNode changed = lists.node(node + 1);
    changed.next = 4096u * 4096u + 1;
    nodes->bind();
    glTexSubImage2D(GL_TEXTURE_2D, 0, GLint(node % 4096), GLint(node / 4096), 1, 1, GL_RGBA_INTEGER, GL_UNSIGNED_INT,
                    &changed);
    nodes->unbind();
    for (int i = 0; i < 3; ++i)
        chain->sort.setInput(1 + i, chain->record.output(i));
    runFrame(chain->sort);
    for (int i = 0; i < 3; ++i)
        chain->shade.setInput(Chain::kHeadPointers + i, chain->sort.output(i));
    glClearColor(0, 1, 0, 1);
    runFrame(chain->shade);
    const Vector3 nearest = colorOf(scene.materials[1], {0, 0, 1});
    const Vector3 behind = colorOf(scene.materials[0], {0, 0, 1});
    // The zeros took the first place, and the farthest fragment went to where there is none.
    EXPECT_TRUE(isPixel(chain->frame(), 5, 5, blended({{nearest, 0.5, 0.45f}}), kByte + 1e-6));
    EXPECT_TRUE(isPixel(chain->frame(), 9, 9, blended({{nearest, 0.5, 0.45f}, {behind, 0.5, 0.5f}}), kByte + 1e-6));
}

/// Lists made by hand for the flat scene of one quad: heads, and nodes in rows of four.
class HandMadeLists
{
public:
    HandMadeLists(const QSize &size, const std::vector<quint32> &heads, const std::vector<ListNode> &nodes)
    {
        _heads = makeIntegerTexture(GL_R32UI, size.width(), size.height(), GL_RED_INTEGER, heads.data());
        _nodes = makeIntegerTexture(GL_RGBA32UI, kWidth, int(nodes.size()) / kWidth, GL_RGBA_INTEGER, nodes.data());
    }
    void connect(VisibilityDeferredRenderPass &pass) const
    {
        pass.setInput(Chain::kHeadPointers, textureToVariant(_heads.get()));
        pass.setInput(Chain::kNodeBuffer, textureToVariant(_nodes.get()));
        pass.setInput(Chain::kNodeBufferWidth, kWidth);
    }

    static constexpr int kWidth = 4;

private:
    std::unique_ptr<Texture> _heads;
    std::unique_ptr<Texture> _nodes;
};

TEST_F(VisibilityShading, ListsAreReadToTheLastNodeAndNodesWithoutIdentityHoldNoFragment)
{
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.25f, 0.75f}, {}, 1.0f, 0.25f);
    scene.items << quadAt(0, 0);
    constexpr QRect kPixels(0, 0, 8, 1);
    ASSERT_TRUE(model->upload(scene));
    chain->setUp(kPixels, flatProjection(), QMatrix4x4(), model.get());
    // Eight nodes. Pixels lie in the right-hand or left-hand triangle of the quad; the plane is the same.
    const auto real = [](quint32 next) { return ListNode{next, 1, bitsOf(0.5f), 0}; };
    const auto empty = [](quint32 next) { return ListNode{next, 0, bitsOf(0.25f), 3}; };
    const std::vector<ListNode> nodes{real(0), real(1), empty(1), empty(0), real(9), empty(9), real(3), real(0)};
    struct Pixel
    {
        const char *what;
        quint32 head;
        int fragments;
    };
    const Pixel pixels[8] = {
        {"one", 1, 1},
        {"two", 2, 2},
        {"an empty one first", 3, 1},
        {"an empty one alone", 4, 0},
        {"one, and one that is lost", 5, 1},
        {"an empty one, and one that is lost", 6, 0},
        {"an empty one in between", 7, 2},
        {"the last node of the buffer", 8, 1},
    };
    std::vector<quint32> heads;
    for (const Pixel &pixel : pixels)
        heads.push_back(pixel.head);
    const HandMadeLists lists(kPixels.size(), heads, nodes);
    lists.connect(chain->shade);
    glClearColor(0, 1, 0, 1);
    runFrame(chain->shade);
    const Image<float> frame = chain->frame();
    const Layer layer{colorOf(scene.materials[0], {0, 0, 1}), 0.25, 0.5f};
    for (int x = 0; x < 8; ++x) {
        const std::vector<Layer> list(size_t(pixels[x].fragments), layer);
        const std::array<double, 4> expected = list.empty() ? std::array<double, 4>{0, 1, 0, 1} : blended(list);
        EXPECT_TRUE(isPixel(frame, x, 0, expected, kByte + 1e-6)) << pixels[x].what;
    }
    // A head beyond the buffer, by one.
    heads.assign(8, 9);
    const HandMadeLists beyond(kPixels.size(), heads, nodes);
    beyond.connect(chain->shade);
    runFrame(chain->shade);
    EXPECT_TRUE(isPixel(chain->frame(), 3, 0, {0, 1, 0, 1}, 0));
}

TEST_F(VisibilityShading, ListsThatLeadBackIntoThemselvesEndAfterAFewRounds)
{
    ModelData scene;
    scene.meshes << quadMesh();
    scene.materials << material({0.5f, 0.25f, 0.75f}, {}, 1.0f, 1.0f / 64);
    scene.items << quadAt(0, 0);
    constexpr QRect kPixels(0, 0, 5, 1);
    ASSERT_TRUE(model->upload(scene));
    chain->setUp(kPixels, flatProjection(), QMatrix4x4(), model.get());
    const auto real = [](quint32 next) { return ListNode{next, 1, bitsOf(0.5f), 0}; };
    const auto empty = [](quint32 next) { return ListNode{next, 0, 0, 0}; };
    // To itself; two in a circle; three with one ahead of them; a circle of empty ones; a real and an empty one.
    const std::vector<ListNode> nodes{real(1), real(3),  real(2),  real(5),  real(6),   real(7),
                                      real(5), empty(9), empty(8), real(11), empty(10), empty(0)};
    const HandMadeLists lists(kPixels.size(), {1, 2, 4, 8, 10}, nodes);
    lists.connect(chain->shade);
    glClearColor(0, 1, 0, 1);
    runFrame(chain->shade);
    const Image<float> frame = chain->frame();
    const Layer layer{colorOf(scene.materials[0], {0, 0, 1}), 1.0 / 64, 0.5f};
    // Where the walk of Brent's algorithm meets its mark.
    const auto rounds = [&](quint32 head, auto next) {
        int count = 0;
        quint32 mark = 0;
        for (quint32 pointer = head; pointer != mark; pointer = next(pointer)) {
            ++count;
            if ((count & (count - 1)) == 0)
                mark = pointer;
        }
        return count;
    };
    const auto next = [&](quint32 pointer) { return nodes[pointer - 1].next; };
    const int fragments[] = {rounds(1, next), rounds(2, next), rounds(4, next), 0,
                             rounds(10, [](quint32) { return 10u; })};
    EXPECT_EQ(fragments[0], 1);
    EXPECT_LT(fragments[2], 12);
    for (int x = 0; x < 5; ++x) {
        const std::vector<Layer> list(size_t(fragments[x]), layer);
        const std::array<double, 4> expected = list.empty() ? std::array<double, 4>{0, 1, 0, 1} : blended(list);
        EXPECT_TRUE(isPixel(frame, x, 0, expected, kByte + 1e-6)) << x;
    }
}

/// Has views of buffers with three components made with one, as drivers without the former need them.
class ScalarViews
{
public:
    ScalarViews() : _real(epoxy_glTexBuffer)
    {
        real() = _real;
        epoxy_glTexBuffer = &make;
    }
    ~ScalarViews() { epoxy_glTexBuffer = _real; }
    ScalarViews(const ScalarViews &) = delete;
    ScalarViews &operator=(const ScalarViews &) = delete;

private:
    static PFNGLTEXBUFFERPROC &real()
    {
        static PFNGLTEXBUFFERPROC function = nullptr;
        return function;
    }
    static void make(GLenum target, GLenum format, GLuint buffer)
    {
        real()(target, format == GL_RGB32F ? GLenum(GL_R32F) : format, buffer);
    }

    PFNGLTEXBUFFERPROC _real;
};

class VisibilityVariants : public VisibilityShading
{
protected:
    /// The frame of a new chain; without lists, only what draw 0 covers.
    Image<float> shaded()
    {
        chain = std::make_unique<Chain>();
        chain->setUp(kViewport, projection, camera, model.get());
        chain->run();
        return chain->frame();
    }
    void SetUp() override
    {
        VisibilityShading::SetUp();
        scene = cubes(0.5f);
        // Depths right and left of powers of two, and down to small ones.
        for (int i = 0; i < 12; ++i) {
            ModelItem item = scene.items[i % 3];
            item.transform.setToIdentity();
            item.transform.translate(0.3f * float(i % 4) - 0.5f, 0.2f * float(i % 3) - 0.3f, 2.9f - 0.7f * float(i));
            item.transform.rotate(20.0f * float(i), 1, 1, 0);
            item.transform.scale(0.3f);
            scene.items << item;
        }
        ASSERT_TRUE(model->upload(scene));
        projection.setToIdentity();
        projection.perspective(45, float(kWidth) / kHeight, 0.9f, 60);
    }

    ModelData scene;
};

TEST_F(VisibilityVariants, ViewsOfOneComponentShadeTheSame)
{
    const Image<float> usual = shaded();
    EXPECT_GT(std::count_if(usual.pixels.cbegin(), usual.pixels.cend(), [](const auto &p) { return p[0] > 0; }), 300);
    const ScalarViews views;
    {
        const ShaderEdit edit({qMakePair(QByteArray("#ifdef KVO_SCALAR_BUFFERS"), QByteArray("#if 1"))});
        EXPECT_TRUE(sameImage(shaded(), usual, within(0)));
    }
    // Were the shader not told, it would read something else.
    EXPECT_FALSE(isSameImage(shaded(), usual, within(0.02)));
}

TEST_F(VisibilityVariants, ADriverWithoutViewsOfThreeComponentsGetsThoseOfOne)
{
    if (OpenGLDeviceContext::current()->version() >= 40)
        GTEST_SKIP() << "missing: a context older than 4.0";
    const Image<float> usual = shaded();
    chain.reset();
    // The library keeps a context's extensions, so one that has fewer has to be new.
    const HiddenExtension hidden("GL_ARB_texture_buffer_object_rgb32");
    Image<float> scalar;
    {
        GLContext other;
        ASSERT_TRUE(other.makeCurrent()) << qPrintable(other.error());
        {
            GPUModel own;
            ASSERT_TRUE(own.upload(scene));
            Chain fewer;
            fewer.setUp(kViewport, projection, camera, &own);
            glClearColor(0, 0, 0, 0);
            const GlCalls calls;
            fewer.run();
            EXPECT_EQ(calls.count("glTexBuffer", {GL_TEXTURE_BUFFER, GL_R32F}), 2);
            EXPECT_EQ(calls.count("glTexBuffer", {GL_TEXTURE_BUFFER, GL_RGB32F}), 0);
            scalar = fewer.frame();
        }
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_TRUE(sameImage(scalar, usual, within(0)));
}

TEST_F(VisibilityVariants, BitsOfFloatsComeOutTheSameByArithmetic)
{
    const QByteArray condition("#if defined(GL_ARB_shader_bit_encoding) && !defined(KVO_SOFTWARE_BIT_ENCODING)");
    const Image<float> usual = shaded();
    const int width = chain->record.output(2).toInt();
    const bool gl4 = canBuildLists();
    const auto lists = [&] {
        return ListReadback(textureFromVariant(chain->record.output(0)), textureFromVariant(chain->record.output(1)),
                            width, gl4 ? 8 : kHeight, !gl4);
    };
    const ListReadback before = lists();
    const ShaderEdit edit({qMakePair(condition, QByteArray("#if 0"))});
    EXPECT_TRUE(sameImage(shaded(), usual, within(0)));
    const ListReadback after = lists();
    int compared = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const std::vector<ListNode> a = before.at(x, y);
            const std::vector<ListNode> b = after.at(x, y);
            ASSERT_EQ(a.size(), b.size());
            for (size_t i = 0; i < a.size(); ++i) {
                ASSERT_EQ(a[i].depthBits, b[i].depthBits) << x << ", " << y << ": " << a[i].depth();
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 300);
}

TEST_F(VisibilityShading, TheTargetIsEightBitsWithNearestFiltersAndFollowsTheViewport)
{
    ModelData scene = cubes(0.5f);
    ASSERT_TRUE(model->upload(scene));
    chain->setUp(kViewport, projection, camera, model.get());
    const GlCalls calls;
    chain->run();
    int targets = 0;
    for (const GlCall &call : calls.calls("glTexImage2D"))
        targets += call.args[2] == GL_RGBA && call.args[3] == kWidth && call.args[4] == kHeight
                   && call.args[6] == GL_BGRA && call.args[7] == GL_UNSIGNED_BYTE;
    EXPECT_EQ(targets, 1);
    EXPECT_EQ(stateOf(outputTexture(chain->shade, 0)).minFilter, unsigned(GL_NEAREST));
    EXPECT_EQ(stateOf(outputTexture(chain->shade, 0)).magFilter, unsigned(GL_NEAREST));
    chain->setUp(QRect(0, 0, 20, 10), projection, camera, model.get());
    chain->run();
    EXPECT_EQ(stateOf(outputTexture(chain->shade, 0)).width, 20);
    EXPECT_EQ(stateOf(outputTexture(chain->shade, 0)).height, 10);
}

TEST_F(VisibilityShading, TheDepthTestIsPutBackAndNothingElseChanges)
{
    ASSERT_TRUE(model->upload(cubes(0.5f)));
    chain->setUp(kViewport, projection, camera, model.get());
    chain->run();
    glEnable(GL_DEPTH_TEST);
    const GLStateSnapshot before;
    runFrame(chain->shade);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QLatin1Char(' ')).toStdString(), "");
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
}

TEST_F(VisibilityShading, ASteadyFrameCreatesNothing)
{
    ASSERT_TRUE(model->upload(cubes(0.5f)));
    chain->setUp(kViewport, projection, camera, model.get());
    chain->run();
    expectSteadyFrameCreatesNothing(chain->shade);
}

TEST_F(VisibilityShading, ASteadyFrameTakesNothingFromTheHeap)
{
    ASSERT_TRUE(model->upload(cubes(0.5f)));
    chain->setUp(kViewport, projection, camera, model.get());
    chain->run();
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(chain->shade);
}

TEST_F(VisibilityShading, ResizingLeaksNothing)
{
    ASSERT_TRUE(model->upload(cubes(0.5f)));
    chain->setUp(kViewport, projection, camera, model.get());
    chain->run();
    expectResizingLeaksNothing(chain->shade, 2); // the frame, and the stencil of pixels with a list
}

TEST_F(VisibilityShading, EmptyViewportsRaiseNoError)
{
    ASSERT_TRUE(model->upload(cubes(0.5f)));
    chain->setUp(kViewport, projection, camera, model.get());
    chain->run();
    expectEmptyViewportsRaiseNoError(chain->shade);
}
