#pragma once

#include <array>
#include <memory>
#include <string>

namespace Brevane::Kvo {

class Pipeline;
class VtkPipelineFramePrivate;

/// What a pipeline gets to know of VTK's frame.
struct VtkView
{
    std::array<float, 16> camera; ///< Row by row.
    std::array<float, 16> projection;
    float nearPlane;
    float farPlane;
    int width;
    int height;
    int x; ///< Where the renderer's part of the window begins.
    int y;
};

/// The side of a pass that knows nothing of VTK: both have a GL header of their own, which must not meet.
class VtkPipelineFrame
{
public:
    VtkPipelineFrame();
    ~VtkPipelineFrame();

    bool setFile(const std::string &nameOrPath);
    bool setText(const std::string &text);
    bool setSlot(const std::string &slot, const std::string &value);
    Pipeline *pipeline() const;
    std::string errors() const;
    /// Runs the pipeline over two textures of that size, onto the framebuffer that is bound.
    void run(const VtkView &view, unsigned int color, unsigned int depth);
    /// Frees what GL holds; the next frame makes it again.
    void release();

    /// How many passes use a window; with the last one the library lets go of its context.
    static void enter(const void *window);
    static void leave(const void *window);

private:
    std::unique_ptr<VtkPipelineFramePrivate> d;
};

} // namespace Brevane::Kvo
