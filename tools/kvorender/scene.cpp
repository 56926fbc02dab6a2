#include "scene.h"

#include <epoxy/gl.h>

#include <QPainter>

#include <algorithm>

using namespace Brevane::Kvo;

float aspectOf(const QSize &size)
{
    return float(size.width()) / float(size.height());
}

bool aim(Pipeline *pipeline, const ScreenTarget &screen, const GPUModel::BoundingBox &bounds, const QString &settings,
         QString *error)
{
    Camera camera;
    if (!Camera::parse(settings, bounds, aspectOf(screen.size()), &camera, error))
        return false;
    aim(pipeline, screen, camera, screen.size());
    return true;
}

void aim(Pipeline *pipeline, const ScreenTarget &screen, const Camera &camera, const QSize &picture)
{
    pipeline->setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspectOf(picture)), camera.nearPlane,
                        camera.farPlane);
    pipeline->setViewport(QRect(QPoint(0, 0), screen.size()));
    pipeline->setScreen(screen.framebuffer());
}

bool renderFrames(Pipeline *pipeline, ScreenTarget *screen, int frames, const std::function<void(int)> &before,
                  QString *error)
{
    for (int frame = 0; frame < frames; ++frame) {
        before(frame);
        screen->clear();
        if (!pipeline->render(nullptr, error))
            return false;
        if (frame == 0 && frames > 1)
            pipeline->setTimingHistory(frames);
    }
    glFinish();
    return true;
}

namespace {

bool isAnywhereTransparent(const QImage &image)
{
    const QImage pixels = image.convertToFormat(QImage::Format_ARGB32);
    for (int y = 0; y < pixels.height(); ++y) {
        const auto *line = reinterpret_cast<const QRgb *>(pixels.constScanLine(y));
        if (std::any_of(line, line + pixels.width(), [](QRgb pixel) { return qAlpha(pixel) < 255; }))
            return true;
    }
    return false;
}

} // namespace

QImage pictureOf(const ScreenTarget &screen, const QColor &background, QString *error, bool *showsBackground)
{
    QImage image = screen.image(error);
    if (image.isNull()) {
        *error = QStringLiteral("cannot read the picture back: %1").arg(*error);
        return image;
    }
    if (showsBackground)
        *showsBackground = isAnywhereTransparent(image);
    return onBackground(image, background);
}

QImage onBackground(const QImage &image, const QColor &background)
{
    if (!background.isValid())
        return image;
    QImage canvas(image.size(), QImage::Format_RGB32);
    canvas.fill(background);
    QPainter(&canvas).drawImage(0, 0, image);
    return canvas;
}
