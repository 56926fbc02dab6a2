// The model by itself: what it takes and refuses of a scene, what it draws, what it keeps and gives back. The
// passes' own tests hold what they make of it.

#include "support/allocations.h"
#include "support/culling.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"
#include "support/modelreference.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/bufferobject.h>
#include <gl/direction.h>
#include <gl/drawbuffers.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/texturemanager.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>
#include <model/instancedataplan.h>
#include <model/instancedataregistry.h>

#include <QImage>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <tuple>

namespace Brevane::Kvo {

using namespace Test;

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

QImage map(const QColor &color)
{
    QImage image(4, 4, QImage::Format_RGBA8888);
    image.fill(color);
    return image;
}

/// The normal of a corner from a formula: the sum of the cross products of the triangles around it, made unit.
Vector3 referenceNormal(const QVector<QVector3D> &positions, const QVector<quint32> &indices, quint32 vertex)
{
    Vector3 sum{};
    for (qsizetype i = 0; i + 2 < indices.size(); i += 3) {
        if (indices[i] != vertex && indices[i + 1] != vertex && indices[i + 2] != vertex)
            continue;
        Vector3 edges[2];
        for (int edge = 0; edge < 2; ++edge) {
            for (int c = 0; c < 3; ++c)
                edges[edge][std::size_t(c)] =
                    double(positions[indices[i + 1 + edge]][c]) - double(positions[indices[i]][c]);
        }
        for (std::size_t c = 0; c < 3; ++c) {
            const std::size_t d = (c + 1) % 3, e = (c + 2) % 3;
            sum[c] += edges[0][d] * edges[1][e] - edges[0][e] * edges[1][d];
        }
    }
    return Test::normalized(sum);
}

/// A tetrahedron whose triangles run counter-clockwise seen from outside.
ModelMesh tetrahedron(float size)
{
    ModelMesh mesh;
    mesh.positions << QVector3D(0, 0, 0) << QVector3D(size, 0, 0) << QVector3D(0, 2 * size, 0)
                   << QVector3D(0, 0, 0.5f * size);
    mesh.indices << 0 << 2 << 1 << 0 << 1 << 3 << 0 << 3 << 2 << 1 << 2 << 3;
    return mesh;
}

ModelItem itemAt(const QMatrix4x4 &transform, int mesh = 0)
{
    ModelItem item;
    item.mesh = mesh;
    item.transform = transform;
    return item;
}

} // namespace

class GPUModelTest : public GLTest
{
protected:
    static constexpr int kSide = 16;

    void TearDown() override
    {
        colors.reset();
        normals.reset();
        ownedModel.reset();
        GLTest::TearDown();
    }

    /// Draws items where their transforms put them, in clip space.
    static std::unique_ptr<ShaderProgram> programOf(const char *fragmentPlan, const char *color,
                                                    const QString &uniforms = QString())
    {
        const auto planOf = [](const char *plan) {
            return InstanceDataRegistry::Instance().getPlan(QLatin1String(plan));
        };
        auto program = std::make_unique<ShaderProgram>();
        program->setFragDataLocations({QStringLiteral("out_Color")});
        program->addShader(GL_VERTEX_SHADER,
                           QStringLiteral("#version 150\n#instancedata \"InstanceInfo\"\nin vec3 va_Vertex;\n"
                                          "in vec3 va_Normal;\nout vec3 vo_Normal;\nvoid main()\n{\n"
                                          "  gl_Position = getModelMatrix() * vec4(va_Vertex, 1.0);\n"
                                          "  vo_Normal = va_Normal;\n}\n"));
        program->addShader(GL_VERTEX_SHADER, planOf("InstanceInfo")->glslc());
        program->addShader(GL_FRAGMENT_SHADER,
                           QStringLiteral("#version 150\n#instancedata \"OBJMaterial\"\nin vec3 vo_Normal;\n"
                                          "out vec4 out_Color;\n%2void main() { out_Color = vec4(%1, 1.0); }\n")
                               .arg(QLatin1String(color), uniforms));
        program->addShader(GL_FRAGMENT_SHADER, planOf(fragmentPlan)->glslc());
        EXPECT_TRUE(program->compile() && program->link()) << qPrintable(program->log());
        return program;
    }

    template <typename Draw>
    Image<float> picture(std::unique_ptr<ShaderProgram> &program, const char *color, Draw &&draw)
    {
        if (!program)
            program = programOf("OBJMaterial", color);
        Target target(GL_RGBA32F, kSide, kSide);
        const AutoBinder framebuffer(target.framebuffer());
        glViewport(0, 0, kSide, kSide);
        glClear(GL_COLOR_BUFFER_BIT);
        const AutoBinder bound(program.get());
        EXPECT_TRUE(draw(program.get()));
        return target.read();
    }
    /// Of all items in their diffuse colours.
    Image<float> colorPicture(WindingType winding = CounterClockwiseWinding, bool mirrored = false)
    {
        return picture(colors, "getKd()",
                       [&](ShaderProgram *program) { return model.draw(program, 0, 0, winding, mirrored); });
    }
    bool shows(const Image<float> &drawn, const QVector3D &color)
    {
        return isPixel(drawn, kSide / 2, kSide / 2, {double(color.x()), double(color.y()), double(color.z()), 1}, 0);
    }

    /// What a model says of itself.
    struct Account
    {
        int items;
        qint64 triangles;
        DrawBuffers *buffers;
        int commands;
        int maps;
        QVector3D minimum;
        QVector3D maximum;
        bool hasBounds;
        bool operator==(const Account &) const = default;
    };
    Account account()
    {
        const GPUModel::BoundingBox box = model.sceneBounds();
        DrawBuffers *const buffers = model.drawBuffers(0);
        return {model.itemCount(),
                model.triangleCount(),
                buffers,
                buffers ? buffers->drawElementsIndirectCommandCount() : -1,
                TextureManager::Instance().managedTextureCount(),
                box.minimum,
                box.maximum,
                model.hasFeatureFlags(GPUModel::kSceneBoundsFeature)};
    }

    std::unique_ptr<GPUModel> ownedModel = std::make_unique<GPUModel>();
    GPUModel &model = *ownedModel;
    std::unique_ptr<ShaderProgram> colors;
    std::unique_ptr<ShaderProgram> normals;
};

// ---- what it takes of a scene

class ComputedNormals : public ::testing::TestWithParam<float>
{};

TEST_P(ComputedNormals, HaveUnitLengthAndPointOutwardsWhateverTheSize)
{
    const ModelMesh mesh = tetrahedron(GetParam());
    const QVector<QVector3D> normals = computedNormals(mesh.positions, mesh.indices);
    ASSERT_EQ(normals.size(), mesh.positions.size());
    for (quint32 vertex = 0; vertex < 4; ++vertex) {
        const Vector3 expected = referenceNormal(mesh.positions, mesh.indices, vertex);
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(double(normals[vertex][c]), expected[std::size_t(c)], 1e-6) << vertex; // single precision
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, ComputedNormals, ::testing::Values(1.0f, 0.002f, 1e-6f, 1e-15f, 1e-30f, 1e5f, 1e25f));

TEST(ComputedNormalsOf, NoAreaPointAlongZ)
{
    const QVector<QVector3D> line{{0, 0, 0}, {1, 1, 1}, {2, 2, 2}, {5, 5, 5}};
    for (const QVector3D &normal : computedNormals(line, {0, 1, 2}))
        EXPECT_EQ(normal, QVector3D(0, 0, 1));
}

TEST(DirectionOf, HasUnitLengthOrNoneAtAll)
{
    for (const float length : {1e-40f, 1e-30f, 1e-6f, 0.5f, 1.0f, 1e10f, 1e38f}) {
        const QVector3D direction = directionOf(QVector3D(2, -1, 2) * length);
        EXPECT_NEAR(double(direction.x()), 2.0 / 3, 1e-4) << double(length); // denormals have few digits
        EXPECT_NEAR(double(direction.y()), -1.0 / 3, 1e-4);
        EXPECT_NEAR(double(direction.z()), 2.0 / 3, 1e-4);
        EXPECT_NEAR(double(direction.length()), 1.0, 1e-6);
    }
    for (const QVector3D &nowhere : {QVector3D(), QVector3D(kNaN, 1, 0), QVector3D(0, kInfinity, 0)})
        EXPECT_TRUE(directionOf(nowhere).isNull());
}

TEST_F(GPUModelTest, NormalsThatAreMissingAreComputedAndThoseOfTheSceneStay)
{
    for (const float size : {1.0f, 0.001f}) {
        ModelData scene = quadScene();
        ModelMesh &mesh = scene.meshes[0];
        mesh.normals.clear();
        for (QVector3D &position : mesh.positions) // a roof that rises with x
            position = QVector3D(position.x(), position.y(), 0.5f * position.x()) * size;
        scene.items[0].transform.scale(1 / size);
        ASSERT_TRUE(model.upload(scene));
        const auto draw = [&](ShaderProgram *program) {
            return model.draw(program, 0, 0, CounterClockwiseWinding, false);
        };
        const double length = std::sqrt(1.25);
        EXPECT_TRUE(
            isPixel(picture(normals, "vo_Normal", draw), kSide / 2, kSide / 2, {-0.5 / length, 0, 1 / length, 1}, 1e-6))
            << double(size);
        mesh.normals.fill(QVector3D(0.25f, 0.5f, 0.125f), mesh.positions.size());
        ASSERT_TRUE(model.upload(scene));
        EXPECT_TRUE(isPixel(picture(normals, "vo_Normal", draw), kSide / 2, kSide / 2, {0.25, 0.5, 0.125, 1}, 1e-6));
        mesh.normals[2].setX(kNaN);
        ASSERT_TRUE(model.upload(scene));
        EXPECT_TRUE(
            isPixel(picture(normals, "vo_Normal", draw), kSide / 2, kSide / 2, {-0.5 / length, 0, 1 / length, 1}, 1e-6))
            << "computed anew where one of them is not finite";
    }
}

namespace {

/// A mesh of which some triangles cannot be used.
struct MeshRow
{
    const char *name;
    QVector<quint32> indices; ///< Into three vertices.
    int usable;
    int dropped;
};

const MeshRow kMeshes[] = {{"Whole", {0, 1, 2}, 1, 0},
                           {"CutOffAfterOneIndex", {0, 1, 2, 0}, 1, 1},
                           {"CutOffAfterTwoIndices", {0, 1, 2, 0, 1}, 1, 1},
                           {"OnlyCutOff", {0, 1}, 0, 1},
                           {"IndexEqualToTheVertexCount", {0, 1, 2, 0, 1, 3}, 1, 1},
                           {"FirstIndexOutOfRange", {3, 0, 1}, 0, 1},
                           {"IndexOfTheLargestNumber", {0, 0xffffffffu, 1}, 0, 1},
                           {"Empty", {}, 0, 0}};

} // namespace

class GPUModelMeshTest : public GPUModelTest, public ::testing::WithParamInterface<MeshRow>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<MeshRow> &row) { return row.param.name; }
};

// docs/embedding.md says it, for hosts that move items and change their colours.
TEST_F(GPUModelTest, TheRecordOfADrawIsPlaceNormalsColorsAndMaps)
{
    ModelData scene = triangleScene({0.5f, 0.25f, 1});
    scene.items[0].transform.translate(1, 2, 3);
    scene.items[0].transform.rotate(30, 1, 0, 0);
    scene.items[0].transform.scale(2, 1, 0.5f);
    scene.materials[0].Ks = {0.125f, 0.75f, 0.375f};
    scene.materials[0].Ns = 40;
    scene.materials[0].D = 0.625f;
    ASSERT_TRUE(model.upload(scene));
    const QMatrix4x4 place = scene.items[0].transform, turned = place.inverted().transposed();
    QVector<float> record(place.constData(), place.constData() + 16);
    record += QVector<float>(turned.constData(), turned.constData() + 16);
    EXPECT_EQ(model.objectData(0)->data(), record);
    EXPECT_EQ(model.objectData(0)->plan()->texelsPerDraw(), 8);
    EXPECT_EQ(model.materialData(0)->data(),
              QVector<float>({0.5f, 0.25f, 1, 40, 0.125f, 0.75f, 0.375f, 0.625f, 0, 0, 0, 0}));
    EXPECT_EQ(model.materialData(0)->plan()->texelsPerDraw(), 3);
}

TEST_P(GPUModelMeshTest, WhatIsLeftOutIsSaidWhereNobodyTookTheWarnings)
{
    ModelData scene = triangleScene({0.5f, 0.25f, 1});
    scene.meshes[0].indices = GetParam().indices;
    scene.meshes << quadMesh();
    MessageCapture messages;
    ASSERT_TRUE(model.upload(scene));
    EXPECT_EQ(
        messages.containing(QStringLiteral("GPUModel: mesh 'triangle': %1 triangles dropped").arg(GetParam().dropped)),
        GetParam().dropped ? 1 : 0);
    EXPECT_EQ(messages.texts().size(), GetParam().dropped ? 1 : 0);
}

TEST_P(GPUModelMeshTest, TrianglesThatCannotBeDrawnAreLeftOutAndCounted)
{
    ModelData scene = triangleScene({0.5f, 0.25f, 1});
    scene.meshes[0].indices = GetParam().indices;
    // What an index too many would lead to: the vertices of the next mesh.
    scene.meshes << quadMesh();
    QStringList warnings;
    ASSERT_TRUE(model.upload(scene, &warnings));
    EXPECT_EQ(model.triangleCount(), GetParam().usable);
    const DrawElementsIndirectCommand command = model.drawBuffers(0)->drawElementsIndirectCommands()[0];
    EXPECT_EQ(command.count, unsigned(3 * GetParam().usable));
    ASSERT_EQ(warnings.size(), GetParam().dropped ? 1 : 0);
    for (const QString &warning : warnings) {
        const QString wanted = QStringLiteral("mesh 'triangle': %1 triangles dropped").arg(GetParam().dropped);
        EXPECT_TRUE(warning.contains(wanted)) << qPrintable(warning);
    }
    EXPECT_EQ(model.isDrawEmpty(0, 0), GetParam().usable == 0);
    EXPECT_EQ(model.hasFeatureFlags(GPUModel::kSceneBoundsFeature), GetParam().usable > 0);
}

INSTANTIATE_TEST_SUITE_P(Meshes, GPUModelMeshTest, ::testing::ValuesIn(kMeshes), GPUModelMeshTest::nameOf);

TEST_F(GPUModelTest, TrianglesWithVerticesThatAreNotFiniteAreLeftOut)
{
    for (const float bad : {kNaN, kInfinity}) {
        ModelData scene = quadScene();
        scene.meshes[0].positions[3].setY(bad); // of the second triangle
        QStringList warnings;
        ASSERT_TRUE(model.upload(scene, &warnings));
        EXPECT_EQ(model.triangleCount(), 1);
        EXPECT_EQ(warnings.size(), 1);
        EXPECT_EQ(model.sceneBounds().maximum, QVector3D(1, 1, 0));
    }
}

namespace {

/// An item of a scene of one mesh and one material.
struct ItemRow
{
    const char *name;
    int mesh;
    int material;
    float scale;
    bool isUsable;
};

constexpr ItemRow kItems[] = {{"Good", 0, 0, 1, true},
                              {"MeshIsTheMeshCount", 1, 0, 1, false},
                              {"MeshIsNegative", -1, 0, 1, false},
                              {"MaterialIsTheMaterialCount", 0, 1, 1, false},
                              {"MaterialIsNegative", 0, -1, 1, false},
                              {"TransformIsNotANumber", 0, 0, kNaN, false},
                              {"TransformIsInfinite", 0, 0, kInfinity, false}};

} // namespace

class GPUModelItemTest : public GPUModelTest, public ::testing::WithParamInterface<ItemRow>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<ItemRow> &row) { return row.param.name; }
};

TEST_P(GPUModelItemTest, ItemsThatNameWhatIsNotThereAreLeftOutWithAWordOnEach)
{
    ModelData scene = quadScene({0.5f, 0.25f, 1});
    ModelItem item;
    item.mesh = GetParam().mesh;
    item.material = GetParam().material;
    item.transform(0, 0) = GetParam().scale;
    scene.items << item;
    QStringList warnings;
    ASSERT_TRUE(model.upload(scene, &warnings));
    EXPECT_EQ(model.itemCount(), GetParam().isUsable ? 2 : 1);
    EXPECT_EQ(model.objectData(0)->drawCount(), model.itemCount());
    EXPECT_EQ(model.materialData(0)->drawCount(), model.itemCount());
    ASSERT_EQ(warnings.size(), GetParam().isUsable ? 0 : 1);
    for (const QString &warning : warnings) {
        const QString wanted = QStringLiteral("item 1 dropped: mesh %1, material %2");
        EXPECT_TRUE(warning.startsWith(wanted.arg(GetParam().mesh).arg(GetParam().material))) << qPrintable(warning);
    }
    EXPECT_TRUE(shows(colorPicture(), {0.5f, 0.25f, 1}));
}

INSTANTIATE_TEST_SUITE_P(Items, GPUModelItemTest, ::testing::ValuesIn(kItems), GPUModelItemTest::nameOf);

TEST_F(GPUModelTest, MaterialsLieInTheDataAsTheGettersReadThem)
{
    ModelData scene = quadScene();
    scene.materials[0] = material({1, 2, 3}, {5, 6, 7}, 4, 8);
    scene.materials[0].map_Kd = map(Qt::red);
    scene.materials[0].map_Ks = map(Qt::blue);
    ASSERT_TRUE(model.upload(scene));
    const QVector<float> data = model.materialData(0)->data();
    ASSERT_EQ(data.size(), model.materialData(0)->plan()->texelsPerDraw() * 4);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(data[i], float(i + 1));
    EXPECT_GT(data[8], 0.0f);
    EXPECT_GT(data[9], 0.0f);
    EXPECT_NE(data[8], data[9]);
}

// ---- maps

TEST_F(GPUModelTest, MapsAreTakenOnceEachAndGoWithTheScene)
{
    TextureManager &manager = TextureManager::Instance();
    ASSERT_EQ(manager.managedTextureCount(), 0);
    ModelData scene = quadScene();
    const QImage shared = map(Qt::red);
    scene.materials[0].map_Kd = shared;
    scene.materials[0].map_Ks = shared;
    scene.materials << scene.materials[0] << material({1, 1, 1});
    scene.materials[1].map_Ks = map(Qt::green);
    ASSERT_TRUE(model.upload(scene));
    EXPECT_EQ(manager.managedTextureCount(), 2) << "one image is in three places";
    scene.materials[0].map_Kd = QImage();
    scene.materials[0].map_Ks = QImage();
    scene.materials[1].map_Kd = QImage();
    ASSERT_TRUE(model.upload(scene));
    EXPECT_EQ(manager.managedTextureCount(), 1) << "those of the scene before are gone";
    {
        GPUModel other;
        ASSERT_TRUE(other.upload(scene));
        EXPECT_EQ(manager.managedTextureCount(), 2);
    }
    EXPECT_EQ(manager.managedTextureCount(), 1);
    ASSERT_TRUE(model.upload(quadScene()));
    EXPECT_EQ(manager.managedTextureCount(), 0);
}

// ---- an upload that fails

TEST_F(GPUModelTest, AnUploadThatFailsLeavesTheModelAsItWas)
{
    ModelData scene = quadScene({0.5f, 0.25f, 1});
    scene.materials[0].map_Kd = map(Qt::red);
    ASSERT_TRUE(model.upload(scene));
    const Account before = account();
    ASSERT_EQ(before.maps, 1);
    const int objects = GlCalls::live();

    ModelData larger = quadGridScene(4, 4);
    larger.items[3].transform.translate(100, 0, 0);
    larger.materials[2].map_Ks = map(Qt::blue);
    QStringList warnings;
    {
        const MessageCapture messages;
        const GlCalls::ForcedInteger limit(GL_MAX_TEXTURE_BUFFER_SIZE, 32);
        EXPECT_FALSE(model.upload(larger, &warnings));
    }
    ASSERT_FALSE(warnings.isEmpty());
    EXPECT_TRUE(warnings.last().contains(QStringLiteral("more items than this driver can index")));
    EXPECT_EQ(account(), before);
    EXPECT_LE(GlCalls::live(), objects + 2) << "but for pages that managed textures keep";
    EXPECT_TRUE(shows(colorPicture(), {0.5f, 0.25f, 1}));

    GLContext::doneCurrent();
    warnings.clear();
    EXPECT_FALSE(model.upload(larger, &warnings));
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_EQ(warnings.size(), 1);
    EXPECT_EQ(account(), before);
    EXPECT_TRUE(shows(colorPicture(), {0.5f, 0.25f, 1}));

    ASSERT_TRUE(model.upload(larger));
    EXPECT_EQ(model.itemCount(), 16);
}

// ---- drawing

TEST_F(GPUModelTest, FacesAreThoseOfTheWindingTurnedRoundByMirroring)
{
    ASSERT_TRUE(model.upload(quadScene({0.5f, 0.25f, 1})));
    for (const auto road : {GPUModel::DrawRoad::Loop, GPUModel::DrawRoad::Indirect}) {
        model.setDrawRoad(road);
        for (const WindingType winding : {CounterClockwiseWinding, ClockwiseWinding}) {
            for (const bool mirrored : {false, true}) {
                const bool isFront = (winding == CounterClockwiseWinding) != mirrored;
                const AutoEnabler culling(GL_CULL_FACE);
                EXPECT_EQ(shows(colorPicture(winding, mirrored), {0.5f, 0.25f, 1}), isFront)
                    << "winding " << winding << ", mirrored " << mirrored;
            }
        }
    }
}

TEST_F(GPUModelTest, ADrawPutsBackTheHostsFrontFaceAndIndirectBuffer)
{
    ASSERT_TRUE(model.upload(quadGridScene(2, 2)));
    const auto hostBuffer = OpenGLDeviceContext::current()->createBufferObject();
    const unsigned int word = 0;
    hostBuffer->uploadGLuintData(&word, 1, GL_STATIC_DRAW);
    const bool hasIndirect = epoxy_gl_version() >= 40 || hasGLExtension("GL_ARB_draw_indirect");
    if (hasIndirect)
        glBindBuffer(GL_DRAW_INDIRECT_BUFFER, hostBuffer->getBO());
    for (const GLenum hostFace : {GL_CCW, GL_CW}) {
        glFrontFace(hostFace);
        for (const WindingType winding : {CounterClockwiseWinding, ClockwiseWinding}) {
            for (const bool mirrored : {false, true}) {
                colorPicture(winding, mirrored);
                GLint face = 0;
                glGetIntegerv(GL_FRONT_FACE, &face);
                EXPECT_EQ(GLenum(face), hostFace) << "winding " << winding << ", mirrored " << mirrored;
                if (!hasIndirect)
                    continue;
                GLint buffer = 0;
                glGetIntegerv(GL_DRAW_INDIRECT_BUFFER_BINDING, &buffer);
                EXPECT_EQ(GLuint(buffer), hostBuffer->getBO());
            }
        }
    }
    glFrontFace(GL_CCW);
    if (hasIndirect)
        glBindBuffer(GL_DRAW_INDIRECT_BUFFER, 0);
}

TEST_F(GPUModelTest, TheSelectionThatWasMadeFirstMakesRoomForTheSeventeenth)
{
    ASSERT_TRUE(model.upload(quadScene()));
    colors = programOf("OBJMaterial", "getKd()");
    Target target(GL_RGBA32F, kSide, kSide);
    const AutoBinder framebuffer(target.framebuffer());
    const AutoBinder bound(colors.get());
    constexpr int kKept = 16;
    const auto uploadsOf = [&](int selection) {
        const GlCalls calls;
        EXPECT_TRUE(model.draw(colors.get(), 0, quint64(1) << selection, CounterClockwiseWinding, false));
        EXPECT_EQ(calls.draws(), 1);
        return calls.bufferAllocations();
    };
    if (uploadsOf(0) == 0)
        GTEST_SKIP() << "without indirect draws a selection uploads nothing";
    for (int selection = 1; selection <= kKept; ++selection)
        EXPECT_EQ(uploadsOf(selection), 1) << selection;
    for (int selection = kKept; selection >= 1; --selection)
        EXPECT_EQ(uploadsOf(selection), 0) << selection << " of the last sixteen";
    EXPECT_EQ(uploadsOf(0), 1) << "the first is gone";
    EXPECT_EQ(uploadsOf(1), 1) << "and now the second";
    EXPECT_EQ(uploadsOf(kKept), 0);
}

TEST_F(GPUModelTest, AnEmptySelectionDrawsNothingAndIsNoFailure)
{
    ASSERT_TRUE(model.upload(quadScene({1, 1, 1}, 4)));
    colors = programOf("OBJMaterial", "getKd()");
    const AutoBinder bound(colors.get());
    const GlCalls calls;
    EXPECT_TRUE(model.isDrawEmpty(0, 4));
    EXPECT_FALSE(model.isDrawEmpty(4, 4));
    EXPECT_TRUE(model.draw(colors.get(), 0, 4, CounterClockwiseWinding, false));
    EXPECT_TRUE(model.draw(colors.get(), nullptr, 0, 4));
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_FALSE(model.draw(nullptr, 4, 4, CounterClockwiseWinding, false));
}

TEST_F(GPUModelTest, OpacityIsThatOfTheDataAsItIsNow)
{
    ModelData scene = quadScene({0.5f, 0.25f, 1});
    scene.materials[0].D = 0.5f;
    ASSERT_TRUE(model.upload(scene));
    using Opacity = GPUModel::Opacity;
    const auto isDrawn = [&](Opacity opacity) {
        return shows(picture(colors, "getKd()",
                             [&](ShaderProgram *program) {
                                 return model.draw(program, 0, 0, CounterClockwiseWinding, false, opacity);
                             }),
                     {0.5f, 0.25f, 1});
    };
    EXPECT_TRUE(isDrawn(Opacity::Any));
    EXPECT_TRUE(isDrawn(Opacity::Transparent));
    EXPECT_FALSE(isDrawn(Opacity::Opaque));
    QVector<float> data = model.materialData(0)->data();
    for (const float opacity : {1.0f, kNaN, 2.0f}) {
        data[7] = opacity;
        ASSERT_TRUE(model.materialData(0)->setData(data));
        EXPECT_TRUE(isDrawn(Opacity::Opaque)) << "what is not less than 1 is opaque";
        EXPECT_FALSE(isDrawn(Opacity::Transparent));
    }
}

// ---- culling

class GPUModelCullingTest : public GPUModelTest, public ::testing::WithParamInterface<std::tuple<int, int, bool>>
{};

TEST_P(GPUModelCullingTest, LeavesOutWhatLiesBeyondAPlaneAndNothingThatReachesInside)
{
    const auto &[axis, side, isPerspective] = GetParam();
    // A cube seen from z = 4 with a quarter turn of view, or with no perspective at all.
    QMatrix4x4 view;
    if (isPerspective) {
        view.perspective(90, 1, 2, 6);
        view.translate(0, 0, -4);
    } else {
        view.ortho(-2, 2, -2, 2, -2, 2);
    }
    // Where the plane is at that place: sideways 45 degrees around the middle of the view, 2 away along it.
    constexpr float kSize = 0.01f;
    const float plane = float(side) * (axis == 2 || !isPerspective ? 2.0f : 4.0f);
    ModelData scene;
    scene.meshes << cubeMesh();
    scene.materials << material({1, 1, 1});
    struct Place
    {
        float at;
        float size;
        bool isSeen;
    };
    const float outwards = float(side);
    const Place places[] = {{0, kSize, true},
                            {plane * 0.91f, kSize, true},
                            {plane - outwards * 4 * kSize, kSize, true},
                            {plane, kSize, true},
                            {plane + outwards * 4 * kSize, kSize, false},
                            {plane * 1.1f, kSize, false},
                            {plane * 3, kSize, false},
                            {plane * 3, 100, true}};
    for (std::size_t i = 0; i < std::size(places); ++i) {
        ModelItem item;
        QVector3D at;
        at[axis] = places[i].at;
        item.transform.translate(at);
        item.transform.scale(places[i].size);
        item.flags = quint64(1) << i;
        scene.items << item;
    }
    ASSERT_TRUE(model.upload(scene));
    const auto isLeftOut = [&](std::size_t i) { return model.isDrawEmpty(quint64(1) << i, quint64(1) << i); };
    for (int round = 0; round < 2; ++round) {
        model.cull(view);
        for (std::size_t i = 0; i < std::size(places); ++i) {
            // Sideways a cube at its plane's place reaches in by its near face.
            EXPECT_EQ(isLeftOut(i), !places[i].isSeen) << "item " << i << " at " << double(places[i].at);
        }
        model.resetCulling();
        for (std::size_t i = 0; i < std::size(places); ++i)
            EXPECT_FALSE(isLeftOut(i)) << "item " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Planes, GPUModelCullingTest,
                         ::testing::Combine(::testing::Range(0, 3), ::testing::Values(-1, 1), ::testing::Bool()));

namespace {

constexpr int kStones = 60;

/// Boxes that stand about, one to a flag bit.
ModelData stones(std::minstd_rand &random)
{
    std::uniform_real_distribution<float> at(-20, 20);
    ModelData data;
    data.meshes << cubeMesh();
    data.materials << material({1, 1, 1});
    for (int i = 0; i < kStones; ++i) {
        ModelItem item;
        item.transform.translate(at(random), at(random), at(random));
        item.transform.rotate(9 * at(random), 1, at(random), at(random));
        item.transform.scale(0.5f, 0.2f, 1.5f);
        item.flags = quint64(1) << i;
        data.items << item;
    }
    return data;
}

QMatrix4x4 someView(std::minstd_rand &random)
{
    std::uniform_real_distribution<float> at(-20, 20);
    QMatrix4x4 view;
    if (random() % 2)
        view.perspective(20 + 2 * std::abs(at(random)), 1.3f, 0.5f, 10 + std::abs(at(random)));
    else
        view.ortho(-7, 7, -5, 9, -3, 18);
    view.lookAt({at(random), at(random), at(random)}, {at(random), at(random), at(random)}, {0, 1, 0.1f});
    return view;
}

/// What a model draws of the stones, against what views show.
void expectStonesIn(GPUModel &model, const ModelData &data, const std::vector<QMatrix4x4> &views, int *leftOut)
{
    model.cull(views.data(), int(views.size()));
    for (int i = 0; i < kStones; ++i) {
        Seen seen = Seen::No;
        for (const QMatrix4x4 &view : views)
            seen = std::max(seen, seenIn(view, data.meshes[0], data.items[i].transform));
        const bool isEmpty = model.isDrawEmpty(quint64(1) << i, quint64(1) << i);
        *leftOut += isEmpty;
        if (seen != Seen::Unsure) {
            ASSERT_EQ(isEmpty, seen == Seen::No) << "item " << i;
        }
    }
}

} // namespace

TEST_F(GPUModelTest, CullingLeavesOutWhatIsInNoneOfItsViewsHoweverManyComeAndComeAgain)
{
    std::minstd_rand random(7);
    const ModelData data = stones(random);
    ASSERT_TRUE(model.upload(data));
    // More than are kept; of some there are several at a time.
    std::vector<std::vector<QMatrix4x4>> all;
    for (int i = 0; i < 150; ++i) {
        std::vector<QMatrix4x4> views;
        for (int count = i % 3 == 0 ? 1 + i % 8 : 1; count > 0; --count)
            views.push_back(someView(random));
        all.push_back(views);
    }
    int leftOut = 0;
    for (int round = 0; round < 600; ++round) {
        // one of the last few more often than any
        const std::size_t which = round % 2 ? random() % all.size() : std::size_t(round / 20 + round % 3) % all.size();
        SCOPED_TRACE(round);
        expectStonesIn(model, data, all[which], &leftOut);
        if (HasFatalFailure())
            return;
    }
    EXPECT_GT(leftOut, 600 * kStones / 3);
    EXPECT_LT(leftOut, 600 * kStones * 19 / 20);
    model.cull(nullptr, 0);
    EXPECT_FALSE(model.isDrawEmpty(1, 1));
}

TEST_F(GPUModelTest, CullingFollowsItemsThatAreMoved)
{
    std::minstd_rand random(11);
    ModelData data = stones(random);
    ASSERT_TRUE(model.upload(data));
    const QMatrix4x4 view = someView(random);
    int leftOut = 0;
    expectStonesIn(model, data, {view}, &leftOut);
    for (int round = 0; round < 20; ++round) {
        for (int i = round % 2; i < kStones; i += 2)
            data.items[i].transform = stones(random).items[i].transform;
        ASSERT_TRUE(model.objectData(0)->setData(placesOf(data)));
        SCOPED_TRACE(round);
        expectStonesIn(model, data, {view}, &leftOut);
        if (HasFatalFailure())
            return;
    }
    EXPECT_GT(leftOut, kStones);
    // What cannot be told where it is, is drawn: no data, no numbers, a projection.
    QVector<float> places = placesOf(data);
    places.resize(places.size() - 32);
    places[3] = 1; // into w
    places[32 + 12] = kNaN;
    places[64 + 13] = kInfinity;
    ASSERT_TRUE(model.objectData(0)->setData(places));
    QMatrix4x4 elsewhere;
    elsewhere.ortho(1000, 1001, 1000, 1001, -1, 1);
    model.cull(elsewhere);
    for (int i = 0; i < kStones; ++i)
        EXPECT_EQ(model.isDrawEmpty(quint64(1) << i, quint64(1) << i), i > 2 && i < kStones - 1) << i;
}

TEST_F(GPUModelTest, ItemsThatAreMovedStandAsIfTheyHadBeenUploadedThere)
{
    std::minstd_rand random(3);
    ModelData data = stones(random);
    ASSERT_TRUE(model.upload(data));
    const ModelData others = stones(random);
    for (const auto &[first, count] :
         {std::pair{0, 1}, std::pair{5, 7}, std::pair{kStones - 2, 2}, std::pair{3, 0}, std::pair{0, int(kStones)}}) {
        SCOPED_TRACE(first);
        QVector<QMatrix4x4> transforms;
        for (int i = first; i < first + count; ++i)
            transforms << (data.items[i].transform = others.items[(i * 7 + count) % kStones].transform);
        ASSERT_TRUE(model.setTransforms(first, transforms));
        GPUModel uploaded;
        ASSERT_TRUE(uploaded.upload(data));
        EXPECT_EQ(model.objectData(0)->data(), uploaded.objectData(0)->data());
        for (const int i : {0, 5, 11, kStones - 1})
            EXPECT_EQ(model.transform(i), data.items[i].transform) << i;
    }
    // What is not there, or no place, moves nothing.
    const QVector<float> places = model.objectData(0)->data();
    QMatrix4x4 nowhere;
    nowhere(1, 3) = kNaN;
    const struct
    {
        int first;
        QVector<QMatrix4x4> transforms;
        const char *said;
    } mistakes[] = {
        {-1, {QMatrix4x4()}, "of items -1 to -1 not all are there"},
        {kStones, {QMatrix4x4()}, "not all are there"},
        {kStones - 1, {QMatrix4x4(), QMatrix4x4()}, "not all are there"},
        {std::numeric_limits<int>::max(), {QMatrix4x4()}, "not all are there"},
        {2, {QMatrix4x4(), nowhere}, "the transform of item 3 is not finite"},
    };
    for (const auto &mistake : mistakes) {
        const MessageCapture messages;
        EXPECT_FALSE(model.setTransforms(mistake.first, mistake.transforms));
        EXPECT_EQ(messages.containing(QLatin1StringView(mistake.said)), 1) << mistake.said;
    }
    EXPECT_EQ(model.objectData(0)->data(), places);
    for (const int item : {-1, int(kStones), std::numeric_limits<int>::max()})
        EXPECT_TRUE(model.transform(item).isIdentity()) << item;
    GPUModel empty;
    EXPECT_TRUE(empty.transform(0).isIdentity());
    EXPECT_TRUE(empty.setTransforms(0, {}));
}

TEST_F(GPUModelTest, DrawBoundsHoldWhatIsSelectedWhereItStandsNow)
{
    std::minstd_rand random(5);
    ModelData data = stones(random);
    data.materials << material({1, 1, 1}, {}, 1, 0.5f);
    for (int i = 0; i < kStones; ++i)
        data.items[i].material = i % 4 == 0;
    ASSERT_TRUE(model.upload(data));
    const auto expectAround = [&](auto isSelected, const GPUModel::BoundingBox &box) {
        // By double precision, from the corners; a millionth of what is added up is for rounding.
        std::array<double, 3> low{1e300, 1e300, 1e300}, high{-1e300, -1e300, -1e300};
        for (int item = 0; item < kStones; ++item) {
            if (!isSelected(item))
                continue;
            for (const QVector3D &p : data.meshes[0].positions) {
                for (int row = 0; row < 3; ++row) {
                    const QMatrix4x4 &m = data.items[item].transform;
                    const double at = double(m(row, 0)) * p.x() + double(m(row, 1)) * p.y() + double(m(row, 2)) * p.z()
                                      + double(m(row, 3));
                    low[size_t(row)] = std::min(low[size_t(row)], at);
                    high[size_t(row)] = std::max(high[size_t(row)], at);
                }
            }
        }
        for (int i = 0; i < 3; ++i) {
            EXPECT_LE(box.minimum[i], low[size_t(i)]);
            EXPECT_GE(box.maximum[i], high[size_t(i)]);
            EXPECT_GE(box.minimum[i], low[size_t(i)] - 1e-4);
            EXPECT_LE(box.maximum[i], high[size_t(i)] + 1e-4);
        }
    };
    using Opacity = GPUModel::Opacity;
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        expectAround([](int) { return true; }, model.drawBounds(0, 0));
        expectAround([](int i) { return i % 4 == 0; }, model.drawBounds(0, 0, Opacity::Transparent));
        expectAround([](int i) { return i % 4 != 0; }, model.drawBounds(0, 0, Opacity::Opaque));
        for (const int item : {0, 17, kStones - 1})
            expectAround([item](int i) { return i == item; }, model.drawBounds(quint64(1) << item, quint64(1) << item));
        if (HasFailure())
            return;
        // Only moved: of what is turned the box around the corners' box is known.
        for (int i = round % 2; i < kStones; i += 2) {
            QMatrix4x4 moved;
            moved.translate(stones(random).items[i].transform.column(3).toVector3D());
            data.items[i].transform = moved;
        }
        ASSERT_TRUE(model.objectData(0)->setData(placesOf(data)));
    }
    // Boxes are kept, but not beyond what they are of: materials change, and views leave items out, more of them than
    // are remembered.
    QVector<float> materials = model.materialData(0)->data(); // of each item
    for (const int every : {2, 3, 4}) {
        for (int i = 0; i < kStones; ++i)
            materials[i * materials.size() / kStones + 7] = i % every == 0 ? 0.5f : 1.0f;
        ASSERT_TRUE(model.materialData(0)->setData(materials));
        expectAround([every](int i) { return i % every == 0; }, model.drawBounds(0, 0, Opacity::Transparent));
        expectAround([every](int i) { return i % every != 0; }, model.drawBounds(0, 0, Opacity::Opaque));
    }
    for (int view = 0; view < 150; ++view) {
        SCOPED_TRACE(view);
        const int item = view % kStones;
        const QVector3D at = data.items[item].transform.column(3).toVector3D();
        QMatrix4x4 around;
        around.ortho(at.x() - 0.1f, at.x() + 0.1f, at.y() - 0.1f, at.y() + 0.1f, -at.z() - 0.1f, -at.z() + 0.1f);
        model.cull(around);
        const auto isKept = [this](int i) { return !model.isDrawEmpty(quint64(1) << i, quint64(1) << i); };
        ASSERT_TRUE(isKept(item));
        expectAround(isKept, model.drawBounds(0, 0));
    }
    model.resetCulling();
    const GPUModel::BoundingBox none = model.drawBounds(1, 0);
    EXPECT_EQ(none.minimum, QVector3D());
    EXPECT_EQ(none.maximum, QVector3D());
    QVector<float> places = placesOf(data);
    places[12] = kNaN;
    ASSERT_TRUE(model.objectData(0)->setData(places));
    EXPECT_EQ(model.drawBounds(0, 0).minimum, QVector3D(-kInfinity, -kInfinity, -kInfinity));
    EXPECT_EQ(model.drawBounds(0, 0).maximum, QVector3D(kInfinity, kInfinity, kInfinity));
    EXPECT_LT(model.drawBounds(2, 2).maximum.x(), 50);
    EXPECT_EQ(GPUModel().drawBounds(0, 0).maximum, QVector3D());
}

TEST_F(GPUModelTest, WhatTouchesAPlaneOrIsWithinTheRoundingOfAGpuIsLeftIn)
{
    // A box of 1e4 units whose side comes to lie at 1, where floats are 1e-3 apart on the way.
    ModelData data;
    data.meshes << cubeMesh();
    data.materials << material({1, 1, 1});
    for (const float beyond : {0.0f, 0.001f, 1.0f}) {
        ModelItem item;
        item.transform.translate(1e4f + 1 + beyond, 0, 0);
        item.transform.scale(1e4f);
        item.flags = quint64(1) << data.items.size();
        data.items << item;
    }
    ASSERT_TRUE(model.upload(data));
    QMatrix4x4 view;
    view.ortho(-1, 1, -1, 1, -1, 1);
    model.cull(view);
    EXPECT_FALSE(model.isDrawEmpty(1, 1));
    EXPECT_FALSE(model.isDrawEmpty(2, 2));
    EXPECT_TRUE(model.isDrawEmpty(4, 4));
    // With a near plane so near, floats hardly tell what is in front of the far plane from what is behind it.
    data.items.resize(1);
    data.items[0].transform.setToIdentity();
    data.items[0].transform.translate(0, 0, -10002);
    ASSERT_TRUE(model.upload(data));
    QMatrix4x4 deep;
    deep.perspective(90, 1, 1e-3f, 1e4f);
    model.cull(deep);
    EXPECT_FALSE(model.isDrawEmpty(1, 1));
}

// In a uniform that programs of hosts may declare, of either type.
TEST_F(GPUModelTest, TheNumberOfAnItemIsInAUniformOfItsOwn)
{
    ASSERT_TRUE(model.upload(quadGridScene(kSide, kSide)));
    for (const char *type : {"int", "uint"}) {
        std::unique_ptr<ShaderProgram> program = programOf(
            "OBJMaterial", "vec3(float(u_DrawID))", QStringLiteral("uniform %1 u_DrawID;\n").arg(QLatin1String(type)));
        const Image<float> shown = picture(
            program, "", [&](ShaderProgram *bound) { return model.draw(bound, 0, 0, CounterClockwiseWinding, false); });
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x)
                EXPECT_EQ(shown.at(x, y)[0], float(y * kSide + x)) << type;
    }
}

// Bodies of getters ahead of a text that calls them and does not name the plan: one text for the compiler, in which each
// item still finds its own data.
TEST_F(GPUModelTest, GettersMayBeCalledBehindTheirBodies)
{
    ASSERT_TRUE(model.upload(quadGridScene(kSide, kSide)));
    const auto bodiesOf = [](const char *plan) {
        return InstanceDataRegistry::Instance().getPlan(QLatin1String(plan))->glslc();
    };
    auto program = std::make_unique<ShaderProgram>();
    program->setFragDataLocations({QStringLiteral("out_Color")});
    program->addShader(GL_VERTEX_SHADER, bodiesOf("InstanceInfo"));
    program->addShader(GL_VERTEX_SHADER,
                       QStringLiteral("#ifndef KVO_STAGE_VERTEX\n#error stage\n#endif\n"
                                      "in vec3 va_Vertex;\nvoid main() { gl_Position = getModelMatrix() * "
                                      "vec4(va_Vertex, 1.0); }\n"));
    program->addShader(GL_FRAGMENT_SHADER, bodiesOf("OBJMaterial"));
    program->addShader(GL_FRAGMENT_SHADER,
                       QStringLiteral("#ifndef KVO_STAGE_FRAGMENT\n#error stage\n#endif\n"
                                      "out vec4 out_Color;\nvoid main() { out_Color = vec4(getKd(), 1.0); }\n"));
    ASSERT_TRUE(program->compile() && program->link()) << qPrintable(program->log());
    for (const auto road : {GPUModel::DrawRoad::Automatic, GPUModel::DrawRoad::Loop}) {
        model.setDrawRoad(road);
        const Image<float> shown = picture(
            program, "", [&](ShaderProgram *bound) { return model.draw(bound, 0, 0, CounterClockwiseWinding, false); });
        EXPECT_TRUE(sameImage(shown, colorPicture(), within(0)));
    }
}

TEST_F(GPUModelTest, EachOfManyViewsDrawsItsOwnItems)
{
    // An item to a pixel, and views of one each: more than are kept.
    ASSERT_TRUE(model.upload(quadGridScene(kSide, kSide)));
    for (const auto road : {GPUModel::DrawRoad::Automatic, GPUModel::DrawRoad::Loop}) {
        model.setDrawRoad(road);
        for (int i = 0; i < 3 * kSide * kSide / 2; ++i) {
            const int cell = i * 37 % (kSide * kSide / 2);
            const int x = cell % kSide;
            const int y = cell / kSide;
            const auto edge = [](int pixel) { return 2.0f * float(pixel) / kSide - 1; };
            QMatrix4x4 view;
            constexpr float kInside = 0.01f;
            view.ortho(edge(x) + kInside, edge(x + 1) - kInside, edge(y) + kInside, edge(y + 1) - kInside, -1, 1);
            model.cull(view);
            const Image<float> shown =
                picture(colors, "getKd()", [&](ShaderProgram *program) { return model.draw(program, nullptr, 0, 0); });
            int others = 0;
            for (int v = 0; v < kSide; ++v)
                for (int u = 0; u < kSide; ++u)
                    others += shown.at(u, v)[0] > 0 && (u != x || v != y);
            ASSERT_EQ(others, 0) << "view " << i;
            ASSERT_GT(shown.at(x, y)[0], 0) << "view " << i;
        }
    }
}

TEST_F(GPUModelTest, OfLargeModelsFewerViewsAreKeptAndEachIsStillItsOwn)
{
    // 40 heaps of triangles, one to a view and a flag bit.
    constexpr int kHeaps = 40;
    constexpr int kTriangles = 140000;
    ModelData data;
    ModelMesh triangle;
    triangle.positions << QVector3D(0, 0, 0) << QVector3D(1, 0, 0) << QVector3D(0, 1, 0);
    triangle.indices << 0 << 1 << 2;
    data.meshes << triangle;
    data.materials << material({1, 1, 1});
    for (int i = 0; i < kTriangles; ++i) {
        ModelItem item;
        item.transform.translate(10.0f * float(i % kHeaps), 0, 0);
        item.flags = quint64(1) << (i % kHeaps);
        data.items << item;
    }
    ASSERT_TRUE(model.upload(data));
    std::vector<QMatrix4x4> views(kHeaps);
    for (int heap = 0; heap < kHeaps; ++heap)
        views[std::size_t(heap)].ortho(10.0f * float(heap) - 1, 10.0f * float(heap) + 2, -1, 2, -1, 1);
    std::minstd_rand random(17);
    for (int i = 0; i < 4 * kHeaps; ++i) {
        const auto heap = i < kHeaps ? quint64(i) : quint64(random() % kHeaps);
        model.cull(views[std::size_t(heap)]);
        ASSERT_FALSE(model.isDrawEmpty(quint64(1) << heap, quint64(1) << heap)) << i;
        ASSERT_TRUE(model.isDrawEmpty(0, quint64(1) << heap)) << i;
    }
}

TEST_F(GPUModelTest, ViewsThatComeAgainTakeNoMemoryAndNoUpload)
{
    if (!allocationsAreCounted())
        GTEST_SKIP() << "allocations are not counted in this build";
    std::minstd_rand random(13);
    const ModelData data = stones(random);
    ASSERT_TRUE(model.upload(data));
    std::vector<QMatrix4x4> views;
    for (int i = 0; i < 8; ++i)
        views.push_back(someView(random));
    const auto program = programOf("OBJMaterial", "getKd()");
    Target target(GL_RGBA32F, kSide, kSide);
    const AutoBinder framebuffer(target.framebuffer());
    const AutoBinder bound(program.get());
    const auto drawAll = [&] {
        for (const QMatrix4x4 &view : views) {
            model.cull(view);
            model.draw(program.get(), nullptr, 0, 0);
        }
        model.resetCulling();
        model.draw(program.get(), nullptr, 0, 0);
    };
    drawAll();
    const GlCalls calls;
    drawAll();
    EXPECT_GT(calls.draws(), 1);
    EXPECT_EQ(calls.count("glBufferData"), 0);
    EXPECT_EQ(calls.created(), 0);
    const AllocationCounter allocations;
    drawAll();
    EXPECT_EQ(allocations.count(), 0);
}

// ---- bounds

namespace {

struct BoundsRow
{
    const char *name;
    ModelData (*scene)();
};

/// A square standing on a corner, so that its box is turned against it.
ModelMesh diamondMesh()
{
    ModelMesh mesh;
    mesh.positions << QVector3D(1, 0, 0) << QVector3D(0, 1, 0) << QVector3D(-1, 0, 0) << QVector3D(0, -1, 0);
    mesh.indices << 0 << 1 << 2 << 0 << 2 << 3;
    return mesh;
}

ModelData sceneOf(const ModelMesh &mesh, const QVector<QMatrix4x4> &transforms)
{
    ModelData scene;
    scene.meshes << mesh;
    scene.materials << material({1, 1, 1});
    for (const QMatrix4x4 &transform : transforms)
        scene.items << itemAt(transform);
    return scene;
}

QMatrix4x4 turned(float angle, const QVector3D &axis, const QVector3D &to = {}, const QVector3D &scale = {1, 1, 1})
{
    QMatrix4x4 transform;
    transform.translate(to);
    transform.rotate(angle, axis);
    transform.scale(scale);
    return transform;
}

QMatrix4x4 sheared()
{
    return {1, 0.75f, 0, 0.5f, 0, 1, 0.25f, -2, -0.5f, 0, 1, 3, 0, 0, 0, 1};
}

const BoundsRow kBounds[] = {
    {"InPlace", [] { return sceneOf(diamondMesh(), {QMatrix4x4()}); }},
    {"Moved",
     [] {
         return sceneOf(diamondMesh(), {turned(0, {0, 0, 1}, {5, -3, 2})});
     }},
    {"MirroredAndScaled",
     [] {
         return sceneOf(tetrahedron(1), {turned(0, {0, 0, 1}, {}, {-2, 0.5f, 3})});
     }},
    {"TurnedByAnEighth",
     [] {
         return sceneOf(diamondMesh(), {turned(45, {0, 0, 1})});
     }},
    {"TurnedByAQuarter",
     [] {
         return sceneOf(tetrahedron(1), {turned(90, {1, 0, 0}, {1, 2, 3})});
     }},
    {"TurnedByWhatever",
     [] {
         return sceneOf(tetrahedron(3), {turned(37, {1, 2, -0.5f}, {1, 2, 3}, {1, 2, 0.5f})});
     }},
    {"Sheared", [] { return sceneOf(tetrahedron(2), {sheared()}); }},
    {"Instanced",
     [] {
         return sceneOf(tetrahedron(1), {turned(20, {0, 1, 0}, {-4, 0, 0}), turned(45, {1, 1, 0}, {4, 1, 0}, {2, 1, 1}),
                                         turned(0, {0, 0, 1}, {0, 6, 0}), sheared()});
     }},
    {"WithAProjection",
     [] { return sceneOf(diamondMesh(), {QMatrix4x4(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0.25f, 0, 0, 1)}); }},
    {"WithAVertexThatNoTriangleUses",
     [] {
         ModelMesh mesh = diamondMesh();
         mesh.positions << QVector3D(100, 100, 100);
         return sceneOf(mesh, {turned(45, {0, 0, 1}), turned(30, {1, 0, 0})});
     }},
    {"OfTwoMeshes", [] {
         ModelData scene = sceneOf(diamondMesh(), {turned(45, {0, 1, 0})});
         scene.meshes << tetrahedron(1);
         scene.items << itemAt(turned(60, {1, 1, 1}, {1, 1, 1}), 1);
         return scene;
     }}};

} // namespace

class GPUModelBoundsTest : public GPUModelTest, public ::testing::WithParamInterface<BoundsRow>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<BoundsRow> &row) { return row.param.name; }
};

TEST_P(GPUModelBoundsTest, TouchTheVerticesOnAllSides)
{
    const ModelData scene = GetParam().scene();
    ASSERT_TRUE(model.upload(scene));
    Vector3 minimum{1e30, 1e30, 1e30}, maximum{-1e30, -1e30, -1e30};
    for (const ModelItem &item : scene.items) {
        const ModelMesh &mesh = scene.meshes[item.mesh];
        for (const quint32 index : mesh.indices) {
            const QVector3D &p = mesh.positions[index];
            double world[4];
            for (int row = 0; row < 4; ++row)
                world[row] = double(item.transform(row, 0)) * double(p.x())
                             + double(item.transform(row, 1)) * double(p.y())
                             + double(item.transform(row, 2)) * double(p.z()) + double(item.transform(row, 3));
            for (std::size_t c = 0; c < 3; ++c) {
                minimum[c] = std::min(minimum[c], world[c] / world[3]);
                maximum[c] = std::max(maximum[c], world[c] / world[3]);
            }
        }
    }
    const GPUModel::BoundingBox box = model.sceneBounds();
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(double(box.minimum[c]), minimum[std::size_t(c)], 2e-6) << c; // single precision of places below 10
        EXPECT_NEAR(double(box.maximum[c]), maximum[std::size_t(c)], 2e-6) << c;
    }
}

INSTANTIATE_TEST_SUITE_P(Scenes, GPUModelBoundsTest, ::testing::ValuesIn(kBounds), GPUModelBoundsTest::nameOf);

TEST_F(GPUModelTest, BoundsOfVeryManyTurnedTrianglesContainThemAtABoundedCost)
{
    ModelMesh mesh = diamondMesh();
    while (mesh.indices.size() < 3 * 1000 * 1000)
        mesh.indices << mesh.indices;
    QVector<QMatrix4x4> transforms(16 * 1000 * 1000 / mesh.indices.size(), turned(45, {0, 0, 1}));
    transforms << turned(45, {0, 0, 1}, {10, 0, 0});
    ASSERT_TRUE(model.upload(sceneOf(mesh, transforms)));
    const GPUModel::BoundingBox box = model.sceneBounds();
    EXPECT_NEAR(double(box.minimum.x()), -std::sqrt(0.5), 1e-6) << "the first ones are exact";
    EXPECT_NEAR(double(box.maximum.x()), 10 + std::sqrt(2.0), 1e-5) << "the last one has its turned box";
}

TEST_F(GPUModelTest, AnEmptyModelHasNoBounds)
{
    EXPECT_FALSE(model.hasFeatureFlags(GPUModel::kSceneBoundsFeature));
    ASSERT_TRUE(model.upload(ModelData()));
    EXPECT_FALSE(model.hasFeatureFlags(GPUModel::kSceneBoundsFeature));
    EXPECT_EQ(model.sceneBounds().minimum, QVector3D());
    EXPECT_EQ(model.sceneBounds().maximum, QVector3D());
    EXPECT_TRUE(model.isDrawEmpty(0, 0));
}

} // namespace Brevane::Kvo
