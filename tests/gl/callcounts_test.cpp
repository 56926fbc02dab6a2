// How many GL calls a steady frame of each pass makes, over those that its picture needs.

#include "glreplay.h"
#include "support/gltest.h"
#include "support/passcases.h"
#include "support/passes.h"
#include "support/passvalues.h"

#include <gl/bindings.h>
#include <gl/hoststate.h>
#include <host/pipeline.h>
#include <renderpasses/primitivebuilderrenderpass.h>
#include <renderpasses/shaderrenderpass.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

namespace Brevane::Kvo {

using namespace Test;

namespace {

// For whoever wants to know what to save: KVO_CALLS=1.
void print(const GlCalls &calls, const Bench::GLReplay &bare)
{
    if (!std::getenv("KVO_CALLS"))
        return;
    std::map<std::string, int> byName;
    for (const GlCall &call : calls.all())
        ++byName[call.name];
    std::printf("%3d calls, %d needed:", int(calls.all().size()), bare.callCount());
    for (const auto &[name, count] : byName)
        std::printf(" %s %d", name.c_str(), count);
    std::printf("\n");
    if (qstrcmp(std::getenv("KVO_CALLS"), "2") == 0)
        std::printf("%s\n", qPrintable(calls.toString()));
}

class CallCounts : public GLTest, public ::testing::WithParamInterface<PassCase>
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        values = std::make_unique<Values>();
        // As images of the pool are.
        values->color->bind();
        values->color->setFilter(GL_LINEAR);
        values->color->unbind();
        pass = GetParam().make();
        std::vector<InputRow> inputs = rowOf(GetParam().className).inputs;
        if (auto *shader = dynamic_cast<ShaderRenderPass *>(pass.get())) {
            inputs.push_back({"Kvo_KvoTexture*_Input", QMetaType::fromType<Texture *>()});
            shader->addInput(text("Kvo_KvoTexture*_Input"));
            shader->addOutput(text("Kvo_KvoTexture*_Frame"));
            shader->setFragmentShaderSource(text("#version 150\nuniform sampler2D u_Input;\nin vec2 vo_TexCoord;\n"
                                                 "out vec4 o_Frame;\nvoid main() { o_Frame = texture(u_Input, "
                                                 "vo_TexCoord) * vo_TexCoord.x; }\n"));
        }
        if (auto *builder = dynamic_cast<PrimitiveBuilderRenderPass *>(pass.get()))
            builder->addCube(1, {});
        for (int i = 0; i < pass->numInputs(); ++i)
            pass->setInput(i, values->right(inputs[size_t(i)]));
        pass->setup(nullptr);
        resetGLState();
        glViewport(0, 0, kWidth, kHeight);
    }

    void TearDown() override
    {
        pass->teardown(nullptr);
        pass.reset();
        values.reset();
        GLTest::TearDown();
    }

    /// What a program of one's own would call for the frame, from nothing bound.
    std::unique_ptr<Bench::GLReplay> needed()
    {
        for (int i = 0; i < 3; ++i)
            runFrame(*pass);
        const GlCalls calls;
        runFrame(*pass);
        return std::make_unique<Bench::GLReplay>(calls);
    }

    // As in the middle of a pipeline's frame: values at their defaults, and what is bound known.
    void expectHardlyMoreThanNeeded()
    {
        const DefaultState state;
        const DefaultState::Known known(true);
        const std::unique_ptr<Bench::GLReplay> bare = needed();
        const BindingScope bindings;
        for (int i = 0; i < 3; ++i)
            runFrame(*pass);
        const GlCalls calls;
        runFrame(*pass);
        const GlCalls::Pause pause;
        print(calls, *bare);
        // A copy asks three things first that GL wants of both sides: any host texture may be one side, and any
        // framebuffer the other.
        const int questions = qstrcmp(GetParam().className, "TextureToScreenRenderPass") == 0 ? 3 : 0;
        EXPECT_LE(double(calls.all().size()), 1.3 * bare->callCount() + questions) << qPrintable(calls.toString());
    }

    std::unique_ptr<Values> values;
    std::unique_ptr<RenderPassHelper> pass;
};

std::string caseName(const ::testing::TestParamInfo<PassCase> &info)
{
    return info.param.className;
}

INSTANTIATE_TEST_SUITE_P(Passes, CallCounts, ::testing::ValuesIn(passCases()), caseName);

} // namespace

TEST_P(CallCounts, AreHardlyMoreThanThePictureNeeds)
{
    expectHardlyMoreThanNeeded();
}

// Layers take ways that solid surfaces do not.
TEST_P(CallCounts, AreHardlyMoreThanAPictureOfGlassNeeds)
{
    for (int i = 0; i < pass->numInputs(); ++i)
        if (pass->inputValue(i).userType() == qMetaTypeId<GPUModel *>())
            pass->setInput(i, QVariant::fromValue(&values->glass()));
    expectHardlyMoreThanNeeded();
}

} // namespace Brevane::Kvo
