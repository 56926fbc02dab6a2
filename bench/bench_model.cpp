// GPUModel with 10,000 items: the baseline loop against a bare GL loop of the same calls; the fast road
// against one draw of the same triangles merged into one mesh, and against a bare multi-draw, which tells
// what of the difference is the driver's.
//
//   bench_model [--benchmark_out=FILE --benchmark_out_format=json]

#include "benchmain.h"
#include "pairs.h"

#include "support/scenes.h"

#include <gl/shaderprogram.h>
#include <model/gpumodel.h>
#include <model/instancedataplan.h>
#include <model/instancedataregistry.h>

#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <vector>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

constexpr int kSide = 100; // items in each direction
constexpr int kSize = 512; // pixels

const QString kVertexText = QStringLiteral(R"(#version 150
#instancedata "InstanceInfo"
uniform mat4 u_ProjectionMatrix;
in vec3 va_Vertex;
in vec3 va_Normal;
out vec3 vo_Normal;
void main()
{
  gl_Position = u_ProjectionMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
  vo_Normal = (getModelNormalMatrix() * vec4(va_Normal, 0.0)).xyz;
}
)");

const QString kFragmentText = QStringLiteral(R"(#version 150
#instancedata "OBJMaterial"
in vec3 vo_Normal;
out vec4 out_Color;
void main()
{
  out_Color = vec4(getKd() * max(0.0, vo_Normal.z), getD());
}
)");

void build(ShaderProgram &program)
{
    const InstanceDataRegistry &plans = InstanceDataRegistry::Instance();
    program.setFragDataLocations({QStringLiteral("out_Color")});
    program.addShader(GL_VERTEX_SHADER, kVertexText);
    program.addShader(GL_VERTEX_SHADER, plans.getPlan(QStringLiteral("InstanceInfo"))->glslc());
    program.addShader(GL_FRAGMENT_SHADER, kFragmentText);
    program.addShader(GL_FRAGMENT_SHADER, plans.getPlan(QStringLiteral("OBJMaterial"))->glslc());
    if (!program.compile() || !program.link()) {
        std::fprintf(stderr, "%s\n", qPrintable(program.log()));
        std::exit(1);
    }
}

/// A grid of cells x cells quads over the square from (-1, -1) to (1, 1).
ModelMesh sheet(int cells)
{
    ModelMesh mesh;
    for (int y = 0; y <= cells; ++y) {
        for (int x = 0; x <= cells; ++x) {
            mesh.positions << QVector3D(-1 + 2 * float(x) / float(cells), -1 + 2 * float(y) / float(cells), 0);
            mesh.normals << QVector3D(0, 0, 1);
            mesh.texCoords << QVector2D(float(x) / float(cells), float(y) / float(cells));
        }
    }
    for (int y = 0; y < cells; ++y) {
        for (int x = 0; x < cells; ++x) {
            const auto first = quint32(y * (cells + 1) + x);
            const auto above = quint32(first + quint32(cells) + 1);
            mesh.indices << first << first + 1 << above + 1 << first << above + 1 << above;
        }
    }
    return mesh;
}

ModelData scene(int cells)
{
    ModelData data = Test::quadGridScene(kSide, kSide);
    data.meshes = {sheet(cells)};
    return data;
}

GLuint makeBuffer(GLenum target, const void *data, size_t bytes)
{
    GLuint name = 0;
    glGenBuffers(1, &name);
    glBindBuffer(target, name);
    glBufferData(target, GLsizeiptr(bytes), data, GL_STATIC_DRAW);
    return name;
}

/// The scene in plain GL: buffers, buffer textures and vertex arrays made by hand, the same program.
class BareScene
{
public:
    BareScene(const ModelData &data, const ShaderProgram &program, const QMatrix4x4 &projection)
        : _program(program.programID()), _projection(projection)
    {
        const ModelMesh &mesh = data.meshes[0];
        _indexCount = GLsizei(mesh.indices.size());
        _items = int(data.items.size());
        std::vector<float> matrices;
        std::vector<float> materials;
        std::vector<float> positions;
        std::vector<float> normals;
        std::vector<quint32> indices;
        std::vector<quint32> itemOfVertex;
        for (int i = 0; i < _items; ++i) {
            const ModelItem &item = data.items[i];
            const ModelMaterial &m = data.materials[item.material];
            const QMatrix4x4 normalMatrix = item.transform.inverted().transposed();
            matrices.insert(matrices.end(), item.transform.constData(), item.transform.constData() + 16);
            matrices.insert(matrices.end(), normalMatrix.constData(), normalMatrix.constData() + 16);
            materials.insert(materials.end(),
                             {m.Kd.x(), m.Kd.y(), m.Kd.z(), m.Ns, m.Ks.x(), m.Ks.y(), m.Ks.z(), m.D, 0, 0, 0, 0});
            const auto base = quint32(itemOfVertex.size());
            for (const QVector3D &p : mesh.positions) {
                positions.insert(positions.end(), {p.x(), p.y(), p.z()});
                itemOfVertex.push_back(quint32(i));
            }
            for (const QVector3D &n : mesh.normals)
                normals.insert(normals.end(), {n.x(), n.y(), n.z()});
            for (quint32 index : mesh.indices)
                indices.push_back(base + index);
        }
        _matrices = makeTextureBuffer(matrices);
        _materials = makeTextureBuffer(materials);

        const auto vertex = GLuint(glGetAttribLocation(_program, "va_Vertex"));
        const auto normal = GLuint(glGetAttribLocation(_program, "va_Normal"));
        _drawIndex = GLuint(glGetAttribLocation(_program, "va_DrawIndex"));

        // one mesh for the loop, all of them for the merged draw
        const size_t vertices = size_t(mesh.positions.size());
        std::vector<quint32> itemNumbers(static_cast<size_t>(_items));
        std::iota(itemNumbers.begin(), itemNumbers.end(), 0u);
        for (GLuint *vao : {&_loopArray, &_multiArray, &_mergedArray}) {
            const bool merged = vao == &_mergedArray;
            glGenVertexArrays(1, vao);
            glBindVertexArray(*vao);
            const size_t bytes = (merged ? vertices * size_t(_items) : vertices) * 3 * sizeof(float);
            _buffers.push_back(makeBuffer(GL_ARRAY_BUFFER, positions.data(), bytes));
            glVertexAttribPointer(vertex, 3, GL_FLOAT, GL_FALSE, 0, nullptr);
            glEnableVertexAttribArray(vertex);
            _buffers.push_back(makeBuffer(GL_ARRAY_BUFFER, normals.data(), bytes));
            glVertexAttribPointer(normal, 3, GL_FLOAT, GL_FALSE, 0, nullptr);
            glEnableVertexAttribArray(normal);
            if (vao != &_loopArray) {
                const std::vector<quint32> &numbers = merged ? itemOfVertex : itemNumbers;
                _buffers.push_back(makeBuffer(GL_ARRAY_BUFFER, numbers.data(), numbers.size() * 4));
                glVertexAttribIPointer(_drawIndex, 1, GL_UNSIGNED_INT, 0, nullptr);
                glEnableVertexAttribArray(_drawIndex);
                glVertexAttribDivisor(_drawIndex, merged ? 0 : 1);
            }
            const size_t count = merged ? indices.size() : size_t(_indexCount);
            _buffers.push_back(makeBuffer(GL_ELEMENT_ARRAY_BUFFER, indices.data(), count * 4));
        }
        glBindVertexArray(0);
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        std::vector<GLuint> commands;
        for (int i = 0; i < _items; ++i)
            commands.insert(commands.end(), {GLuint(_indexCount), 1, 0, 0, GLuint(i)});
        _commands = makeBuffer(GL_DRAW_INDIRECT_BUFFER, commands.data(), commands.size() * 4);
        _buffers.push_back(_commands);
        glBindBuffer(GL_DRAW_INDIRECT_BUFFER, 0);
        _matricesLocation = glGetUniformLocation(_program, "kvo_InstanceInfoData");
        _materialsLocation = glGetUniformLocation(_program, "kvo_OBJMaterialData");
        _projectionLocation = glGetUniformLocation(_program, "u_ProjectionMatrix");
    }

    ~BareScene()
    {
        glDeleteVertexArrays(1, &_loopArray);
        glDeleteVertexArrays(1, &_multiArray);
        glDeleteVertexArrays(1, &_mergedArray);
        glDeleteTextures(1, &_matrices);
        glDeleteTextures(1, &_materials);
        glDeleteBuffers(GLsizei(_buffers.size()), _buffers.data());
    }
    BareScene(const BareScene &) = delete;
    BareScene &operator=(const BareScene &) = delete;

    void drawLoop() const
    {
        begin(_loopArray);
        for (int i = 0; i < _items; ++i) {
            glVertexAttribI1ui(_drawIndex, GLuint(i));
            glDrawElements(GL_TRIANGLES, _indexCount, GL_UNSIGNED_INT, nullptr);
        }
        end();
    }

    void drawMulti() const
    {
        begin(_multiArray);
        glBindBuffer(GL_DRAW_INDIRECT_BUFFER, _commands);
        glMultiDrawElementsIndirect(GL_TRIANGLES, GL_UNSIGNED_INT, nullptr, _items, 0);
        glBindBuffer(GL_DRAW_INDIRECT_BUFFER, 0);
        end();
    }

    void drawMerged() const
    {
        begin(_mergedArray);
        glDrawElements(GL_TRIANGLES, _indexCount * _items, GL_UNSIGNED_INT, nullptr);
        end();
    }

private:
    GLuint makeTextureBuffer(const std::vector<float> &data)
    {
        _buffers.push_back(makeBuffer(GL_TEXTURE_BUFFER, data.data(), data.size() * sizeof(float)));
        GLuint texture = 0;
        glGenTextures(1, &texture);
        glBindTexture(GL_TEXTURE_BUFFER, texture);
        glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32F, _buffers.back());
        return texture;
    }

    void begin(GLuint array) const
    {
        glUseProgram(_program);
        glUniformMatrix4fv(_projectionLocation, 1, GL_FALSE, _projection.constData());
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_BUFFER, _matrices);
        glUniform1i(_matricesLocation, 0);
        glActiveTexture(GL_TEXTURE1);
        glBindTexture(GL_TEXTURE_BUFFER, _materials);
        glUniform1i(_materialsLocation, 1);
        glBindVertexArray(array);
    }

    static void end()
    {
        glBindVertexArray(0);
        glActiveTexture(GL_TEXTURE0);
        glUseProgram(0);
    }

    GLuint _program;
    QMatrix4x4 _projection;
    GLuint _matrices = 0;
    GLuint _materials = 0;
    GLuint _loopArray = 0;
    GLuint _multiArray = 0;
    GLuint _mergedArray = 0;
    GLuint _commands = 0;
    GLuint _drawIndex = 0;
    GLint _matricesLocation = -1;
    GLint _materialsLocation = -1;
    GLint _projectionLocation = -1;
    GLsizei _indexCount = 0;
    int _items = 0;
    std::vector<GLuint> _buffers;
};

/// The framebuffer that everything here is drawn to.
class Screen
{
public:
    Screen()
    {
        glGenRenderbuffers(2, _buffers);
        glGenFramebuffers(1, &_framebuffer);
        glBindFramebuffer(GL_FRAMEBUFFER, _framebuffer);
        const GLenum formats[] = {GL_RGBA8, GL_DEPTH_COMPONENT24};
        const GLenum places[] = {GL_COLOR_ATTACHMENT0, GL_DEPTH_ATTACHMENT};
        for (int i = 0; i < 2; ++i) {
            glBindRenderbuffer(GL_RENDERBUFFER, _buffers[i]);
            glRenderbufferStorage(GL_RENDERBUFFER, formats[i], kSize, kSize);
            glFramebufferRenderbuffer(GL_FRAMEBUFFER, places[i], GL_RENDERBUFFER, _buffers[i]);
        }
        glViewport(0, 0, kSize, kSize);
    }
    ~Screen()
    {
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glDeleteFramebuffers(1, &_framebuffer);
        glDeleteRenderbuffers(2, _buffers);
    }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    static std::vector<unsigned char> read()
    {
        std::vector<unsigned char> pixels(size_t(kSize) * kSize * 4);
        glReadPixels(0, 0, kSize, kSize, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
        return pixels;
    }

private:
    GLuint _framebuffer = 0;
    GLuint _buffers[2] = {};
};

/// One comparison: a road of GPUModel and its peer.
struct Comparison
{
    const char *name;
    GPUModel::DrawRoad road;
    void (BareScene::*peer)() const;
    double goal;
};

constexpr Comparison kComparisons[] = {
    {"loop, bare loop", GPUModel::DrawRoad::Loop, &BareScene::drawLoop, 1.1},
    {"fast road, one merged draw", GPUModel::DrawRoad::Indirect, &BareScene::drawMerged, 1.2},
    {"fast road, bare multi-draw", GPUModel::DrawRoad::Indirect, &BareScene::drawMulti, 1.1},
};

struct Row
{
    QByteArray name;
    double ours;
    double bare;
    double ratio;
    double goal;
};

std::vector<Row> rows;

void compareRoads(benchmark::State &state, const Comparison &comparison, int cells)
{
    const ModelData data = scene(cells);
    const QMatrix4x4 projection = Test::flatProjection();
    ShaderProgram program;
    build(program);
    GPUModel model;
    model.upload(data);
    model.setDrawRoad(comparison.road);
    const BareScene bareScene(data, program, projection);

    const auto clear = [] { glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT); };
    const auto ours = [&] {
        clear();
        program.bind();
        program.setUniform(QStringLiteral("u_ProjectionMatrix"), projection);
        model.draw(&program, 0, 0, CounterClockwiseWinding, false);
        program.unbind();
    };
    const auto bare = [&] {
        clear();
        (bareScene.*comparison.peer)();
    };

    ours();
    const auto ourPixels = Screen::read();
    bare();
    if (ourPixels != Screen::read()) {
        state.SkipWithError("the two sides draw different pictures");
        return;
    }
    comparePairs(state, ours, bare);
    rows.push_back({QString::asprintf("%s, %d triangles an item", comparison.name, 2 * cells * cells).toLatin1(),
                    state.counters["kvo_us"], state.counters["bare_us"], state.counters["ratio"], comparison.goal});
    state.counters["items"] = kSide * kSide;
    state.counters["triangles"] = double(kSide) * kSide * 2 * cells * cells;
    state.counters["goal"] = comparison.goal;
}

void run()
{
    {
        const Screen screen;
        glEnable(GL_DEPTH_TEST);
        for (const Comparison &comparison : kComparisons) {
            for (int cells : {1, 2, 4}) {
                const QByteArray title =
                    QString::asprintf("%s/triangles_per_item:%d", comparison.name, 2 * cells * cells).toLatin1();
                benchmark::RegisterBenchmark(
                    title.constData(),
                    [&comparison, cells](benchmark::State &s) { compareRoads(s, comparison, cells); })
                    ->UseManualTime()
                    ->Iterations(kPairs)
                    ->Unit(benchmark::kMicrosecond);
            }
        }
        benchmark::RunSpecifiedBenchmarks();
    }
    std::printf("\n%d items, medians of %d pairs\n", kSide * kSide, kPairs);
    std::printf("%-52s %10s %10s %7s %6s\n", "GPUModel::draw, its peer", "kvo us", "bare us", "ratio", "goal");
    for (const Row &row : rows)
        std::printf("%-52s %10.1f %10.1f %7.3f %6.1f\n", row.name.constData(), row.ours, row.bare, row.ratio, row.goal);
}

} // namespace

int main(int argc, char **argv)
{
    return runInContext(argc, argv, run);
}
