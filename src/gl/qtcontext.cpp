// Apart from the rest of the context's state: Qt's context header brings in the system's GL header,
// which must not meet epoxy's.

#include "gl/contextstate.h"
#include "gl/nativebinding.h"

#include <QtGui/qtguiglobal.h>

#if QT_CONFIG(opengl)
#include <QOffscreenSurface>
#include <QOpenGLContext>
#endif

namespace Brevane::Kvo {

#if QT_CONFIG(opengl)

void ContextState::watchQtContext()
{
    QOpenGLContext *context = QOpenGLContext::currentContext();
    if (!context)
        return;
    QObject::connect(
        context, &QOpenGLContext::aboutToBeDestroyed, context,
        [context, handle = _native.handle] {
            // Whatever is current when a context is destroyed stays current, unless it is that one.
            const NativeBinding native;
            QOpenGLContext *const before = QOpenGLContext::currentContext();
            QSurface *const surfaceBefore = before ? before->surface() : nullptr;
            QOffscreenSurface surface(context->screen());
            surface.setFormat(context->format());
            surface.create();
            if (!context->makeCurrent(&surface))
                return;
            if (NativeContext::current().handle == handle)
                releaseCurrent();
            context->doneCurrent();
            if (before && before != context)
                before->makeCurrent(surfaceBefore);
            else if (!before)
                native.restore();
        },
        Qt::DirectConnection);
}
#else
// A Qt without OpenGL has no contexts.
void ContextState::watchQtContext() {}
#endif

} // namespace Brevane::Kvo
