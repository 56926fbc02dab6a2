// Between its own calls the library knows what is bound and does not ask. Here a host changes what is bound wherever
// code of its own runs: the picture stays, and nothing comes back that the host did not leave there.

#include "support/draw.h"
#include "support/gltest.h"
#include "support/hoststates.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <core/hostcode.h>
#include <core/renderpasshelper.h>
#include <gl/bindings.h>
#include <gl/bufferobject.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/pixelstore.h>
#include <gl/texturemanager.h>
#include <host/pipeline.h>
#include <model/gpumodel.h>
#include <renderpasses/blendrenderpass.h>
#include <renderpasses/gaussianblurrenderpass.h>
#include <renderpasses/shaderrenderpass.h>
#include <renderpasses/smaarenderpass.h>

#include <epoxy/gl.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace Brevane::Kvo {

using namespace Test;

namespace {

constexpr int kWidth = 16;
constexpr int kHeight = 12;
const QRect kViewport(0, 0, kWidth, kHeight);

QString s(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

GLint integer(GLenum query)
{
    GLint value = 0;
    glGetIntegerv(query, &value);
    return value;
}

/// The states that bind something or move pixels, but for what would hold back or spoil all drawing of the host's
/// own: queries, feedback.
std::vector<HostState> bindingStates()
{
    std::vector<HostState> states;
    for (const HostState &state : hostStates()) {
        const bool binds = state.piece >= StatePiece::PixelUnpacking && state.piece < StatePiece::Query;
        if (binds)
            states.push_back(state);
    }
    return states;
}

/// What a host does wherever it is asked, and what it holds on to.
class Host
{
public:
    void act()
    {
        const GlCalls::Pause pause;
        ++count;
        if (action)
            action();
    }
    /// Sets a state, and each time with other objects.
    void disturb(const HostState &state)
    {
        action = [this, &state] {
            sets.push_back(state.set());
            left = sets.back()->now();
        };
    }
    void rest()
    {
        action = nullptr;
        // the last first: each takes off what it finds of its own
        while (!sets.empty())
            sets.pop_back();
        count = 0;
    }

    std::function<void()> action;
    std::vector<std::unique_ptr<HostState::Set>> sets;
    std::vector<double> left;
    int count = 0;
};

/// A pass of the host's own.
class HostPass : public RenderPassHelper
{
public:
    enum class When { Begin, Start, End };

    HostPass(Host &host, When when) : _host(host), _when(when) { addOutput(s("Kvo_float_Nothing")); }
    void beginFrame(RenderCallbacks *) override { actIf(When::Begin); }
    void start(RenderCallbacks *) override { actIf(When::Start); }
    void endFrame(RenderCallbacks *) override { actIf(When::End); }

private:
    void actIf(When when)
    {
        if (_when == when)
            _host.act();
    }
    Host &_host;
    When _when;
};

/// Where code of the host's runs in a frame.
struct Place
{
    const char *name;
    void (*prepare)(Pipeline &, Host &); // before the passes are added
    void (*between)(Pipeline &, Host &, int number) = nullptr; // in front of each pass
};

void PrintTo(const Place &place, std::ostream *stream)
{
    *stream << place.name;
}

Host *messageHost = nullptr;

void tellHost(QtMsgType, const QMessageLogContext &, const QString &)
{
    if (messageHost)
        messageHost->act();
}

void addHostPass(Pipeline &pipeline, Host &host, int number, HostPass::When when)
{
    ASSERT_TRUE(pipeline.add(s("Host%1").arg(number), std::make_unique<HostPass>(host, when)));
}

std::vector<Place> places()
{
    const auto nothing = [](Pipeline &, Host &) {};
    return {
        {"PassesBetween", nothing,
         [](Pipeline &pipeline, Host &host, int number) {
             addHostPass(pipeline, host, number, HostPass::When::Start);
         }},
        {"BeginFrame", [](Pipeline &pipeline, Host &host) { addHostPass(pipeline, host, 0, HostPass::When::Begin); }},
        {"EndFrame", [](Pipeline &pipeline, Host &host) { addHostPass(pipeline, host, 0, HostPass::When::End); }},
        {"Observer",
         [](Pipeline &pipeline, Host &host) {
             pipeline.setPassObserver([&host](const QString &, RenderPass *) { host.act(); });
         }},
        {"FailureHandler",
         [](Pipeline &pipeline, Host &host) {
             ShaderProgram::setFailureHandler([&host](const ShaderFailure &) { host.act(); });
             auto broken = std::make_unique<ShaderRenderPass>();
             broken->addOutput(s("Kvo_KvoTexture*_Frame"));
             broken->setFragmentShaderSource(s("#version 150\nnot GLSL\n"));
             ASSERT_TRUE(pipeline.add(s("Broken"), std::move(broken)));
         }},
        {"MessageHandler",
         [](Pipeline &pipeline, Host &host) {
             messageHost = &host;
             // Slot 3 is a depth without any: said once, by the pass, in the middle of its frame.
             ASSERT_TRUE(pipeline.add(s("Loud"), s("SkyboxRenderPass")));
         }},
    };
}

struct Picture
{
    std::vector<float> numbers;
    bool operator==(const Picture &) const = default;
};

void PrintTo(const Picture &picture, std::ostream *stream)
{
    double sum = 0;
    for (float number : picture.numbers)
        sum += double(number);
    *stream << picture.numbers.size() << " numbers, sum " << sum;
}

void add(Picture &picture, const QVariant &output)
{
    const Texture *texture = textureFromVariant(output);
    ASSERT_NE(texture, nullptr);
    for (const auto &pixel : readTexture<float>(texture).pixels)
        picture.numbers.insert(picture.numbers.end(), pixel.begin(), pixel.end());
}

class BindingsBehindTheLibrary : public GLTest, public ::testing::WithParamInterface<Place>
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        cleanContext();
        model = std::make_unique<GPUModel>();
        ASSERT_TRUE(model->upload(quadGridScene(4, 3)));
        noDepth = makeSolidTexture(2, 2, {0, 0, 0, 0});
        hasLists = hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store")
                   && hasGLExtension("ARB_shading_language_420pack");
    }
    void TearDown() override
    {
        ShaderProgram::setFailureHandler({});
        messageHost = nullptr;
        pipeline.reset();
        model.reset();
        noDepth.reset();
        cleanContext();
        GLTest::TearDown();
    }

    void addPass(const char *name, const char *className)
    {
        if (const auto between = GetParam().between)
            between(*pipeline, host, number++);
        ASSERT_TRUE(pipeline->add(s(name), s(className)));
        ASSERT_TRUE(pipeline->setValue(s(name), s("Viewport"), kViewport));
    }
    void set(const char *pass, const char *slot, const QVariant &value)
    {
        ASSERT_TRUE(pipeline->setValue(s(pass), s(slot), value)) << pass << "." << slot;
    }
    void look(const char *pass)
    {
        set(pass, "ProjectionMatrix", perspective(4.0f / 3.0f));
        set(pass, "CameraMatrix", cameraAt(4));
        set(pass, "Geometry", QVariant::fromValue(model.get()));
    }
    void link(const char *from, const char *to)
    {
        QString error;
        ASSERT_TRUE(pipeline->connect(s(from), s(to), &error)) << qPrintable(error);
    }

    void makePipeline()
    {
        number = 0;
        pipeline = std::make_unique<Pipeline>();
        GetParam().prepare(*pipeline, host);
        addPass("Top", "GradientRenderPass");
        addPass("Model", "ModelRenderPass");
        look("Model");
        addPass("Blur", "GaussianBlurRenderPass");
        set("Blur", "BlurRadius", 2.5f);
        link("Top.Frame", "Blur.Input");
        addPass("Mix", "BlendRenderPass");
        link("Blur.Output", "Mix.FrameA");
        link("Model.Diffuse", "Mix.FrameB");
        if (hasLists) {
            addPass("Record", "VisibilityBufferRenderPass");
            look("Record");
            addPass("Sort", "VisibilitySortRenderPass");
            addPass("Shade", "VisibilityDeferredRenderPass");
            look("Shade");
            for (const char *slot : {"HeadPointers", "NodeBuffer", "NodeBufferWidth"}) {
                link(qPrintable(s("Record.%1").arg(s(slot))), qPrintable(s("Sort.%1").arg(s(slot))));
                link(qPrintable(s("Sort.%1").arg(s(slot))), qPrintable(s("Shade.%1").arg(s(slot))));
            }
        }
        addPass("Mean", "LuminanceAverageRenderPass");
        link("Model.Diffuse", "Mean.Texture"); // which gives nothing back that is the pool's
        addPass("Edges", "SMAARenderPass");
        set("Edges", "Mode", 0);
        link("Mix.Frame", "Edges.Frame");
        if (pipeline->pass(s("Loud")))
            set("Loud", "Depth", textureToVariant(noDepth.get()));
        ASSERT_TRUE(pipeline->setup());
        cleanContext();
    }

    Picture frame()
    {
        Picture picture;
        EXPECT_TRUE(pipeline->render());
        const GlCalls::Pause pause;
        left = host.sets.empty() ? std::vector<double>() : host.sets.back()->now();
        const int times = host.count;
        host.rest();
        host.count = times;
        cleanContext();
        for (const char *name : {"Edges", "Shade", "Mix"}) {
            if (RenderPass *pass = pipeline->pass(s(name)))
                add(picture, pass->output(0));
        }
        picture.numbers.push_back(pipeline->pass(s("Mean"))->output(1).toFloat());
        cleanContext();
        return picture;
    }

    std::unique_ptr<GPUModel> model;
    std::unique_ptr<Texture> noDepth;
    std::unique_ptr<Pipeline> pipeline;
    Host host;
    std::vector<double> left;
    int number = 0;
    bool hasLists = false;
};

std::string placeName(const ::testing::TestParamInfo<Place> &info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Places, BindingsBehindTheLibrary, ::testing::ValuesIn(places()), placeName);

/// What a pipeline puts back itself, behind a pass of the host's or at the end of its frame.
bool isPutBack(StatePiece piece, bool byAPass)
{
    switch (piece) {
    case StatePiece::PixelUnpacking:
    case StatePiece::PixelPacking:
    case StatePiece::PixelBuffers:
    case StatePiece::Samplers: return byAPass;
    case StatePiece::DrawFramebuffer:
    case StatePiece::ReadFramebuffer:
    case StatePiece::Program:
    case StatePiece::VertexArray:
    case StatePiece::ActiveUnit:
    case StatePiece::Buffers: return true;
    default: return false;
    }
}

} // namespace

TEST_P(BindingsBehindTheLibrary, LeaveThePictureAndStayAsTheHostLeftThem)
{
    const MessageCapture messages;
    ShaderProgram::setFailureHandler({});
    makePipeline();
    const Picture clean = frame();
    ASSERT_EQ(frame(), clean) << "two frames differ";
    ASSERT_GT(clean.numbers.size(), std::size_t(2 * 4 * kWidth * kHeight));
    const bool isOncePerPipeline =
        qstrcmp(GetParam().name, "FailureHandler") == 0 || qstrcmp(GetParam().name, "MessageHandler") == 0;
    const QtMessageHandler before = messageHost ? qInstallMessageHandler(tellHost) : nullptr;
    for (const HostState &state : bindingStates()) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, state.name);
        if (isOncePerPipeline)
            makePipeline();
        host.disturb(state);
        std::unique_ptr<ExpectedGLErrors> errors;
        if (qstrcmp(GetParam().name, "FailureHandler") == 0 && state.piece == StatePiece::DrawFramebuffer)
            errors = std::make_unique<ExpectedGLErrors>(); // of the refused pass itself, which draws on
        const Picture picture = frame();
        EXPECT_GT(host.count, 0) << "the host was not asked";
        host.count = 0;
        EXPECT_EQ(picture, clean);
        if (!isPutBack(state.piece, qstrcmp(GetParam().name, "PassesBetween") == 0)) {
            EXPECT_EQ(left, host.left) << "is not as the host left it";
        }
    }
    if (before)
        qInstallMessageHandler(before);
}

class LibraryBindings : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        cleanContext();
        image = makeTexture(pictureOfSteps());
    }
    void TearDown() override
    {
        image.reset();
        cleanContext();
        GLTest::TearDown();
    }

    static Image<float> pictureOfSteps()
    {
        Image<float> picture(kWidth, kHeight);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x)
                picture.at(x, y) = {0.05f * float(x), 0.07f * float(y), (x + y) % 3 ? 0.25f : 0.75f, 1};
        }
        return picture;
    }

    static Picture resultOf(RenderPass &pass)
    {
        const GlCalls::Pause pause;
        Picture picture;
        add(picture, pass.output(0));
        return picture;
    }

    std::unique_ptr<Texture> image;
    Host host;
};

namespace {

/// Asks the host in the middle of start, with framebuffer, program and textures bound.
class AskingShaderPass : public ShaderRenderPass
{
public:
    explicit AskingShaderPass(Host *host = nullptr) : _host(host)
    {
        addInput(s("Kvo_KvoTexture*_Input"));
        addOutput(s("Kvo_KvoTexture*_Frame"));
        setFragmentShaderSource(s("#version 150\nuniform sampler2D u_Input;\nin vec2 vo_TexCoord;\nout vec4 o_Frame;\n"
                                  "void main() { o_Frame = texture(u_Input, vo_TexCoord) * 0.5 + 0.125; }\n"));
    }
    void setUniforms() override
    {
        if (_host)
            _host->act();
        ShaderRenderPass::setUniforms();
    }

private:
    Host *_host;
};

/// Asks the host in a setup that start calls.
class AskingSmaaPass : public SMAARenderPass
{
public:
    explicit AskingSmaaPass(Host *host) : _host(host) {}
    void setup(RenderCallbacks *callbacks) override
    {
        SMAARenderPass::setup(callbacks);
        _host->act();
    }

private:
    Host *_host;
};

/// What the pass has bound when it asks and needs to be there afterwards is the host's to put back; everything else
/// is not.
bool isInUseInStart(StatePiece piece)
{
    switch (piece) {
    case StatePiece::DrawFramebuffer:
    case StatePiece::Program:
    case StatePiece::Textures:
    case StatePiece::Samplers: return true;
    default: return false;
    }
}

} // namespace

TEST_F(LibraryBindings, ThatUniformSettersChangeLeaveThePictureAlone)
{
    for (const HostState &state : bindingStates()) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, state.name);
        AskingShaderPass pass(&host);
        pass.setInput(0, kViewport);
        pass.setInput(1, textureToVariant(image.get()));
        GLuint hostTexture = 0;
        glGenTextures(1, &hostTexture);
        cleanContext();
        runFrame(pass);
        const Picture clean = resultOf(pass);
        cleanContext();
        glBindTexture(GL_TEXTURE_2D, hostTexture);
        const Target target(GL_RGBA8, 2, 2);
        glBindFramebuffer(GL_FRAMEBUFFER, target.framebuffer()->getFBO());
        host.disturb(state);
        {
            std::unique_ptr<ExpectedGLErrors> errors;
            if (isInUseInStart(state.piece)) // the draw goes wherever the host has left it
                errors = std::make_unique<ExpectedGLErrors>();
            runFrame(pass);
        }
        EXPECT_EQ(GLuint(integer(GL_DRAW_FRAMEBUFFER_BINDING)), target.framebuffer()->getFBO());
        EXPECT_EQ(integer(GL_CURRENT_PROGRAM), 0);
        glActiveTexture(GL_TEXTURE0);
        EXPECT_EQ(GLuint(integer(GL_TEXTURE_BINDING_2D)), hostTexture) << "on the unit that the pass used";
        host.rest();
        cleanContext();
        if (!isInUseInStart(state.piece)) {
            EXPECT_EQ(resultOf(pass), clean);
        }
        glDeleteTextures(1, &hostTexture);
        // and the next frame knows nothing of it
        cleanContext();
        runFrame(pass);
        EXPECT_EQ(resultOf(pass), clean);
        cleanContext();
    }
}

TEST_F(LibraryBindings, ThatAnOverriddenSetupChangesLeaveThePictureAlone)
{
    const auto picture = [&](const HostState *state) {
        AskingSmaaPass pass(&host);
        pass.setInput(0, kViewport);
        pass.setInput(1, textureToVariant(image.get()));
        pass.setInput(2, 0);
        cleanContext();
        if (state)
            host.disturb(*state);
        runFrame(pass); // which sets up, since the size is new
        if (state) {
            EXPECT_EQ(host.sets.empty() ? std::vector<double>() : host.sets.back()->now(), host.left);
        }
        host.rest();
        cleanContext();
        return resultOf(pass);
    };
    const Picture clean = picture(nullptr);
    for (const HostState &state : bindingStates()) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, state.name);
        EXPECT_EQ(picture(&state), clean);
    }
}

TEST_F(LibraryBindings, ThatARefusedShaderFindsAreThoseThatThePassHasBoundAndNoOthers)
{
    const GLuint unit3 = [] {
        GLuint name = 0;
        glGenTextures(1, &name);
        return name;
    }();
    GLint found = -1;
    GLint framebuffer = -1;
    ShaderProgram::setFailureHandler([&](const ShaderFailure &) {
        glActiveTexture(GL_TEXTURE0);
        glGetIntegerv(GL_TEXTURE_BINDING_2D, &found);
        glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &framebuffer);
    });
    glBindTexture(GL_TEXTURE_2D, unit3);
    {
        const BindingScope scope;
        GaussianBlurRenderPass blur; // has had textures on unit 0
        blur.setInput(0, kViewport);
        blur.setInput(1, textureToVariant(image.get()));
        blur.setInput(2, 2.0f);
        runFrame(blur);
        const GlCalls calls;
        ShaderRenderPass broken;
        broken.addOutput(s("Kvo_KvoTexture*_Frame"));
        broken.setFragmentShaderSource(s("#version 150\nnot GLSL\n"));
        broken.setInput(0, kViewport);
        runFrame(broken);
    }
    ShaderProgram::setFailureHandler({});
    EXPECT_EQ(GLuint(found), unit3) << "what the library puts back later was not back for the handler";
    EXPECT_GT(framebuffer, 0);
    glDeleteTextures(1, &unit3);
}

// Names that GL gives again: of what a host deletes while it is bound, and of what the library deletes in a frame.
TEST_F(LibraryBindings, OfDeletedNamesAreNotBroughtBack)
{
    Pipeline pipeline;
    ASSERT_TRUE(pipeline.add(s("Blur"), s("GaussianBlurRenderPass")));
    ASSERT_TRUE(pipeline.add(s("Host"), std::make_unique<HostPass>(host, HostPass::When::Start)));
    ASSERT_TRUE(pipeline.add(s("Again"), s("GaussianBlurRenderPass")));
    for (const char *name : {"Blur", "Again"}) {
        ASSERT_TRUE(pipeline.setValue(s(name), s("Viewport"), kViewport));
        ASSERT_TRUE(pipeline.setValue(s(name), s("Input"), textureToVariant(image.get())));
        ASSERT_TRUE(pipeline.setValue(s(name), s("BlurRadius"), 2.0f));
    }
    ASSERT_TRUE(pipeline.render());
    const Picture clean = resultOf(*pipeline.pass(s("Again")));

    GLuint texture = 0, buffer = 0, framebuffer = 0, array = 0;
    cleanContext();
    glGenTextures(1, &texture);
    glGenBuffers(1, &buffer);
    glGenFramebuffers(1, &framebuffer);
    glGenVertexArrays(1, &array);
    glBindTexture(GL_TEXTURE_2D, texture);
    glBindBuffer(GL_UNIFORM_BUFFER, buffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glBindVertexArray(array);
    bool isGivenAgain = false;
    std::vector<GLuint> others;
    host.action = [&] {
        EXPECT_EQ(GLuint(integer(GL_TEXTURE_BINDING_2D)), texture) << "a host pass finds what the host has bound";
        EXPECT_EQ(GLuint(integer(GL_UNIFORM_BUFFER_BINDING)), buffer);
        const GLuint old = texture;
        glDeleteTextures(1, &texture);
        glDeleteBuffers(1, &buffer);
        glGenBuffers(1, &buffer);
        for (int i = 0; i < 256 && !isGivenAgain; ++i) {
            glGenTextures(1, &texture);
            others.push_back(texture);
            isGivenAgain = texture == old;
        }
        glBindTexture(GL_TEXTURE_2D, texture);
        glBindTexture(GL_TEXTURE_2D, 0);
    };
    ASSERT_TRUE(pipeline.render());
    if (!isGivenAgain)
        std::printf("[ names    ] this driver does not give names of textures again\n");
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), 0);
    EXPECT_EQ(integer(GL_UNIFORM_BUFFER_BINDING), 0);
    EXPECT_EQ(GLuint(integer(GL_DRAW_FRAMEBUFFER_BINDING)), framebuffer);
    EXPECT_EQ(GLuint(integer(GL_VERTEX_ARRAY_BINDING)), array);
    EXPECT_EQ(resultOf(*pipeline.pass(s("Again"))), clean);
    cleanContext();
    glDeleteTextures(GLsizei(others.size()), others.data());
    glDeleteBuffers(1, &buffer);
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteVertexArrays(1, &array);
}

// The host has bound what a pass deletes: GL takes it off, and it does not come back under whatever has its name then.
TEST_F(LibraryBindings, OfTargetsThatAPassReplacesAreNotBroughtBack)
{
    for (const bool inOneScope : {false, true}) {
        const auto pass = std::make_unique<SMAARenderPass>();
        pass->setInput(1, textureToVariant(image.get()));
        pass->setInput(2, 0);
        std::unique_ptr<BindingScope> scope;
        if (inOneScope)
            scope = std::make_unique<BindingScope>();
        std::vector<Picture> pictures;
        for (int frame = 0; frame < 8; ++frame) {
            const int smaller = frame % 4;
            pass->setInput(0, QRect(0, 0, kWidth - smaller, kHeight - smaller));
            runFrame(*pass);
            {
                const HostCode hostCode;
                pictures.push_back(resultOf(*pass));
                Texture *output = textureFromVariant(pass->output(0));
                glActiveTexture(GL_TEXTURE0 + unsigned(frame % 3));
                glBindTexture(GL_TEXTURE_2D, output->textureID());
            }
            TextureManager::Instance().trim(-1); // deletes it, and the next frame gets its name
        }
        scope.reset();
        for (int frame = 0; frame < 4; ++frame)
            EXPECT_EQ(pictures[size_t(frame)], pictures[size_t(frame) + 4]) << frame;
        for (GLenum unit = 0; unit < 3; ++unit) {
            glActiveTexture(GL_TEXTURE0 + unit);
            EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), 0) << "unit " << unit;
        }
        cleanContext();
    }
}

TEST_F(LibraryBindings, OfTwoContextsOfAGroupAreNotTakenForEachOther)
{
    GLContext::Options options;
    options.share = &context();
    GLContext other(options);
    Pipeline pipeline;
    const auto add = [&](const char *name) {
        EXPECT_TRUE(pipeline.add(s(name), s("GaussianBlurRenderPass")));
        EXPECT_TRUE(pipeline.setValue(s(name), s("Viewport"), kViewport));
        EXPECT_TRUE(pipeline.setValue(s(name), s("Input"), textureToVariant(image.get())));
        EXPECT_TRUE(pipeline.setValue(s(name), s("BlurRadius"), 2.0f));
    };
    add("Blur");
    ASSERT_TRUE(pipeline.add(s("Host"), std::make_unique<HostPass>(host, HostPass::When::Start)));
    add("Again");
    ASSERT_TRUE(pipeline.render());
    const Picture clean = resultOf(*pipeline.pass(s("Again")));

    auto inner = std::make_unique<GaussianBlurRenderPass>();
    inner->setInput(0, kViewport);
    inner->setInput(1, textureToVariant(image.get()));
    inner->setInput(2, 2.0f);
    Picture there;
    host.action = [&] {
        ASSERT_TRUE(other.makeCurrent());
        cleanContext();
        runFrame(*inner);
        there = resultOf(*inner);
        ASSERT_TRUE(context().makeCurrent());
    };
    for (int i = 0; i < 3; ++i) {
        cleanContext();
        ASSERT_TRUE(pipeline.render());
        EXPECT_EQ(there, clean);
        EXPECT_EQ(resultOf(*pipeline.pass(s("Again"))), clean);
    }
    // and frames in turn, each in a scope of its own
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(i % 2 ? other.makeCurrent() : context().makeCurrent());
        cleanContext();
        runFrame(*inner);
        EXPECT_EQ(resultOf(*inner), clean) << i;
    }
    inner.reset();
    ASSERT_TRUE(other.makeCurrent());
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

// Whatever class a host makes of one of the library's, it may bind what it likes.
TEST_F(LibraryBindings, OfClassesThatAHostDerivedAreNotGuessed)
{
    class Wild : public Texture
    {
    public:
        bool bind() override
        {
            const bool bound = Texture::bind();
            glBindVertexArray(_array);
            glBindBuffer(GL_ARRAY_BUFFER, 0);
            return bound;
        }
        GLuint _array = 0;
    };
    Wild wild;
    wild.setTarget(GL_TEXTURE_2D);
    ASSERT_TRUE(wild.Texture::bind());
    const Image<float> picture = pictureOfSteps();
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA32F, kWidth, kHeight, 0, GL_RGBA, GL_FLOAT, picture.pixels.constData());
    wild.setFilter(GL_NEAREST);
    wild.unbind();
    const auto blurred = [](Texture *input) {
        BlendRenderPass pass;
        pass.setInput(0, kViewport);
        pass.setInput(1, textureToVariant(input));
        pass.setInput(2, textureToVariant(input));
        const BindingScope scope; // in which the quad is known to be bound from the second frame on
        for (int i = 0; i < 2; ++i)
            runFrame(pass);
        return resultOf(pass);
    };
    glGenVertexArrays(1, &wild._array);
    EXPECT_EQ(blurred(&wild), blurred(image.get()));
    cleanContext();
    glDeleteVertexArrays(1, &wild._array);
}

// The pool promises filters and wraps, and sets them again only where a host may have changed them.
TEST_F(LibraryBindings, FiltersThatAHostChangedArePromisedAgain)
{
    const auto take = [] {
        Texture *texture = TextureManager::Instance().tempTexture(TextureFormat::Frame, kWidth, kHeight, -1);
        TextureManager::Instance().releaseTempTextureRef(texture, 1);
        return texture;
    };
    const auto filterOf = [](Texture *texture) {
        const GlCalls::Pause pause;
        GLint filter = 0;
        glBindTexture(GL_TEXTURE_2D, texture->textureID());
        glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, &filter);
        glBindTexture(GL_TEXTURE_2D, 0);
        return GLenum(filter);
    };
    const BindingScope scope;
    Texture *texture = take();
    {
        const GlCalls calls;
        EXPECT_EQ(take(), texture);
        EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    }
    const std::pair<const char *, std::function<void()>> hosts[] = {
        {"by name",
         [&] {
             const GLuint name = texture->textureID();
             glBindTexture(GL_TEXTURE_2D, name);
             glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
             glBindTexture(GL_TEXTURE_2D, 0);
         }},
        {"bound by the wrapper",
         [&] {
             const AutoBinder bound(texture);
             glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
         }},
        {"by the wrapper",
         [&] {
             const AutoBinder bound(texture);
             texture->setFilter(GL_NEAREST);
         }},
    };
    for (const auto &[name, change] : hosts) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, name);
        TextureManager::Instance().trim(-1); // a texture that no host has seen
        texture = take();
        {
            const HostCode hostCode;
            change();
        }
        EXPECT_EQ(take(), texture);
        const HostCode hostCode;
        EXPECT_EQ(filterOf(texture), GLenum(GL_LINEAR));
    }
    // Bound by the library while code of the host's runs: the host need not know its name.
    TextureManager::Instance().trim(-1);
    texture = take();
    {
        const AutoBinder bound(texture);
        const HostCode hostCode;
        glActiveTexture(GL_TEXTURE0 + unsigned(texture->unit()));
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    }
    EXPECT_EQ(take(), texture);
    const HostCode hostCode;
    EXPECT_EQ(filterOf(texture), GLenum(GL_LINEAR));
    TextureManager::Instance().trim(-1);
}

// Whoever took a binding counts on it when one that was taken inside is given back; the host's comes back at the end.
TEST_F(LibraryBindings, OfOuterGuardsAreBackAtOnceAndThoseOfTheHostAtTheEnd)
{
    const Target outer(GL_RGBA8, 2, 2);
    const Target inner(GL_RGBA8, 2, 2);
    const auto program = makeProgram(s("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(1); }\n"));
    const auto other = makeProgram(s("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(0); }\n"));
    const BindingScope scope;
    const GlCalls calls;
    {
        const AutoBinder target(outer.framebuffer());
        const AutoBinder bound(program.get());
        {
            const AutoBinder innerTarget(inner.framebuffer());
            const AutoBinder innerProgram(other.get());
        }
        EXPECT_EQ(GLuint(integer(GL_DRAW_FRAMEBUFFER_BINDING)), outer.framebuffer()->getFBO());
        EXPECT_EQ(GLuint(integer(GL_READ_FRAMEBUFFER_BINDING)), outer.framebuffer()->getFBO());
        EXPECT_EQ(GLuint(integer(GL_CURRENT_PROGRAM)), program->programID());
    }
    EXPECT_EQ(GLuint(integer(GL_CURRENT_PROGRAM)), program->programID()) << "owed, and nobody can see it";
    const HostCode hostCode;
    EXPECT_EQ(integer(GL_CURRENT_PROGRAM), 0);
    EXPECT_EQ(integer(GL_DRAW_FRAMEBUFFER_BINDING), 0);
}

// GL takes off what is deleted; a name that is gone is not bound again, which GL would refuse.
TEST_F(LibraryBindings, OwedToWhatIsDeletedMeanwhileAreNoLongerOwed)
{
    auto texture = makeSolidTexture(2, 2, {1, 0, 0, 1});
    auto target = std::make_unique<Target>(GL_RGBA8, 2, 2);
    const Target other(GL_RGBA8, 2, 2);
    glBindTexture(GL_TEXTURE_2D, texture->textureID());
    glBindFramebuffer(GL_FRAMEBUFFER, target->framebuffer()->getFBO());
    {
        const BindingScope scope;
        {
            const AutoBinder bound(image.get());
            const AutoBinder framebuffer(other.framebuffer());
        }
        texture.reset();
        target.reset();
    }
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), 0);
    EXPECT_EQ(integer(GL_DRAW_FRAMEBUFFER_BINDING), 0);
    EXPECT_EQ(integer(GL_READ_FRAMEBUFFER_BINDING), 0);
}

TEST_F(LibraryBindings, OfPixelsAreAskedForAgainBehindCodeOfTheHosts)
{
    const BindingScope scope;
    for (int i = 0; i < 2; ++i) {
        const GlCalls calls;
        const DefaultPixelStore pixelStore;
        EXPECT_EQ(calls.count("glGetIntegerv") > 0, i == 0) << qPrintable(calls.toString());
    }
    {
        const HostCode hostCode;
        glPixelStorei(GL_UNPACK_SKIP_PIXELS, 3);
    }
    {
        const DefaultPixelStore pixelStore;
        EXPECT_EQ(integer(GL_UNPACK_SKIP_PIXELS), 0);
    }
    EXPECT_EQ(integer(GL_UNPACK_SKIP_PIXELS), 3);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
}

} // namespace Brevane::Kvo
