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
    QString path; ///< Of the file.
    QString name; ///< The file name without ".json".
    QString description; ///< Its "description", for people.
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
/// A member "version" is the version of the format, 1 where it is missing: older ones are converted as they are read, and
/// kept up to date as they are saved; newer ones are refused.
///
/// Comments may stand where space may: // to the end of the line, and /* */. A member "$schema" is for editors (see
/// pipelineSchema).
///
/// Passes of \a pipeline stay, so that files can be added to one
/// another.
///
/// False when anything is wrong, with one line per mistake added to \a errors (may be null): file, line, what, and the
/// nearest right name.
/// The pipeline is then partly built: throw it away.
KVO_PIPELINE_EXPORT bool loadPipeline(const QString &path, Pipeline *pipeline, QStringList *errors);
/// The same from a text; \a fileName stands in messages.
KVO_PIPELINE_EXPORT bool loadPipelineText(const QByteArray &text, const QString &fileName, Pipeline *pipeline,
                                          QStringList *errors);

/// Writes a pipeline to a file, so that loadPipeline gives the same one. What stands in the file at \a path already, or
/// in \a original, the text that the pipeline was loaded from, keeps its place, its comments and its way of writing:
/// only what differs is changed, inputs and passes that are new come behind the others, and those that are gone are
/// taken out; a pass that was renamed counts as a new one (see withPassRenamed). Calls and lights stay as they are there,
/// and a new file has none: lights are the host's, see Pipeline::setHostValue.
///
/// False, with a line for each reason and the file as it was, when something has no text: a pass that was added as
/// an object, one of a class with calls that the file does not have yet, a value that is a pointer.
KVO_PIPELINE_EXPORT bool savePipeline(const Pipeline &pipeline, const QString &path, QStringList *errors,
                                      const QByteArray &original = {});

/// The text that savePipeline would write to \a path, with nothing written; empty where it would fail.
KVO_PIPELINE_EXPORT QByteArray pipelineText(const Pipeline &pipeline, const QString &path, const QByteArray &original,
                                            QStringList *errors);
/// The text of a pipeline file with another name for a pass, there and in the links to it. As it is where there is no
/// such pass.
KVO_PIPELINE_EXPORT QByteArray withPassRenamed(const QByteArray &text, const QString &name, const QString &newName);
/// The files that the text of a pipeline file names by "file" and "contentOf", as paths, each once.
KVO_PIPELINE_EXPORT QStringList filesOf(const QByteArray &text, const QString &path);

/// Folders where pipelines are looked for by name: those given, then share/kvo/pipelines of the installations that the
/// program and this library belong to, then the source tree that the library was built from.
KVO_PIPELINE_EXPORT QStringList pipelineSearchPath(const QStringList &extra = {});
/// The file behind a name ("forward") or path; an empty string with an error when there is none.
KVO_PIPELINE_EXPORT QString findPipeline(const QString &nameOrPath,
                                         const QStringList &searchPath = pipelineSearchPath(),
                                         QString *error = nullptr);
/// The pipeline to take where nobody names one: "studio" where there is a model, "gradient" without.
KVO_PIPELINE_EXPORT QString defaultPipeline(bool hasModel);
/// All pipelines of the folders; of two with one name the first counts.
KVO_PIPELINE_EXPORT QVector<PipelineFileInfo> listPipelines(const QStringList &searchPath);

} // namespace Brevane::Kvo
