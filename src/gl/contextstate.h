#pragma once

#include "gl/bindings.h"
#include "gl/contextlookup.h"
#include "gl/glnames.h"
#include "gl/opengldevicecontext.h"
#include "gl/sharegroup.h"

#include <QByteArray>
#include <QSet>
#include <QSharedPointer>

#include <optional>
#include <vector>

namespace Brevane::Kvo {

class OpenGLDeviceContext;
class ShaderProgram;

/// State of one GL context, found through the context that is current.
class ContextState
{
public:
    ~ContextState();

    /// Null without a context, or with one that is too old.
    static ContextState *current();
    /// Null, too, for a context that the library has not used yet, or not since its release.
    static ContextState *currentIfKnown();
    static QSharedPointer<ContextState> currentShared();
    /// Of all contexts that the library knows.
    static std::vector<ContextState *> all();
    /// By its number; null when it is gone.
    static ContextState *find(quint64 id);
    /// The same, but makes sure that the handle was not reused for another context meanwhile.
    static QSharedPointer<ContextState> currentVerified();
    static void releaseCurrent();

    /// The lowest free texture unit, or -1.
    int takeUnit();
    void giveBackUnit(int unit);
    bool hasFreeUnit() const;
    int unitCount() const { return _unitCount; }

    bool hasExtension(const char *name) const;
    const GLLimits &limits();
    void labelObject(unsigned int identifier, unsigned int name, const QString &label) const;

    const quint64 id;
    QSharedPointer<ShareGroup> group;
    NameStore names;
    QSharedPointer<OpenGLDeviceContext> device;
    Bindings bindings;
    ShaderProgram *boundProgram = nullptr;
    int version = 0;
    bool hasSamplerObjects = false;
    quint64 stateValues = 0; ///< The values of host state that there are; 0: not asked yet.

private:
    explicit ContextState(NativeContext native);
    static ContextState *lookUp(NativeContext native);
    static ContextState *make(NativeContext native);
    void deletePending();
    void release(bool contextIsAlive);
    void watchQtContext();

    NativeContext _native;
    QSet<QByteArray> _extensions;
    quint64 _usedUnits = 0;
    int _unitCount = 0;
    std::optional<GLLimits> _limits;
};

} // namespace Brevane::Kvo
