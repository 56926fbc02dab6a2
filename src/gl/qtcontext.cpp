// Apart from the rest of the context's state: Qt's context header brings in the system's GL header,
// which must not meet epoxy's.

#include "gl/contextstate.h"

#include <QOffscreenSurface>
#include <QOpenGLContext>

namespace Brevane::Kvo {

void ContextState::watchQtContext()
{
    QOpenGLContext *context = QOpenGLContext::currentContext();
    if (!context)
        return;
    QObject::connect(
        context, &QOpenGLContext::aboutToBeDestroyed, context,
        [context, handle = _native.handle] {
            QOffscreenSurface surface(context->screen());
            surface.setFormat(context->format());
            surface.create();
            if (!context->makeCurrent(&surface))
                return;
            if (NativeContext::current().handle == handle)
                releaseCurrent();
            context->doneCurrent();
        },
        Qt::DirectConnection);
}

} // namespace Brevane::Kvo
