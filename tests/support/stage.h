#pragma once

#include "support/scenes.h"

#include <host/camera.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/sceneimport.h>
#include <host/screentarget.h>
#include <model/gpumodel.h>

#include <QImage>
#include <QRect>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

namespace Brevane::Kvo::Test {

/// The pipeline files of the tree, by name.
inline QStringList pipelineNames()
{
    QStringList names;
    for (const PipelineFileInfo &info : listPipelines({QStringLiteral(KVO_SOURCE_DIR "/pipelines")}))
        names << info.name;
    return names;
}

/// The name of a parameterised test of a pipeline.
inline std::string pipelineTestName(const ::testing::TestParamInfo<QString> &info)
{
    return info.param.split(QLatin1Char('-')).join(QLatin1Char('_')).toStdString();
}

/// Cubes of three colours behind one another; the second may let light through.
inline ModelData threeCubes(float secondOpacity = 1)
{
    ModelData data = cubeScene({0.9f, 0.8f, 0.7f});
    data.materials.append(material({0.9f, 0.3f, 0.1f}, {1, 1, 1}, 20, secondOpacity));
    data.materials.append(material({0.2f, 0.5f, 0.9f}));
    for (int i = 0; i < 2; ++i) {
        ModelItem item = data.items.first();
        item.material = i + 1;
        item.transform.translate(i == 0 ? -2.5f : 2.5f, 0, i == 0 ? 2.0f : -4.0f);
        item.transform.rotate(30, 1, 1, 0);
        data.items.append(item);
    }
    return data;
}

/// A pipeline of the tree with all that a host gives it. Tests that include this link the host.
class Stage
{
public:
    static constexpr float kYaw = -30;
    static constexpr float kPitch = 20;

    explicit Stage(const QString &name, const ModelData &data, const QSize &size, float yaw = kYaw, float zoom = 1)
    {
        QStringList errors;
        const QString path = QStringLiteral(KVO_SOURCE_DIR "/pipelines/%1.json").arg(name);
        EXPECT_TRUE(loadPipeline(path, &pipeline, &errors)) << qPrintable(errors.join(QLatin1Char('\n')));
        EXPECT_TRUE(model.upload(data));
        EXPECT_TRUE(opaque.upload(opaquePartOf(data)));
        pipeline.setModel(&model, &opaque);
        resize(size);
        look(yaw, kPitch, zoom);
    }
    void resize(const QSize &size)
    {
        EXPECT_TRUE(screen.resize(size));
        pipeline.setViewport(QRect(QPoint(0, 0), size));
        pipeline.setScreen(screen.framebuffer());
    }
    void look(float yaw, float pitch = kPitch, float zoom = 1)
    {
        const float aspect = float(screen.size().width()) / float(screen.size().height());
        Camera camera;
        camera.fit(model.sceneBounds(), yaw, pitch, aspect, zoom);
        pipeline.setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspect), camera.nearPlane, camera.farPlane);
    }
    void render()
    {
        QString error;
        screen.clear();
        EXPECT_TRUE(pipeline.render(nullptr, &error)) << qPrintable(error);
    }
    QImage picture(int frames)
    {
        for (int i = 0; i < frames; ++i)
            render();
        return screen.image();
    }

    // In this order, so that what refers to the others goes first.
    ScreenTarget screen;
    GPUModel model;
    GPUModel opaque;
    Pipeline pipeline;
};

} // namespace Brevane::Kvo::Test
