#pragma once

#include "host/sceneimport.h"
#include "options.h"

#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

/// What is done to a model before it is drawn.
struct SceneSettings
{
    static constexpr float kScaleToFit = 0.0f;

    float scale = 1.0f; ///< kScaleToFit: its longest side becomes kFittingSide units.
    bool floor = false; ///< Put it on one.
    QVector<QPair<QString, float>> opacities; ///< Material and opacity; an empty name means all.

    bool operator==(const SceneSettings &) const = default;
};

/// The longest side of a model that is scaled to fit, in units.
constexpr float kFittingSide = 2.0f;

/// Does it. False with the reason, for a material that is not there.
bool applySettings(Brevane::Kvo::ModelData *data, const SceneSettings &settings, QString *error);

/// --opacity, --scale and --floor.
void addSceneOptions(Options *options, SceneSettings *settings);

/// The options that say which pipelines: by name or file, and folders to look in first.
struct PipelineChoice
{
    QStringList names; ///< The last one counts where one is wanted.
    QStringList folders;

    /// The one to show: what shows a model, or the plainest without one, where none is named.
    QString nameFor(const QString &model) const;
};

/// --pipeline, any number of times where \a several (for --gallery), and --pipelines.
void addPipelineOptions(Options *options, PipelineChoice *choice, bool several);
