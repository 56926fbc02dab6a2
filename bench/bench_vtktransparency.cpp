// Our fragment lists and our weighted blending beside VTK's dual depth peeling (4 peels) and its weighted
// blending, on one model from one camera, in one process and one OpenGL context: that of VTK's window.
// Needs an X display (xvfb-run) and VTK 9.1, so this target is optional.
//
// VTK's ways to transparency cannot be started alone; their cost is that of a frame with the model less
// that of an empty frame.
//
//   xvfb-run bench_vtktransparency [REPETITIONS [MODEL]]

#include "cost.h"

#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <host/sceneimport.h>
#include <model/gpumodel.h>
#include <renderpasses/transparencyrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>

#include <QMatrix4x4>
#include <QRect>
#include <QVariant>

#include <vtkActor.h>
#include <vtkAutoInit.h>
#include <vtkCamera.h>
#include <vtkCellArray.h>
#include <vtkFloatArray.h>
#include <vtkMatrix4x4.h>
#include <vtkNew.h>
#include <vtkOpenGLRenderer.h>
#include <vtkPointData.h>
#include <vtkPoints.h>
#include <vtkPolyData.h>
#include <vtkPolyDataMapper.h>
#include <vtkProperty.h>
#include <vtkRenderWindow.h>

#include <cstdio>
#include <cstdlib>

VTK_MODULE_INIT(vtkRenderingOpenGL2)

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr float kOpacity = 0.4f;
constexpr int kPeels = 4;

struct Row
{
    const char *name;
    double bar;
    std::vector<double> vtk;
    std::vector<double> ours;
    std::vector<double> wallRatios;
    std::vector<double> cpuRatios;
};

vtkNew<vtkPolyData> polyDataOf(const ModelData &data)
{
    vtkNew<vtkPolyData> mesh;
    vtkNew<vtkPoints> points;
    vtkNew<vtkCellArray> triangles;
    vtkNew<vtkFloatArray> normals;
    normals->SetNumberOfComponents(3);
    for (const ModelItem &item : data.items) {
        const ModelMesh &source = data.meshes[item.mesh];
        const vtkIdType first = points->GetNumberOfPoints();
        for (qsizetype i = 0; i < source.positions.size(); ++i) {
            const QVector3D p = item.transform.map(source.positions[i]);
            const QVector3D n = item.transform.mapVector(source.normals.value(i));
            points->InsertNextPoint(double(p.x()), double(p.y()), double(p.z()));
            normals->InsertNextTuple3(double(n.x()), double(n.y()), double(n.z()));
        }
        for (qsizetype i = 0; i + 2 < source.indices.size(); i += 3) {
            const vtkIdType corners[3] = {first + source.indices[i], first + source.indices[i + 1],
                                          first + source.indices[i + 2]};
            triangles->InsertNextCell(3, corners);
        }
    }
    mesh->SetPoints(points);
    mesh->SetPolys(triangles);
    mesh->GetPointData()->SetNormals(normals);
    return mesh;
}

QMatrix4x4 toQt(vtkMatrix4x4 *matrix)
{
    QMatrix4x4 out;
    for (int row = 0; row < 4; ++row)
        for (int column = 0; column < 4; ++column)
            out(row, column) = float(matrix->GetElement(row, column));
    return out;
}

} // namespace

int main(int argc, char **argv)
{
    const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
    const QString path =
        argc > 2 ? QString::fromLocal8Bit(argv[2]) : QStringLiteral("/usr/share/glmark2/models/bunny.obj");
    ImportReport report;
    ModelData data = importScene(path, ImportOptions(), &report);
    if (!report.ok()) {
        std::fprintf(stderr, "bench_vtktransparency: %s\n", qPrintable(report.error));
        return 1;
    }
    setOpacity(&data, QString(), kOpacity);

    vtkNew<vtkOpenGLRenderer> renderer;
    vtkNew<vtkRenderWindow> window;
    window->SetSize(kWidth, kHeight);
    window->SetMultiSamples(0);
    window->SetAlphaBitPlanes(1);
    window->SetOffScreenRendering(1);
    window->AddRenderer(renderer);
    const auto mesh = polyDataOf(data);
    vtkNew<vtkPolyDataMapper> mapper;
    mapper->SetInputData(mesh);
    vtkNew<vtkActor> actor;
    actor->SetMapper(mapper);
    actor->GetProperty()->SetOpacity(double(kOpacity));
    renderer->AddActor(actor);
    renderer->ResetCamera();
    renderer->SetMaximumNumberOfPeels(kPeels);
    renderer->SetOcclusionRatio(0);
    window->Render();
    window->MakeCurrent();

    const auto device = OpenGLDeviceContext::current();
    if (!device) {
        std::fprintf(stderr, "bench_vtktransparency: VTK's context cannot be used\n");
        return 1;
    }
    std::printf("%s\n%s, %d by %d, medians of %d rounds, milliseconds\n", qPrintable(device->description()),
                qPrintable(path), kWidth, kHeight, repetitions);
    {
        GPUModel model;
        model.upload(data);
        vtkCamera *camera = renderer->GetActiveCamera();
        const QMatrix4x4 view = toQt(camera->GetViewTransformMatrix());
        const QMatrix4x4 projection =
            toQt(camera->GetProjectionTransformMatrix(double(kWidth) / double(kHeight), -1, 1));
        VisibilityBufferRenderPass record;
        VisibilitySortRenderPass sort;
        VisibilityDeferredRenderPass shade;
        TransparencyRenderPass weighted;
        const QRect viewport(0, 0, kWidth, kHeight);
        const QVariant geometry = QVariant::fromValue(&model);
        for (RenderPass *pass : std::initializer_list<RenderPass *>{&record, &shade, &weighted}) {
            pass->setInput(0, viewport);
            pass->setInput(1, projection);
            pass->setInput(2, view);
        }
        record.setInput(3, geometry);
        weighted.setInput(3, geometry);
        sort.setInput(0, viewport);
        shade.setInput(6, geometry);
        const auto lists = [&] {
            glViewport(0, 0, kWidth, kHeight);
            record.start(nullptr);
            for (int i = 0; i < 3; ++i)
                sort.setInput(1 + i, record.output(i));
            sort.start(nullptr);
            for (int i = 0; i < 3; ++i)
                shade.setInput(3 + i, sort.output(i));
            shade.start(nullptr);
        };
        const auto vtkFrame = [&](bool isVisible, bool isPeeled) {
            actor->SetVisibility(isVisible);
            renderer->SetUseDepthPeeling(isPeeled);
            const Cost cost = costOf([&] { window->Render(); });
            window->MakeCurrent();
            return cost;
        };

        Row rows[] = {{"lists against dual depth peeling", 0.45, {}, {}, {}, {}},
                      {"weighted against weighted", 0.65, {}, {}, {}, {}}};
        for (int i = -3; i < repetitions; ++i) {
            const Cost empty = vtkFrame(false, false);
            const Cost with[] = {vtkFrame(true, true) - empty, vtkFrame(true, false) - empty};
            glEnable(GL_DEPTH_TEST);
            glDepthFunc(GL_LESS);
            glDepthMask(GL_TRUE);
            glDisable(GL_SCISSOR_TEST);
            glDisable(GL_BLEND);
            const Cost ours[] = {costOf(lists), costOf([&] { weighted.start(nullptr); })};
            for (int r = 0; r < 2 && i >= 0; ++r) {
                rows[r].vtk.push_back(with[r].wall);
                rows[r].ours.push_back(ours[r].wall);
                rows[r].wallRatios.push_back(ours[r].wall / with[r].wall);
                rows[r].cpuRatios.push_back(ours[r].cpu / with[r].cpu);
            }
        }
        std::printf("%-34s %10s %10s %8s %10s %8s\n", "", "VTK", "ours", "ratio", "cpu ratio", "goal");
        for (const Row &row : rows)
            std::printf("%-34s %10.1f %10.1f %8.2f %10.2f %8.2f\n", row.name, median(row.vtk), median(row.ours),
                        median(row.wallRatios), median(row.cpuRatios), row.bar);
        window->MakeCurrent();
    }
    OpenGLDeviceContext::releaseCurrent();
    return 0;
}
