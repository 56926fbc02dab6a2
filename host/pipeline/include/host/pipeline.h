#pragma once

#include "core/renderpass.h"
#include "host/export.h"

#include <QColor>
#include <QRect>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <functional>
#include <memory>

class QMatrix4x4;

namespace Brevane::Kvo {

class FramebufferObject;
class GPUModel;
class PipelinePrivate;
class RenderCallbacks;
struct SlotInfo;

/// How long a pass took, in milliseconds, over the frames that are remembered.
struct PassTiming
{
    QString pass; ///< Its name.
    int cpuSamples = 0; ///< Frames that count.
    double cpuLast = 0.0; ///< Time in the pass's start on the CPU.
    double cpuMinimum = 0.0; ///< The shortest of them.
    double cpuMedian = 0.0; ///< Half of them took less.
    int gpuSamples = 0; ///< 0 where the context has no timer queries.
    double gpuLast = 0.0; ///< Time between the pass's first and last command on the GPU.
    double gpuMinimum = 0.0; ///< The shortest.
    double gpuMedian = 0.0; ///< Half of them took less.
};

/// How an input of a pass gets its value.
struct PassInput
{
    /// Where the value comes from.
    enum class Kind { Default, Value, Host, Link };

    QString slot; ///< Its full name.
    Kind kind = Kind::Default; ///< Where the value comes from.
    QVariant value; ///< The default, or the value that was given.
    QString source; ///< "@name" of a host value, the slot's full name for a link.
    QString sourcePass; ///< For a link.
};

/// A chain of passes: owns them, wires them, puts them in order and drives them frame by frame.
///
/// An input of a pass has its default, a value, a host value or a link to an output; the last one given
/// counts. Host values are what the application knows and passes ask for, under fixed names:
///
/// | Name         | Type               | Set by                                    |
/// |--------------|--------------------|-------------------------------------------|
/// | viewport     | QRect              | setViewport                               |
/// | camera       | QMatrix4x4         | setCamera: world to camera space          |
/// | projection   | QMatrix4x4         | setCamera: camera to clip space           |
/// | near, far    | float              | setCamera: distances of the clip planes   |
/// | model        | GPUModel*          | setModel                                  |
/// | opaque       | GPUModel*          | setModel: the model's opaque items        |
/// | screen       | FramebufferObject* | setScreen: where the picture goes         |
/// | lights       | list               | setHostValue: see lightsToVariant         |
/// | frame        | int                | the pipeline: number of the frame, from 0 |
/// | paths.NAME   | QString            | setHostValue; any NAME                    |
///
/// A part of the viewport is "viewport[x, y, width, height]" in fractions of its width and height, from
/// its lower left corner: "viewport[0.5, 0, 0.5, 1]" is its right half; "viewport[[...], [...]]" is a list
/// of rectangles. Edges go to the nearest pixel.
///
/// Slots are named in full ("Kvo_KvoTexture*_Frame") or by their last part ("Frame").
///
/// render puts the passes in an order that their links allow, gives every pass its inputs right before
/// it starts, and sets GL's viewport to the size in the pass's viewport slot. Each pass begins with GL's
/// default state, whatever the host or the passes before it have set, and after the frame the host finds
/// its state as it was. A pass or an observer of the host's own may change any value of the context, and
/// has to put back what it binds. Links and users of outputs are worked out anew only after a change; a
/// frame in between allocates nothing.
///
/// Operations that can fail return false and put the reason, with the names concerned and the nearest
/// right name, in *error where given; the pipeline is then as it was. Those that change the pipeline, setup and render
/// say it through qWarning where no error is taken.
class KVO_PIPELINE_EXPORT Pipeline
{
public:
    Pipeline();
    /// Tears down and destroys the passes. Their context has to be current if they have run.
    ~Pipeline();

    // Passes

    /// Takes a pass under a name of its own (letters, digits, '_' and '-').
    bool add(const QString &name, std::unique_ptr<RenderPass> pass, QString *error = nullptr);
    /// Makes the pass by its class name (see PassFactory).
    bool add(const QString &name, const QString &className, QString *error = nullptr);
    /// Adds a pass in the middle of the link that feeds input \a toSlot of \a to: what came in goes to
    /// the new pass's \a inputSlot, and its \a outputSlot goes on.
    bool insert(const QString &name, std::unique_ptr<RenderPass> pass, const QString &to, const QString &toSlot,
                const QString &inputSlot, const QString &outputSlot, QString *error = nullptr);
    /// The same with a new pass of a class.
    bool insert(const QString &name, const QString &className, const QString &to, const QString &toSlot,
                const QString &inputSlot, const QString &outputSlot, QString *error = nullptr);
    /// Lets frames go past a pass, which keeps its place, its links and its values: whatever reads an output of it
    /// gets what bypassSlot says comes in instead, or its own default. Passes are on at first; files do not say it.
    bool setEnabled(const QString &name, bool enabled, QString *error = nullptr);
    /// False for unknown names.
    bool isEnabled(const QString &name) const;
    /// The input that stands for an output while the pass is off: of the same type, and of images one that the pass
    /// works on by its name (that of the output, "Input", or the last that begins with "Frame"). Empty where none does.
    QString bypassSlot(const QString &pass, const QString &outputSlot) const;
    /// Sets GL's clear colour to this right before the pass starts, for passes that clear to what is
    /// current. An invalid colour takes the setting back, to GL's default of transparent black.
    bool setClearColor(const QString &pass, const QColor &color, QString *error = nullptr);
    /// What was set; invalid: GL's default.
    QColor clearColor(const QString &pass) const;
    /// Puts another pass in the place of one, with all links and values. Fails when the new pass lacks a
    /// slot that is in use.
    bool replace(const QString &name, std::unique_ptr<RenderPass> pass, QString *error = nullptr);
    /// The same with a new pass of a class.
    bool replace(const QString &name, const QString &className, QString *error = nullptr);
    /// Takes a pass out and destroys it. Inputs that it fed go back to their defaults.
    bool remove(const QString &name, QString *error = nullptr);
    /// Another name for a pass; links go along. False, with the reason, where the name is taken or there is no such
    /// pass.
    bool rename(const QString &name, const QString &newName, QString *error = nullptr);
    /// Null when there is none of that name.
    RenderPass *pass(const QString &name) const;
    /// The class by whose name the pass was added; empty for one that was added as an object.
    QString className(const QString &name) const;
    /// In the order of adding.
    QStringList passNames() const;
    /// In the order of running. Links form no cycle, since connect refuses one, so there always is an order;
    /// \a error is left alone.
    QStringList order(QString *error = nullptr) const;

    // Inputs

    /// Links an output to an input. Types have to agree by the words in the slots' names, and a link that
    /// would close a cycle is refused, with the passes of the cycle in the error.
    bool connect(const QString &from, const QString &fromSlot, const QString &to, const QString &toSlot,
                 QString *error = nullptr);
    /// The same with "Pass.Slot".
    bool connect(const QString &from, const QString &to, QString *error = nullptr);
    /// Binds an input to a host value, or to a part of it.
    bool bind(const QString &pass, const QString &slot, const QString &hostValue, QString *error = nullptr);
    /// Binds inputs that have their default to the host value that their name asks for: Viewport, CameraMatrix,
    /// ProjectionMatrix, NearPlane, FarPlane, and Geometry that takes a model. Gives the number of those it bound.
    int bindStandard();
    /// Gives an input a value that stays. False, with the reason, for one that no pass could read, going by the type in
    /// the slot's name; an invalid value is none, and goes in everywhere.
    bool setValue(const QString &pass, const QString &slot, const QVariant &value, QString *error = nullptr);
    /// The same from text, see parseSlotValue; "@name" binds to a host value.
    bool setValueText(const QString &pass, const QString &slot, const QString &text, QString *error = nullptr);
    /// Puts an input back to its default.
    bool reset(const QString &pass, const QString &slot, QString *error = nullptr);
    /// The full name and the default value of an input, each where it is asked for.
    bool inputSlot(const QString &pass, const QString &slot, QString *fullName, QVariant *defaultValue,
                   QString *error = nullptr) const;
    /// What the pass says of an input: its meaning, unit, range and choices. Null for unknown names, and for slots
    /// of which nothing is said.
    const SlotInfo *inputInfo(const QString &pass, const QString &slot) const;
    /// "Pass.Slot" that feeds an input, "@name" for a host value, otherwise empty.
    QString source(const QString &pass, const QString &slot) const;
    /// All inputs of a pass, in the order of its slots; none for unknown names.
    QVector<PassInput> inputs(const QString &pass) const;
    /// Whether any input is bound to that host value.
    bool uses(const QString &hostValue) const;
    /// What is likely a mistake though it runs: passes without a viewport, values beyond what makes sense, null
    /// where a value belongs, files that are not there, filters without an image, links that nothing reads, lights and
    /// paths that no input is bound to.
    QStringList warnings() const;

    // Outputs

    /// The value of an output as the pass left it; invalid for unknown names. Behind a frame a texture of the pool in
    /// the middle of the chain may hold what a later pass drew: read it in the observer, see setPassObserver.
    QVariant output(const QString &pass, const QString &slot, QString *error = nullptr) const;
    /// The full name of an output.
    bool outputSlot(const QString &pass, const QString &slot, QString *fullName, QString *error = nullptr) const;
    /// The full names of all outputs of a pass, in their order; none for unknown names.
    QStringList outputs(const QString &pass) const;
    /// What the pass says of an output. Null for unknown names, and for slots of which nothing is said.
    const SlotInfo *outputInfo(const QString &pass, const QString &slot) const;
    /// Links that read an output: what the pass was told as its number of users.
    int users(const QString &pass, const QString &slot) const;

    // Host values

    /// The host value "viewport": what passes draw to, in pixels.
    void setViewport(const QRect &viewport);
    /// The host values of the camera: world to camera space, camera to clip space, and the distances of the clip
    /// planes.
    void setCamera(const QMatrix4x4 &camera, const QMatrix4x4 &projection, float nearPlane, float farPlane);
    /// Draws a part of a larger picture, for pictures beyond what a texture may be. \a window is the part, from the
    /// picture's lower left corner; the viewport has to have its size, and the projection is that of the whole picture.
    /// Passes that look around a pixel need more around the part than what is taken of it, see PassInfo::reach; what
    /// fills the screen by itself (images, parts of the viewport) begins anew in each part. An empty \a picture, the
    /// default: what is drawn is all there is.
    void setWindow(const QRect &window, const QSize &picture);
    /// Says that windows of this pipeline's picture are not parts of it, and why: "its paper is spread over the
    /// picture". For shaders that ask where in the picture they are. Nothing else comes of it; empty at first.
    void setInOnePiece(const QString &reason);
    /// See setInOnePiece.
    QString inOnePiece() const;
    /// \a opaque is what opaquePartOf gives of the model, for pipelines that draw opaque surfaces first and
    /// transparent ones over them; null: all of the model counts as opaque.
    void setModel(GPUModel *model, GPUModel *opaque = nullptr);
    /// The host value "screen": what the last pass draws on. It stays the host's.
    void setScreen(FramebufferObject *screen);
    /// Gives any host value. False, with the reason, for a name that is none, and for a value of another type.
    bool setHostValue(const QString &name, const QVariant &value, QString *error = nullptr);
    /// What a host value is now; invalid for a name that is none.
    QVariant hostValue(const QString &name) const;
    /// The fixed names of the table above.
    static QStringList hostValueNames();
    /// Those of them that an input of that name takes, by its type.
    static QStringList hostValuesFor(const QString &slot);

    // Frames; all of this needs the GL context

    /// Calls setup on passes that had none. render does so itself; call this to pay early.
    bool setup(RenderCallbacks *callbacks = nullptr, QString *error = nullptr);
    /// Runs one frame. False with an error when there is no usable context. A viewport, a camera or a model that passes
    /// want and that was never set is said once; for no model set a null pointer.
    bool render(RenderCallbacks *callbacks = nullptr, QString *error = nullptr);
    /// Tears all passes down; render sets them up again.
    void teardown(RenderCallbacks *callbacks = nullptr);
    /// Frees what belongs to this GL context only, before the pipeline moves to another one.
    void teardownContextData(RenderCallbacks *callbacks = nullptr);
    /// Frames since construction.
    int frameNumber() const;
    /// Is called after each start with the pass, its GL state and outputs as start left them: the moment
    /// to look at a texture that the pool may reuse later in the frame. It may set another one, or none. While a frame
    /// runs no pass is removed, replaced or torn down, and no other frame of the pipeline begins: these are refused.
    void setPassObserver(std::function<void(const QString &name, RenderPass *pass)> observer);

    // Checks

    /// What was wrong in the last frame: broken counts of pool textures by pass and slot, error codes.
    QStringList faults() const;
    /// How long unused pool textures stay, in frames, and how much they may take in bytes (negative: no
    /// limit); see TextureManager::trim.
    void setPoolLimits(int idleFrames, qint64 bytes);

    // Times

    /// Off by default. Results of the GPU are fetched two frames later, so that nothing waits.
    void setTimingEnabled(bool enabled);
    /// How many frames are remembered, 120 by default; forgets what was measured.
    void setTimingHistory(int frames);
    /// One entry per pass in the order of running. \a wait waits for the GPU and takes in the last frames.
    QVector<PassTiming> timings(bool wait = false);

private:
    Q_DISABLE_COPY(Pipeline)

    std::unique_ptr<PipelinePrivate> d;
};

} // namespace Brevane::Kvo
