#pragma once

#include "core/export.h"

#include <QString>
#include <QVariant>

namespace Brevane::Kvo {

class RenderCallbacks;

/// What a host sees of a render pass: named input and output slots and one lifecycle.
///
/// The order of calls is: construct; setDefaultValue, setInput, setNumOutputUsers as wanted; setup;
/// then for each frame beginFrame, start, endFrame; at the end teardown, teardownContextData and
/// destruction. Constructing, copying and inspecting a pass needs no GL context (a pass that is an
/// exception says so in its header); setup, start, teardown, teardownContextData and the destructor
/// of a pass that has run need the context current. Everything runs on one thread.
///
/// Slot indices out of range are harmless everywhere: they are reported through qCritical and
/// otherwise ignored.
class KVO_CORE_EXPORT RenderPass
{
public:
    virtual ~RenderPass();

    /// One-time GL preparation. \a callbacks may be null here and in all operations below.
    virtual void setup(RenderCallbacks *callbacks) = 0;
    /// Called before start.
    virtual void beginFrame(RenderCallbacks *callbacks) = 0;
    /// Does the work of this frame: reads the inputs, draws, writes the outputs.
    virtual void start(RenderCallbacks *callbacks) = 0;
    /// Called after start.
    virtual void endFrame(RenderCallbacks *callbacks) = 0;
    /// Whether the work of the last start has been handed to GL. Passes work synchronously, so this
    /// is always true; a host's own asynchronous pass overrides it.
    virtual bool isFinished() const;
    /// Frees what setup made, so that setup may run again.
    virtual void teardown(RenderCallbacks *callbacks) = 0;
    /// Frees only what GL contexts cannot share (framebuffers, vertex arrays). The next start makes
    /// it again.
    virtual void teardownContextData(RenderCallbacks *callbacks) = 0;

    /// How many inputs there are.
    virtual int numInputs() const = 0;
    /// How many outputs there are.
    virtual int numOutputs() const = 0;
    /// The full name of an input.
    virtual QString inputName(int index) const = 0;
    /// The full name of an output.
    virtual QString outputName(int index) const = 0;
    /// Gives an input its value.
    virtual void setInput(int index, const QVariant &value) = 0;
    /// The default of an input: what it holds until setInput is called.
    virtual QVariant defaultValue(int index) const = 0;
    /// Replaces the default of an input. An input that was never set takes the new default at once.
    virtual void setDefaultValue(int index, const QVariant &value) = 0;
    /// The current value of an output.
    virtual QVariant output(int index) const = 0;
    /// Tells how many consumers read an output; a pooled texture leaves the pass with that many
    /// references, and each consumer gives back one.
    virtual void setNumOutputUsers(int index, int count) = 0;
    /// Sets the number of users of all outputs to 0.
    virtual void resetNumOutputUsers() = 0;

    /// The last error that the pass recorded; 0 when there was none.
    virtual unsigned int errorCode() const = 0;
    /// What errorCode gives from now on.
    virtual void setErrorCode(unsigned int code) = 0;
};

} // namespace Brevane::Kvo
