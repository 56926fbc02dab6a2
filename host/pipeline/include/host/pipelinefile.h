#pragma once

#include "host/export.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

namespace Brevane::Kvo {

class Pipeline;

/// What a pipeline file says about itself.
struct PipelineFileInfo
{
    QString path;
    QString name; ///< The file name without ".json".
    QString description;
};

/// Builds a pipeline from a file:
///
///     {
///       "description": "What it draws",
///       "passes": [
///         { "name": "Model", "class": "ModelRenderPass",
///           "inputs": { "Viewport": "@viewport", "Geometry": "@model" } },
///         { "name": "Present", "class": "TextureToScreenRenderPass",
///           "inputs": { "Viewport": "@viewport",
///                       "Texture": { "from": "Model.Diffuse" },
///                       "LinearFilter": true,
///                       "FramebufferOut": "@screen" } }
///       ]
///     }
///
/// An input is a link ({ "from": "Pass.Slot" }, to any pass of the file), a host value ("@name", or
/// "@viewport[0.5, 0, 0.5, 1]" for a part of it, see Pipeline), or a value as parseSlotValue reads it.
/// "@@" begins a text with an '@'. Where a text is wanted, { "file": "images/sky.png" } is the path of a
/// file, relative to the pipeline file's folder, and { "contentOf": "shaders/sky.frag" } the text in it.
///
/// Beside "inputs" a pass may have "clearColor", a colour that becomes GL's clear colour right before it
/// starts, for passes that clear to what is current, and "calls": operations of its class (see PassFactory::operations, and
/// kvorender --list) with their arguments, which are called once, in their order, as soon as the pass
/// is made:
///
///         { "name": "Shapes", "class": "PrimitiveBuilderRenderPass",
///           "calls": [ { "addCube": [1.5, [0, 0, 0]] }, { "addQuad": [4, [0, 0, 2]] } ] }
///
/// Beside "passes" a file may have "lights", which become the host value of that name:
///
///       "lights": [ { "type": "directional", "direction": [0.3, -1, 0.2], "cascades": 3, "color": "#fff0d8" } ]
///
/// Types are directional, spot and point; the other members are those of ShadowMapLight.
///
/// Passes of \a pipeline stay, so that files can be added to one
/// another.
///
/// False when anything is wrong, with one line per mistake: file, line, what, and the nearest right name.
/// The pipeline is then partly built: throw it away.
KVO_PIPELINE_EXPORT bool loadPipeline(const QString &path, Pipeline *pipeline, QStringList *errors);
/// The same from a text; \a fileName stands in messages.
KVO_PIPELINE_EXPORT bool loadPipelineText(const QByteArray &text, const QString &fileName, Pipeline *pipeline,
                                          QStringList *errors);

/// Folders where pipelines are looked for by name: those given, then share/kvo/pipelines of the
/// installation that the program belongs to, then the source tree that this library was built from.
KVO_PIPELINE_EXPORT QStringList pipelineSearchPath(const QStringList &extra = {});
/// The file behind a name ("forward") or path; an empty string with an error when there is none.
KVO_PIPELINE_EXPORT QString findPipeline(const QString &nameOrPath, const QStringList &searchPath,
                                         QString *error = nullptr);
/// All pipelines of the folders; of two with one name the first counts.
KVO_PIPELINE_EXPORT QVector<PipelineFileInfo> listPipelines(const QStringList &searchPath);

} // namespace Brevane::Kvo
