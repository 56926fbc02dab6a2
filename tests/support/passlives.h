#pragma once

#include "support/draw.h"
#include "support/gltest.h"
#include "support/hostpasses.h"
#include "support/passcases.h"
#include "support/passes.h"
#include "support/passvalues.h"
#include "support/scenes.h"

#include <core/renderpasshelper.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/gbufferrenderpass.h>
#include <renderpasses/primitivebuilderrenderpass.h>
#include <renderpasses/shaderrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <shadows/shadowmaprenderdata.h>

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QStringList>
#include <QTemporaryDir>

#include <epoxy/gl.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

// The life of a pass as a host sees it: made, connected to values of a context, run, read, and torn down. Tests that
// include this link the passes.

namespace Brevane::Kvo::Test {

/// Live objects of the current context and its group, as one text to compare and to read.
inline std::string objectsOf(const OpenGLDeviceContext &device)
{
    const GLObjectCounts counts = device.liveObjects();
    return QStringLiteral("textures %1, buffers %2, programs %3, framebuffers %4, vertex arrays %5, given up %6")
        .arg(counts.textures)
        .arg(counts.buffers)
        .arg(counts.programs)
        .arg(counts.framebuffers)
        .arg(counts.vertexArrays)
        .arg(device.givenUpCount())
        .toStdString();
}

/// The same after what the pool keeps was freed.
inline std::string trimmedObjects()
{
    TextureManager::Instance().trim(-1);
    return objectsOf(*OpenGLDeviceContext::current());
}

/// The same after what passes let go of was freed too.
inline std::string settledObjects()
{
    OpenGLDeviceContext::current()->freeGivenUp();
    return trimmedObjects();
}

/// Live objects by kind after that, without what the manager keeps for whoever asks again: colours and files.
inline std::vector<int> leftOver()
{
    settledObjects();
    std::vector<int> counts;
    for (int kind = 0; kind < kGlKindCount; ++kind)
        counts.push_back(GlCalls::live(GlKind(kind), [](const QString &label) {
            return !label.startsWith(text("solid ")) && !label.contains(u'/');
        }));
    return counts;
}

/// A context of a host, and the values that it gives to passes there. Contexts that share objects share
/// values.
class Home
{
public:
    /// The context of the binary.
    explicit Home(GLContext &context) : _context(&context), _values(std::make_shared<std::unique_ptr<Values>>()) {}
    Home() : Home(GLContext::Options(), nullptr) {}
    /// A context that shares the objects of another one.
    explicit Home(const Home &other) : Home(sharing(*other._context), &other) {}
    Home &operator=(const Home &) = delete;
    ~Home()
    {
        if (_own)
            release();
        else if (_context && _values.use_count() == 1 && _context->makeCurrent())
            _values->reset();
    }

    /// Makes the context current, with GL's default state and the viewport that passes want.
    bool enter()
    {
        // The library has to know every context of a group: the last one that it knows takes the objects along.
        if (!_context->makeCurrent() || !OpenGLDeviceContext::current())
            return false;
        resetGLState();
        glViewport(0, 0, kWidth, kHeight);
        return true;
    }

    bool isAlive() const { return _context != nullptr; }

    /// As a host does it before it destroys the context. Values go with the last context of the group.
    void release()
    {
        if (!_own)
            return;
        EXPECT_TRUE(enter());
        if (_values.use_count() == 1)
            _values->reset();
        const auto device = OpenGLDeviceContext::current();
        OpenGLDeviceContext::releaseCurrent();
        EXPECT_EQ(device->liveObjects().total(), 0);
        _own.reset();
        _context = nullptr;
        _values.reset();
    }

    /// The same for a context that is lost, of which nothing can be asked any more.
    void abandon()
    {
        _values->reset();
        OpenGLDeviceContext::releaseCurrent();
        forget();
    }

    /// For one of several contexts of a group, which the library has been told to forget.
    void forget()
    {
        _own.reset();
        _context = nullptr;
        _values.reset();
    }

    /// The library has forgotten the context, which lives on: all values were of what it forgot.
    void renew()
    {
        _values->reset();
        EXPECT_TRUE(enter());
    }

    Values &values()
    {
        if (!*_values) {
            *_values = std::make_unique<Values>();
            fill(*(*_values)->target.color());
        }
        return **_values;
    }

private:
    // Something that no filter leaves as it is.
    static void fill(Texture &texture)
    {
        std::vector<quint8> texels(size_t(kWidth) * kHeight * 4);
        for (size_t i = 0; i < texels.size(); ++i)
            texels[i] = i % 4 == 3 ? 255 : quint8(i * 37 + (i / 64) * 11);
        const AutoBinder bound(&texture);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kWidth, kHeight, GL_RGBA, GL_UNSIGNED_BYTE, texels.data());
    }

    Home(const GLContext::Options &options, const Home *other)
        : _own(std::make_unique<GLContext>(options)), _context(_own.get()),
          _values(other ? other->_values : std::make_shared<std::unique_ptr<Values>>())
    {
        EXPECT_TRUE(_own->isValid()) << qPrintable(_own->error());
    }

    static GLContext::Options sharing(const GLContext &context)
    {
        GLContext::Options options;
        options.share = &context;
        return options;
    }

    std::unique_ptr<GLContext> _own;
    GLContext *_context;
    std::shared_ptr<std::unique_ptr<Values>> _values;
};

/// Every texel of a texture, as bytes.
inline QByteArray texelsOf(const Texture *texture)
{
    if (texture->textureID() == 0 || texture->target() == GL_TEXTURE_BUFFER)
        return {};
    const GLenum target = texture->target();
    GLint depth = 0;
    GLint type = 0;
    GLint layers = 1;
    GLint width = 0;
    {
        const GlCalls::Pause pause;
        const GLenum image = target == GL_TEXTURE_CUBE_MAP ? GLenum(GL_TEXTURE_CUBE_MAP_POSITIVE_X) : target;
        glBindTexture(target, texture->textureID());
        glGetTexLevelParameteriv(image, 0, GL_TEXTURE_WIDTH, &width);
        glGetTexLevelParameteriv(image, 0, GL_TEXTURE_DEPTH_SIZE, &depth);
        glGetTexLevelParameteriv(image, 0, GL_TEXTURE_RED_TYPE, &type);
        if (target == GL_TEXTURE_2D_ARRAY)
            glGetTexLevelParameteriv(image, 0, GL_TEXTURE_DEPTH, &layers);
        else if (target == GL_TEXTURE_CUBE_MAP)
            layers = 6;
        glBindTexture(target, 0);
    }
    QByteArray bytes;
    const auto add = [&bytes](const auto &image) {
        bytes.append(reinterpret_cast<const char *>(image.pixels.constData()),
                     image.pixels.size() * qsizetype(sizeof(image.pixels[0])));
    };
    for (int layer = 0; width > 0 && layer < layers; ++layer) {
        if (depth > 0)
            add(readDepth(texture, 0, layer));
        else if (type == GL_UNSIGNED_INT)
            add(readTexture<quint32>(texture, 0, layer));
        else if (type == GL_INT)
            add(readTexture<qint32>(texture, 0, layer));
        else
            add(readTexture<float>(texture, 0, layer));
    }
    return bytes;
}

/// What a frame of a pass shows: a line for each output, with every texel in it.
struct Picture
{
    QStringList names;
    QList<QByteArray> content;

    void add(const QString &name, const QByteArray &bytes)
    {
        names.append(name);
        content.append(bytes);
    }
    bool operator==(const Picture &) const = default;
};

inline void PrintTo(const Picture &picture, std::ostream *stream)
{
    for (qsizetype i = 0; i < picture.names.size(); ++i)
        *stream << qPrintable(picture.names[i]) << ": " << picture.content[i].size() << " bytes, checksum "
                << qChecksum(picture.content[i]) << "; ";
}

/// What a pass draws from a value that can only be seen through it.
template <typename Consumer>
void addSeenThrough(Picture &picture, Values &values, std::initializer_list<std::pair<int, QVariant>> inputs)
{
    Consumer consumer;
    const PassRow &row =
        rowOf(std::is_same_v<Consumer, GBufferRenderPass> ? "GBufferRenderPass" : "VisibilityDeferredRenderPass");
    for (int i = 0; i < consumer.numInputs(); ++i)
        consumer.setInput(i, values.right(row.inputs[size_t(i)]));
    for (const auto &[index, value] : inputs)
        consumer.setInput(index, value);
    resetGLState();
    glViewport(0, 0, kWidth, kHeight);
    runFrame(consumer);
    picture.add(QStringLiteral("seen"), texelsOf(textureFromVariant(consumer.output(0))));
}

class EveryPassLives : public GLTest, public ::testing::WithParamInterface<PassCase>
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        main = std::make_unique<Home>(context());
        ASSERT_TRUE(main->enter());
        live(*main);
        want = frame(*make(*main), *main);
        before = settledObjects();
        unknownDeletions = GlCalls::unknownDeletions();
    }

    void TearDown() override
    {
        ASSERT_TRUE(main->enter());
        EXPECT_EQ(settledObjects(), before);
        EXPECT_EQ(GlCalls::unknownDeletions(), unknownDeletions) << "names were deleted that nobody had generated";
        main.reset();
        GLTest::TearDown();
    }

    bool is(const char *name) const { return qstrcmp(row.className, name) == 0; }
    /// Those that have no output to look at.
    bool drawsToScreen() const { return is("TextureToScreenRenderPass") || is("OutlinePass"); }
    /// Inputs of the pass and, of those that have hardly any, one that a host adds.
    std::vector<InputRow> inputs() const
    {
        std::vector<InputRow> all = row.inputs;
        if (isShaderOfHost(row.className))
            all.push_back({"Kvo_KvoTexture*_Input", QMetaType::fromType<Texture *>()});
        return all;
    }

    std::unique_ptr<RenderPassHelper> bare() const { return barePass(GetParam()); }

    /// Connects everything to what lives in the group of a context, which is current.
    void connect(RenderPassHelper &pass, Home &home) const
    {
        const std::vector<InputRow> all = inputs();
        for (int i = 0; i < pass.numInputs(); ++i)
            pass.setInput(i, right(all[size_t(i)], home));
    }

    /// Contexts come and go here by the hundred, so images are small; and frames are all alike, so the camera
    /// does not jitter.
    QVariant right(const InputRow &input, Home &home) const
    {
        if (input.type == QMetaType(QMetaType::QString))
            return smallImage();
        if (qstrcmp(input.name, "Kvo_int_JitterMode") == 0)
            return 0;
        if (is("DepthPeelingPass") && input.type == QMetaType::fromType<GPUModel *>())
            return QVariant::fromValue(&home.values().glass());
        if (qstrcmp(input.name, "Kvo_bool_Dirty") == 0 && is("TemporalAARenderPass"))
            return false; // else it hands its frame on
        return home.values().right(input);
    }

public:
    static QString smallImage()
    {
        static const QString path = [] {
            static QTemporaryDir folder;
            QImage image(8, 8, QImage::Format_RGBA8888);
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x)
                    image.setPixelColor(x, y, QColor(32 * x, 32 * y, 255 - 32 * x, 255));
            const QString name = folder.filePath(text("small.png"));
            EXPECT_TRUE(image.save(name));
            return name;
        }();
        return path;
    }

protected:
    std::unique_ptr<RenderPassHelper> make(Home &home) const
    {
        auto pass = bare();
        connect(*pass, home);
        pass->setup(nullptr);
        return pass;
    }

    static void end(RenderPassHelper &pass)
    {
        pass.teardown(nullptr);
        pass.teardownContextData(nullptr);
    }

    /// All of a life.
    void live(Home &home) const
    {
        const auto pass = make(home);
        frame(*pass, home);
        end(*pass);
    }

    /// A frame of a pass in the current context, and what it shows.
    Picture frame(RenderPassHelper &pass, Home &home) const
    {
        resetGLState();
        glViewport(0, 0, kWidth, kHeight);
        if (drawsToScreen())
            home.values().screen.clear({0, 0, 0, 0});
        // one mixes a frame with the one before: of two that are alike the second is as all that follow
        for (int i = is("SMAARenderPass") ? 0 : 2; i < 3; ++i)
            runFrame(pass);
        return pictureOf(pass, home);
    }

    Picture pictureOf(RenderPassHelper &pass, Home &home) const
    {
        Picture picture;
        if (drawsToScreen())
            picture.add(text("screen"), texelsOf(home.values().screen.color()));
        if (is("VisibilityBufferRenderPass") || is("VisibilitySortRenderPass")) {
            // the order in which fragments find their place is the driver's
            addSeenThrough<VisibilityDeferredRenderPass>(
                picture, home.values(), {{3, pass.output(0)}, {4, pass.output(1)}, {5, pass.output(2)}});
            return picture;
        }
        for (int i = 0; i < pass.numOutputs(); ++i) {
            const QVariant value = pass.output(i);
            const QString name = pass.outputName(i);
            if (const Texture *texture = textureFromVariant(value))
                picture.add(name, texelsOf(texture));
            else if (const ShadowMapRenderData *shadows = ShadowMapRenderData::fromVariant(value))
                picture.add(name, shadows->projectionTexture() ? texelsOf(shadows->projectionTexture()) : QByteArray());
            else if (value.metaType() == QMetaType(QMetaType::QMatrix4x4))
                picture.add(name,
                            QByteArray(reinterpret_cast<const char *>(qvariant_cast<QMatrix4x4>(value).constData()),
                                       16 * sizeof(float)));
            else if (is("PrimitiveBuilderRenderPass"))
                addSeenThrough<GBufferRenderPass>(picture, home.values(), {{3, value}});
            else
                picture.add(name, value.toString().toUtf8());
        }
        return picture;
    }

    /// The first start decides by it for good: which program there is, what the views are of.
    bool decidesOnceBy(const InputRow &input) const
    {
        return (is("ScalableAmbientObscuranceRenderPass")
                && qstrcmp(input.name, "Kvo_KvoTexture*_CameraSpacePosition") == 0)
               || (is("VisibilityDeferredRenderPass") && input.type == QMetaType::fromType<GPUModel *>());
    }

    const PassRow &row = anyRowOf(GetParam().className);
    std::unique_ptr<Home> main;
    Picture want;
    std::string before;
    int unknownDeletions = 0;
};

} // namespace Brevane::Kvo::Test
