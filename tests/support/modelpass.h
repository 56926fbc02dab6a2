#pragma once

#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <model/gpumodel.h>

#include <QRect>

#include <epoxy/gl.h>

#include <memory>

namespace Brevane::Kvo::Test {

/// Fixture for passes whose first inputs are viewport, projection, camera and model: a camera in front
/// of the origin, an empty model to fill, the GL viewport at the size of the targets.
template <typename Pass>
class ModelPassTest : public GLTest
{
protected:
    enum Input { kViewport, kProjection, kCamera, kGeometry };
    static constexpr int kWidth = 61;
    static constexpr int kHeight = 47;

    void SetUp() override
    {
        GLTest::SetUp();
        projection = perspective(float(kWidth) / float(kHeight));
        camera = cameraAt(4);
        camera.rotate(10, 1, 0, 0);
        setUp(pass);
        glViewport(0, 0, kWidth, kHeight);
    }

    void TearDown() override
    {
        ownedPass.reset();
        ownedModel.reset();
        GLTest::TearDown();
    }

    void setUp(Pass &p)
    {
        p.setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        p.setInput(kProjection, projection);
        p.setInput(kCamera, camera);
        p.setInput(kGeometry, QVariant::fromValue(&model));
    }

    Image<float> read(int output) { return readTexture<float>(outputTexture(pass, output)); }

    // Destroyed before the fixture looks for what is left.
    std::unique_ptr<GPUModel> ownedModel = std::make_unique<GPUModel>();
    std::unique_ptr<Pass> ownedPass = std::make_unique<Pass>();
    GPUModel &model = *ownedModel;
    Pass &pass = *ownedPass;
    QMatrix4x4 projection;
    QMatrix4x4 camera;
};

} // namespace Brevane::Kvo::Test
