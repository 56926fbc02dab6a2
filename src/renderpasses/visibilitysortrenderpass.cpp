#include "renderpasses/visibilitysortrenderpass.h"

#include "gl/contextscope.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/fragmentlists.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("VisibilitySortRenderPass");

enum Input { kViewport, kHeadPointers, kNodeBuffer, kNodeBufferWidth };
enum Output { kSortedHeadPointers, kSortedNodeBuffer, kSortedNodeBufferWidth };

constexpr int kNodeBufferUnit = 1;

// The links of a list stay where they are and only the fragments move along it, so that the heads need
// no write and can be read as a texture. COPY therefore leaves out m_pointer.
//
// quickSort is Hoare's, without recursion: the larger part waits on the stack, so MAX_LEVELS levels do
// for 2 to the power of MAX_LEVELS fragments. Both ends of a part lie in one ivec2, and a part is
// stored whole: with an array for each end, one of the compilers we met lost a store and never left the
// loop.
const QString kFragmentShader = QStringLiteral(R"(#version 150
#extension GL_ARB_shader_atomic_counters : enable
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
#include "ShaderBitEncoding.glslh"

#define MAX_DEPTH 50u
#define MAX_LEVELS 16

#define NULL_NODE 0u
#define NEXT_NODE_PTR(r) ((r) & 0xFFFFu)
#define PREV_NODE_PTR(r) ((r) >> 16)
#define NEXT_NODE(node) NEXT_NODE_PTR((node).r)
#define PREV_NODE(node) PREV_NODE_PTR((node).r)
#define DEPTH(node) uintBitsToFloat((node).b)

uniform usampler2D u_SamplerHeadPointer;
layout(rgba32ui) uniform uimage2D u_NodeBufferImage;
uniform int u_NodeBufferImageWidth;

in vec2 vo_TexCoord;

struct Fragment
{
  uint m_primitiveID;
  uint m_drawID;
  float m_depth;
  uint m_pointer;
};

Fragment fragments[MAX_DEPTH];

#define COMPARE(x,y) (x>y)
#define COPY(x,y) y.m_depth = x.m_depth; y.m_primitiveID = x.m_primitiveID; y.m_drawID = x.m_drawID;

ivec2 texelOf(uint pointer)
{
  int node = int(pointer - 1u);
  return ivec2(node % u_NodeBufferImageWidth, node / u_NodeBufferImageWidth);
}

void insertionSort(int l, int r)
{
  for(int i = l + 1; i <= r; ++i)
  {
    Fragment moved = fragments[i];
    int j = i;
    while(j > l && COMPARE(fragments[j - 1].m_depth, moved.m_depth))
    {
      COPY(fragments[j - 1], fragments[j])
      --j;
    }
    COPY(moved, fragments[j])
  }
}

void quickSort(int l, int r)
{
  ivec2 part[MAX_LEVELS]; // x: first element, y: behind the last
  Fragment piv;
  int i = 0;
  part[0] = ivec2(0, r - l + 1);
  while(i >= 0)
  {
    int L = part[i].x;
    int R = part[i].y - 1;
    if(L < R)
    {
      piv = fragments[l + L];
      while(L < R)
      {
        while(COMPARE(fragments[l + R].m_depth, piv.m_depth) && L < R)
          --R;
        if(L < R)
        {
          COPY(fragments[l + R], fragments[l + L])
          ++L;
        }
        while(COMPARE(piv.m_depth, fragments[l + L].m_depth) && L < R)
          ++L;
        if(L < R)
        {
          COPY(fragments[l + L], fragments[l + R])
          --R;
        }
      }
      COPY(piv, fragments[l + L])
      ivec2 lower = ivec2(part[i].x, L);
      ivec2 upper = ivec2(L + 1, part[i].y);
      bool upperIsLarger = upper.y - upper.x > lower.y - lower.x;
      part[i] = upperIsLarger ? upper : lower;
      part[i + 1] = upperIsLarger ? lower : upper;
      ++i;
    }
    else
    {
      --i;
    }
  }
}

void process(uint headPointer)
{
  uint count = 0u;
  uint pointer = headPointer;
  while(pointer != NULL_NODE)
  {
    uvec4 node = imageLoad(u_NodeBufferImage, texelOf(pointer));
    pointer = node.r;
    fragments[count].m_primitiveID = node.g;
    fragments[count].m_drawID = node.a;
    fragments[count].m_depth = uintBitsToFloat(node.b);
    fragments[count].m_pointer = pointer;
    ++count;
    if(count == MAX_DEPTH)
      break;
  }

  // Most lists have one or two fragments. What the steps of quickSort do to two is known: they change
  // places unless the second is farther.
  bool isShort = count < 3u;
  if(count == 2u && !COMPARE(fragments[1].m_depth, fragments[0].m_depth))
  {
    Fragment first = fragments[0];
    COPY(fragments[1], fragments[0])
    COPY(first, fragments[1])
  }
  quickSort(0, isShort ? -1 : int(count) - 1);

  pointer = headPointer;
  for(uint i = 0u; i < count; ++i)
  {
    uvec4 node = uvec4(fragments[i].m_pointer,fragments[i].m_primitiveID,floatBitsToUint(fragments[i].m_depth),fragments[i].m_drawID);
    imageStore(u_NodeBufferImage, texelOf(pointer), node);
    pointer = fragments[i].m_pointer;
  }
}

void main()
{
  uint headPointer = texelFetch(u_SamplerHeadPointer, ivec2(gl_FragCoord.xy), 0).r;
  if(headPointer == NULL_NODE)
  {
    discard;
    return;
  }
  process(headPointer);
}
)");

const ProgramRecipe &sortProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("VisibilitySortRenderPass"),
                                      {},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

} // namespace

VisibilitySortRenderPass::VisibilitySortRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_HeadPointers"), QVariant(), kHeadPointers);
    addInput(QStringLiteral("Kvo_KvoTexture*_NodeBuffer"), QVariant(), kNodeBuffer);
    addInput(QStringLiteral("Kvo_int_NodeBufferWidth"), QVariant(), kNodeBufferWidth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_HeadPointers"), kSortedHeadPointers);
    addOutput(QStringLiteral("Kvo_KvoTexture*_NodeBuffer"), kSortedNodeBuffer);
    addOutput(QStringLiteral("Kvo_int_NodeBufferWidth"), kSortedNodeBufferWidth);
}

VisibilitySortRenderPass::VisibilitySortRenderPass(const VisibilitySortRenderPass &other) = default;
VisibilitySortRenderPass &VisibilitySortRenderPass::operator=(const VisibilitySortRenderPass &other) = default;

VisibilitySortRenderPass::~VisibilitySortRenderPass() = default;

void VisibilitySortRenderPass::start(RenderCallbacks *)
{
    const ContextScope scope;
    // The mode stays what it was found to be, so it is not asked of no context.
    if (!_modeChosen && scope) {
        _modeChosen = true;
        _gl4Mode = canBuildFragmentLists();
    }
    _outputs[kSortedHeadPointers].value = _inputs[kHeadPointers].value;
    _outputs[kSortedNodeBuffer].value = _inputs[kNodeBuffer].value;
    _outputs[kSortedNodeBufferWidth].value = _inputs[kNodeBufferWidth].value;
    if (!_gl4Mode || !scope)
        return;

    const Extent extent = extentOf(*this, kViewport);
    Texture *headPointers = objectTexture(_inputs[kHeadPointers].value);
    Texture *nodeBuffer = objectTexture(_inputs[kNodeBuffer].value);
    const int nodeBufferWidth = nodeBufferWidthOf(*this, kNodeBufferWidth);
    if (!headPointers || !nodeBuffer || nodeBufferWidth == 0 || extent.isEmpty())
        return;

    // Nothing is written to this target: it gives the framebuffer its size.
    made(_fbo, "VisibilitySortRenderPass");
    {
        AutoBinder fbo(_fbo);
        _fbo->attach(tempTexture(TextureFormat::Frame, extent), GL_COLOR_ATTACHMENT0, 0);
        _fbo->setDrawBuffers();
    }
    buildOnce(_shaderProgram, sortProgram());
    fetchOnce(_screenQuad, Quad::Screen, _shaderProgram);
    const NeutralState neutral(kState);
    glEnable(GL_DEPTH_TEST);

    AutoBinder program(_shaderProgram);
    AutoBinder fbo(_fbo);
    if (program.isBound() && _screenQuad) {
        AutoBinder boundHeadPointers(headPointers);
        {
            const ImageBinding nodes(kNodeBufferUnit, nodeBuffer->textureID(), GL_READ_WRITE, GL_RGBA32UI);
            if (_shaderProgram->hasUniform(QStringLiteral("u_NodeBufferImageWidth")))
                _shaderProgram->setUniform(QStringLiteral("u_NodeBufferImageWidth"), nodeBufferWidth);
            if (_shaderProgram->hasUniform(QStringLiteral("u_SamplerHeadPointer")))
                _shaderProgram->setUniform(QStringLiteral("u_SamplerHeadPointer"), headPointers->unit());
            if (_shaderProgram->hasUniform(QStringLiteral("u_NodeBufferImage")))
                _shaderProgram->setUniform(QStringLiteral("u_NodeBufferImage"), kNodeBufferUnit);
            AutoBinder quad(_screenQuad);
            _screenQuad->draw();
        }
        glMemoryBarrier(kListBarrier);
    }
    release(_fbo->detach(GL_COLOR_ATTACHMENT0));
}

void VisibilitySortRenderPass::setShaderProgram(ShaderProgram *program)
{
    _shaderProgram.adopt(program);
}

} // namespace Brevane::Kvo
