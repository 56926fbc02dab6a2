#pragma once

#include "host/orbitcamera.h"
#include "viewoptions.h"

#include <QSize>
#include <QString>

#include <functional>

class Session;

/// The command line of kvorender that gives the picture of the window: model, pipeline, camera, and every value that
/// was changed since the pipeline was saved. What it cannot say is told in \a notes.
QString kvorenderCommand(Session *session, const ViewOptions &options, const QSize &size, QStringList *notes);

/// Pictures of the scene from all around, FILE-000.png and so on for "FILE.png". \a progress is told how many are
/// written, and ends it by false. False with the reason.
bool writeTurntable(Session *session, const QString &path, const QSize &size, int count,
                    const std::function<bool(int)> &progress, QString *error);

/// A camera of the settings that Camera::parse reads.
bool cameraOf(const QString &settings, const Brevane::Kvo::GPUModel::BoundingBox &bounds, float aspect,
              Brevane::Kvo::OrbitCamera *camera, QString *error);
