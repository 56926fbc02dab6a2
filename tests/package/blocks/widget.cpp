#include "gl/framebufferobject.h"
#include "host/pipeline.h"

#include <QSize>

#include <memory>

using namespace Brevane::Kvo;

// What is used of QOpenGLWidget, whose headers not every installation has.
struct Widget
{
    virtual ~Widget() = default;
    virtual void paintGL() = 0;
    unsigned int defaultFramebufferObject() const { return 1; }
    QSize size() const { return QSize(1280, 720); }
    int devicePixelRatio() const { return 1; }
};

struct View : Widget
{
    void paintGL() override;

    Pipeline _pipeline;
    std::unique_ptr<FramebufferObject> _screen;
};

// BLOCK
