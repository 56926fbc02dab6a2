#include "renderpasses/visibilitysortrenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/storage.h"
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

#include <optional>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("VisibilitySortRenderPass");

enum Input { kViewport, kHeadPointers, kNodeBuffer, kNodeBufferWidth };
enum Output { kSortedHeadPointers, kSortedNodeBuffer, kSortedNodeBufferWidth };

constexpr int kNodeBufferUnit = 1;

// The links of a list stay where they are and only the fragments move along it, so that the heads need
// no write and can be read as a texture.
//
// Fragments of different depths have one order, whatever sorts them: they are put in their places as they are read.
// Where two depths are equal the order is that which the steps of quickSort give, and these are done from the start.
//
// quickSort is Hoare's, without recursion. The larger part waits on the stack and the smaller, without the pivot at
// most half as long, is sorted first: of 50 fragments at most 24, 11, 5, 2 and 1 lie on the levels above the first,
// which makes 6. Both ends of a part lie in one word, and a part is stored whole: with an array for each end, one of the
// compilers we met lost a store and never left the loop.
//
// The pointers are read again on the way back, which costs less than to keep them: what a lane keeps in private
// memory a GPU has to find room for 64 times.
const QString kFragmentShader = QStringLiteral(R"(#version 150
#extension GL_ARB_shader_atomic_counters : enable
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
#include "ShaderBitEncoding.glslh"
#include "VisibilityNodes.glslh"

#define MAX_DEPTH 50u
#define MAX_LEVELS 6

#define NULL_NODE 0u
#define NEXT_NODE_PTR(r) ((r) & 0xFFFFu)
#define PREV_NODE_PTR(r) ((r) >> 16)
#define NEXT_NODE(node) NEXT_NODE_PTR((node).r)
#define PREV_NODE(node) PREV_NODE_PTR((node).r)
#define DEPTH(node) uintBitsToFloat((node).b)

// Pixels without a list are told by the stencil, before this program runs.
layout(early_fragment_tests) in;

uniform usampler2D u_SamplerHeadPointer;
layout(rgba32ui) uniform uimage2D u_NodeBufferImage;
uniform int u_NodeBufferImageWidth;

in vec2 vo_TexCoord;

// What moves along a list: primitive, bits of the depth, draw, as they lie in a node behind its pointer.
uvec3 fragments[MAX_DEPTH];

#define COMPARE(x,y) (x>y)

float depthOf(uvec3 fragment)
{
  return uintBitsToFloat(fragment.y);
}

ivec2 texelOf(uint pointer)
{
  return kvo_nodeTexel(pointer, u_NodeBufferImageWidth);
}

#define FIRST_OF(part) int((part) & 0xFFu)
#define END_OF(part) int((part) >> 8)
#define PART(first,end) (uint(first) | uint(end) << 8)

void quickSort(int count)
{
  uint part[MAX_LEVELS];
  int i = 0;
  part[0] = PART(0, count);
  while(i >= 0)
  {
    int first = FIRST_OF(part[i]);
    int end = END_OF(part[i]);
    int L = first;
    int R = end - 1;
    if(L < R)
    {
      uvec3 piv = fragments[L];
      while(L < R)
      {
        while(COMPARE(depthOf(fragments[R]), depthOf(piv)) && L < R)
          --R;
        if(L < R)
        {
          fragments[L] = fragments[R];
          ++L;
        }
        while(COMPARE(depthOf(piv), depthOf(fragments[L])) && L < R)
          ++L;
        if(L < R)
        {
          fragments[R] = fragments[L];
          --R;
        }
      }
      fragments[L] = piv;
      bool upperIsLarger = end - (L + 1) > L - first;
      part[i] = upperIsLarger ? PART(L + 1, end) : PART(first, L);
      part[i + 1] = upperIsLarger ? PART(first, L) : PART(L + 1, end);
      ++i;
    }
    else
    {
      --i;
    }
  }
}

void gather(uint pointer)
{
  for(int count = 0; pointer != NULL_NODE && count < int(MAX_DEPTH); ++count)
  {
    uvec4 node = imageLoad(u_NodeBufferImage, texelOf(pointer));
    pointer = node.r;
    fragments[count] = node.gba;
  }
}

// Takes each fragment in at its place. Whether their depths are all different, which makes the order the same for
// any way to sort.
bool gatherSorted(uint pointer, out int count)
{
  bool isStrict = true;
  count = 0;
  while(pointer != NULL_NODE && count < int(MAX_DEPTH))
  {
    uvec4 node = imageLoad(u_NodeBufferImage, texelOf(pointer));
    pointer = node.r;
    float depth = depthOf(node.gba);
    int place = count;
    bool isBehind = true;
    while(place > 0)
    {
      uvec3 before = fragments[place - 1];
      if(!COMPARE(depthOf(before), depth))
      {
        isBehind = depthOf(before) < depth;
        break;
      }
      fragments[place] = before;
      --place;
    }
    isStrict = isStrict && isBehind;
    fragments[place] = node.gba;
    ++count;
  }
  return isStrict;
}

void sortLong(uint head)
{
  int count;
  for(bool hasTies = !gatherSorted(head, count); hasTies; hasTies = false)
  {
    gather(head);
    quickSort(count);
  }
  uint pointer = head;
  for(int i = 0; i < count; ++i)
  {
    uint next = imageLoad(u_NodeBufferImage, texelOf(pointer)).r;
    imageStore(u_NodeBufferImage, texelOf(pointer), uvec4(next, fragments[i]));
    pointer = next;
  }
}

void main()
{
  uint first = texelFetch(u_SamplerHeadPointer, ivec2(gl_FragCoord.xy), 0).r;
  uvec4 node = imageLoad(u_NodeBufferImage, texelOf(first));
  uint second = node.r;
  uvec3 a = node.gba;
  for(bool isMore = second != NULL_NODE; isMore; isMore = false)
  {
    node = imageLoad(u_NodeBufferImage, texelOf(second));
    uvec3 b = node.gba;
    uint third = node.r;
    bool isPair = third == NULL_NODE;
    // What the steps of quickSort do to two is known: they change places unless the second is farther.
    // Loops of at most one round: rasterisers on the CPU pay for a condition whether or not a pixel meets it.
    for(bool changes = isPair && !COMPARE(depthOf(b), depthOf(a)); changes; changes = false)
    {
      imageStore(u_NodeBufferImage, texelOf(first), uvec4(second, b));
      imageStore(u_NodeBufferImage, texelOf(second), uvec4(third, a));
    }
    for(bool isLong = !isPair; isLong; isLong = false)
      sortLong(first);
  }
}
)");

const QString kMarkingShader = QStringLiteral(R"(#version 150

uniform usampler2D u_SamplerHeadPointer;

void main()
{
  if(texelFetch(u_SamplerHeadPointer, ivec2(gl_FragCoord.xy), 0).r == 0u)
    discard;
}
)");

const ProgramRecipe &markingProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("VisibilitySortRenderPass mark"),
                                      {},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kMarkingShader}}};
    return recipe;
}

const ProgramRecipe &sortProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("VisibilitySortRenderPass"),
                                      {},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the lists' image", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_HeadPointers",
     .meaning = "head pointers; none: nothing is sorted",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_NodeBuffer",
     .meaning = "nodes, sorted in place; none: nothing is sorted",
     .kind = SlotKind::Texture},
    {.name = "Kvo_int_NodeBufferWidth",
     .meaning = "texels in a row of the node buffer; 0: no sorting",
     .kind = SlotKind::Count,
     .unit = "texels",
     .range = {0, kWidestNodeBuffer, 1}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_HeadPointers",
     .meaning = "head pointers, as they came",
     .kind = SlotKind::Texture,
     .format = "the input"},
    {.name = "Kvo_KvoTexture*_NodeBuffer",
     .meaning = "nodes in order",
     .kind = SlotKind::Texture,
     .format = "the input"},
    {.name = "Kvo_int_NodeBufferWidth",
     .meaning = "texels in a row of the node buffer, as it came",
     .kind = SlotKind::Count},
};

constexpr PassInfo kInfo = {"VisibilitySortRenderPass",
                            "orders fragment lists by depth: the second step of exact transparency", Reach::texels(0),
                            kInputInfo, kOutputInfo};

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
    describe(kInfo);
}

VisibilitySortRenderPass::VisibilitySortRenderPass(const VisibilitySortRenderPass &other) = default;
VisibilitySortRenderPass &VisibilitySortRenderPass::operator=(const VisibilitySortRenderPass &other) = default;

VisibilitySortRenderPass::~VisibilitySortRenderPass() = default;

void VisibilitySortRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
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
    Texture *headPointers = objectTexture(*this, kHeadPointers);
    Texture *nodeBuffer = objectTexture(*this, kNodeBuffer);
    const int nodeBufferWidth = nodeBufferWidthOf(*this, kNodeBufferWidth);
    if (!headPointers || !nodeBuffer || nodeBufferWidth == 0)
        return;
    if (extent.isEmpty()) {
        glEnable(GL_DEPTH_TEST); // as it is left in every frame that has lists
        return;
    }

    if (buildOnce(_shaderProgram, sortProgram()))
        _isOwnProgram = true;
    if (_isOwnProgram)
        buildOnce(_markingProgram, markingProgram());
    // Nothing is written to the colour target: it gives the framebuffer its size.
    const bool isNew = needsTargets(_fbo, "VisibilitySortRenderPass", extent, _width, _height);
    {
        AutoBinder fbo(_fbo);
        _fbo->attach(tempTexture(TextureFormat::Frame, extent), GL_COLOR_ATTACHMENT0, 0);
        if (!_isOwnProgram)
            delete _fbo->detach(GL_DEPTH_STENCIL_ATTACHMENT);
        else if (isNew || !_fbo->hasAttachment(GL_DEPTH_STENCIL_ATTACHMENT))
            attachListStencil(_fbo, extent);
        _fbo->setDrawBuffers();
    }
    fetchOnce(_screenQuad, Quad::Screen, _shaderProgram);
    const NeutralState neutral(kState);
    glEnable(GL_DEPTH_TEST);
    AutoBinder fbo(_fbo);
    if (_screenQuad)
        sort(*headPointers, *nodeBuffer, nodeBufferWidth);
    release(_fbo->detach(GL_COLOR_ATTACHMENT0));
}

void VisibilitySortRenderPass::sort(Texture &headPointers, Texture &nodeBuffer, int nodeBufferWidth)
{
    // A program of a host's runs for all pixels, and may store anywhere in the buffer.
    const OwnUse ownUse(_isOwnProgram ? &nodeBuffer : nullptr);
    AutoBinder boundHeadPointers(&headPointers);
    {
        const ImageBinding nodes(kNodeBufferUnit, nodeBuffer.textureID(), GL_READ_WRITE, GL_RGBA32UI);
        AutoBinder quad(_screenQuad);
        std::optional<AutoDisabler> depthTest;
        std::optional<MarkedPixels> listed;
        if (_isOwnProgram) {
            AutoBinder marking(_markingProgram);
            if (!marking.isBound())
                return;
            _markingProgram->setUniform(QStringLiteral("u_SamplerHeadPointer"), headPointers.unit());
            depthTest.emplace(GL_DEPTH_TEST);
            listed.emplace(*_screenQuad);
        }
        AutoBinder program(_shaderProgram);
        if (!program.isBound())
            return;
        if (_shaderProgram->hasUniform(QStringLiteral("u_NodeBufferImageWidth")))
            _shaderProgram->setUniform(QStringLiteral("u_NodeBufferImageWidth"), nodeBufferWidth);
        if (_shaderProgram->hasUniform(QStringLiteral("u_SamplerHeadPointer")))
            _shaderProgram->setUniform(QStringLiteral("u_SamplerHeadPointer"), headPointers.unit());
        if (_shaderProgram->hasUniform(QStringLiteral("u_NodeBufferImage")))
            _shaderProgram->setUniform(QStringLiteral("u_NodeBufferImage"), kNodeBufferUnit);
        _screenQuad->draw();
    }
    glMemoryBarrier(kListBarrier);
}

void VisibilitySortRenderPass::setShaderProgram(ShaderProgram *program)
{
    _shaderProgram.adopt(program);
    _isOwnProgram = false;
}

} // namespace Brevane::Kvo
