#pragma once

#include "host/camera.h"
#include "host/pipeline.h"
#include "host/screentarget.h"
#include "model/gpumodel.h"

#include <QColor>
#include <QImage>
#include <QString>

#include <functional>

/// Width by height.
float aspectOf(const QSize &size);

/// Gives a pipeline the screen, and a camera on the model (or nothing) within \a bounds. False with the
/// reason, for camera settings that cannot be read.
bool aim(Brevane::Kvo::Pipeline *pipeline, const Brevane::Kvo::ScreenTarget &screen,
         const Brevane::Kvo::GPUModel::BoundingBox &bounds, const QString &camera, QString *error);

/// The same with a camera that was read before, of a picture of that size.
void aim(Brevane::Kvo::Pipeline *pipeline, const Brevane::Kvo::ScreenTarget &screen, const Brevane::Kvo::Camera &camera,
         const QSize &picture);

/// Renders frames; \a before is called before each, with its number. The times of the pipeline are then
/// those of all but the first, which makes everything, unless there is only one. False with the reason.
bool renderFrames(Brevane::Kvo::Pipeline *pipeline, Brevane::Kvo::ScreenTarget *screen, int frames,
                  const std::function<void(int)> &before, QString *error);

/// An image on a background, where that is valid.
QImage onBackground(const QImage &image, const QColor &background);
/// The picture, on a background where that is valid; \a showsBackground: whether any of it would show. Null with the
/// reason on failure.
QImage pictureOf(const Brevane::Kvo::ScreenTarget &screen, const QColor &background, QString *error,
                 bool *showsBackground = nullptr);
