#pragma once

#include "pipelinesettings.h"
#include "scenesettings.h"

#include <QSize>
#include <QString>

#include <optional>

/// The command line of kvoview.
struct ViewOptions
{
    QString model;
    PipelineChoice pipelines;
    PipelineSettings pipeline;
    SceneSettings scene;
    QSize size; ///< Of the picture in the window; empty: what suits.
    int frames = 0; ///< 0: until the window is closed.
    QString grab;

    /// An exit code when the program is to end at once.
    std::optional<ExitCode> read(const QStringList &arguments);
};
