#include "vtkpipelineframe.h"

#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/opengldevicecontext.h"
#include "host/passfactory.h"
#include "host/pipeline.h"
#include "host/pipelinefile.h"
#include "host/screentarget.h"
#include "vtkframepass.h"

#include <QHash>
#include <QMatrix4x4>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

/// A framebuffer for a scope, to read textures by that are not the library's.
class Reader
{
public:
    Reader(unsigned int color, unsigned int depth)
    {
        GLint before = 0;
        glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &before);
        glGenFramebuffers(1, &_name);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, _name);
        glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, color, 0);
        glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_TEXTURE_2D, depth, 0);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(before));
    }
    ~Reader() { glDeleteFramebuffers(1, &_name); }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    GLuint name() const { return _name; }

private:
    GLuint _name = 0;
};

QHash<const void *, int> &users()
{
    static QHash<const void *, int> count;
    return count;
}

} // namespace

class VtkPipelineFramePrivate
{
public:
    bool load(const QString &path, const QByteArray &text);

    std::unique_ptr<Pipeline> pipeline;
    std::unique_ptr<ScreenTarget> target;
    QStringList errors;
};

bool VtkPipelineFramePrivate::load(const QString &newPath, const QByteArray &newText)
{
    errors.clear();
    auto fresh = std::make_unique<Pipeline>();
    const bool isLoaded = newPath.isEmpty()
                              ? loadPipelineText(newText, QStringLiteral("pipeline"), fresh.get(), &errors)
                              : loadPipeline(newPath, fresh.get(), &errors);
    if (isLoaded)
        pipeline = std::move(fresh);
    return isLoaded;
}

VtkPipelineFrame::VtkPipelineFrame() : d(std::make_unique<VtkPipelineFramePrivate>())
{
    registerPass<VtkFramePass>(QStringLiteral("VtkFrame")); // does nothing the second time
}

VtkPipelineFrame::~VtkPipelineFrame() = default;

bool VtkPipelineFrame::setFile(const std::string &nameOrPath)
{
    QString error;
    const QString path = findPipeline(QString::fromStdString(nameOrPath), pipelineSearchPath(), &error);
    d->errors = {error};
    return !path.isEmpty() && d->load(path, {});
}

bool VtkPipelineFrame::setText(const std::string &text)
{
    return d->load(QString(), QByteArray::fromStdString(text));
}

bool VtkPipelineFrame::setSlot(const std::string &slot, const std::string &value)
{
    const QString name = QString::fromStdString(slot);
    QString error = QStringLiteral("there is no pipeline");
    const bool isSet = d->pipeline
                       && d->pipeline->setValueText(name.section(u'.', 0, 0), name.section(u'.', 1),
                                                    QString::fromStdString(value), &error);
    d->errors = isSet ? QStringList() : QStringList{error};
    return isSet;
}

Pipeline *VtkPipelineFrame::pipeline() const
{
    return d->pipeline.get();
}

std::string VtkPipelineFrame::errors() const
{
    return d->errors.join(u'\n').toStdString();
}

void VtkPipelineFrame::run(const VtkView &view, unsigned int color, unsigned int depth)
{
    d->errors.clear();
    if (!OpenGLDeviceContext::current()) {
        d->errors << QStringLiteral("VTK's context is no OpenGL of version 3.2 or later");
        return;
    }
    const Reader source(color, depth);
    const QSize size(view.width, view.height);
    QString error;
    if (!d->target)
        d->target = std::make_unique<ScreenTarget>();
    if (d->target->size() != size && !d->target->resize(size, &error)) {
        d->errors << error;
        return;
    }
    bool isDrawn = false;
    if (d->pipeline) {
        for (const QString &name : d->pipeline->passNames())
            if (auto *frame = dynamic_cast<VtkFramePass *>(d->pipeline->pass(name)))
                frame->setSource(source.name(), view.width, view.height);
        d->pipeline->setViewport(QRect(QPoint(), size));
        d->pipeline->setCamera(QMatrix4x4(view.camera.data()), QMatrix4x4(view.projection.data()), view.nearPlane,
                               view.farPlane);
        d->pipeline->setScreen(d->target->framebuffer());
        isDrawn = d->pipeline->render(nullptr, &error);
        if (!isDrawn)
            d->errors << error;
        d->errors += d->pipeline->faults();
    } else {
        d->errors << QStringLiteral("there is no pipeline");
    }

    // Without a pipeline VTK's picture goes as it is.
    GLint onto = 0;
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &onto);
    const DefaultState state(std::initializer_list<StatePiece>{});
    glBindFramebuffer(GL_READ_FRAMEBUFFER, isDrawn ? d->target->framebuffer()->getFBO() : source.name());
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, GLuint(onto));
    glBlitFramebuffer(0, 0, view.width, view.height, view.x, view.y, view.x + view.width, view.y + view.height,
                      GL_COLOR_BUFFER_BIT, GL_NEAREST);
}

void VtkPipelineFrame::release()
{
    if (d->pipeline)
        d->pipeline->teardown();
    d->target.reset();
}

void VtkPipelineFrame::enter(const void *window)
{
    ++users()[window];
}

void VtkPipelineFrame::leave(const void *window)
{
    if (--users()[window] > 0)
        return;
    users().remove(window);
    OpenGLDeviceContext::releaseCurrent();
}

} // namespace Brevane::Kvo
