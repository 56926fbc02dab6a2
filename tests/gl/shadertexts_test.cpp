// Every shader text that passes, host and pipelines give to GL is GLSL of the version that it states, by the word of the
// reference compiler: drivers forgive what others refuse. The texts are caught on their way; slots that choose
// between programs are given every choice.

#include "support/gltest.h"
#include "support/messages.h"
#include "support/stage.h"

#include <core/slotinfo.h>
#include <gl/shaderprogram.h>
#include <gl/texturemanager.h>
#include <host/fragmentlists.h>
#include <host/outlinepass.h>
#include <host/passfactory.h>
#include <host/pickpass.h>

#include <QFile>
#include <QMap>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <epoxy/gl.h>

#include <algorithm>
#include <utility>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kMostSteps = 3; // Of a number whose range has no end.

struct Text
{
    GLenum stage;
    QByteArray source;
    QByteArray from; ///< What was running when it came first.
};

decltype(epoxy_glCreateShader) realCreateShader;
decltype(epoxy_glShaderSource) realShaderSource;
QMap<GLuint, GLenum> stages;
QMap<QByteArray, Text> texts; // by stage and source
QByteArray running;

GLuint createShader(GLenum stage)
{
    const GLuint shader = realCreateShader(stage);
    stages.insert(shader, stage);
    return shader;
}

void shaderSource(GLuint shader, GLsizei count, const GLchar *const *strings, const GLint *lengths)
{
    QByteArray source;
    for (GLsizei i = 0; i < count; ++i)
        source += lengths && lengths[i] >= 0 ? QByteArray(strings[i], lengths[i]) : QByteArray(strings[i]);
    const GLenum stage = stages.value(shader);
    const QByteArray key = QByteArray::number(stage) + source;
    if (!texts.contains(key))
        texts.insert(key, {stage, source, running});
    realShaderSource(shader, count, strings, lengths);
}

/// Catches texts while it lives.
class Catch
{
public:
    Catch()
    {
        // Functions are looked up at their first call, which would overwrite what is put in their place.
        const GLuint shader = glCreateShader(GL_VERTEX_SHADER);
        const char *text = "";
        glShaderSource(shader, 1, &text, nullptr);
        glDeleteShader(shader);
        texts.clear();
        realCreateShader = std::exchange(epoxy_glCreateShader, createShader);
        realShaderSource = std::exchange(epoxy_glShaderSource, shaderSource);
    }
    ~Catch()
    {
        epoxy_glCreateShader = realCreateShader;
        epoxy_glShaderSource = realShaderSource;
    }
};

const char *suffixOf(GLenum stage)
{
    switch (stage) {
    case GL_VERTEX_SHADER: return "vert";
    case GL_GEOMETRY_SHADER: return "geom";
    case GL_TESS_CONTROL_SHADER: return "tesc";
    case GL_TESS_EVALUATION_SHADER: return "tese";
    case GL_COMPUTE_SHADER: return "comp";
    default: return "frag";
    }
}

/// Words of the reference compiler that are its own limits, each with the reason.
struct Exception
{
    const char *error;
    const char *guard; ///< Stands in the text: the driver has the extension, whatever the version.
};

constexpr Exception kExceptions[] = {
    // It knows the counters from GLSL 4.20 on only; GL_ARB_shader_atomic_counters brings them to 1.50.
    {"'atomicCounterIncrement' : no matching overloaded function found",
     "#extension GL_ARB_shader_atomic_counters : enable"},
    // It knows the word from GLSL 4.00 on only; GL_ARB_gpu_shader5 brings it to 1.50.
    {"'precise' : undeclared identifier", "#extension GL_ARB_gpu_shader5 : enable"},
};

bool isItsOwnLimit(const QByteArray &verdict, const QByteArray &source)
{
    return std::any_of(std::begin(kExceptions), std::end(kExceptions), [&](const Exception &exception) {
        return verdict.contains(exception.error) && source.contains(exception.guard);
    });
}

/// What the reference compiler says of a text; empty: nothing.
QByteArray verdictOn(const Text &text, const QString &folder)
{
    const QString path = QStringLiteral("%1/text.%2").arg(folder, QLatin1String(suffixOf(text.stage)));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.source) != text.source.size())
        return "cannot be written";
    file.close();
    QProcess compiler;
    compiler.start(QStringLiteral("glslangValidator"), {path});
    if (!compiler.waitForFinished() || compiler.exitStatus() != QProcess::NormalExit)
        return "the compiler did not end";
    const QByteArray verdict = compiler.readAllStandardOutput();
    return compiler.exitCode() == 0 || isItsOwnLimit(verdict, text.source) ? QByteArray() : verdict;
}

/// The values that a slot may choose a program by.
QVariantList choicesOf(const SlotInfo &info, const QVariant &value)
{
    QVariantList choices;
    for (const SlotChoice &choice : info.choices)
        choices << choice.value;
    if (info.kind == SlotKind::Switch)
        choices << true << false;
    const bool isNumber = info.kind == SlotKind::Count || info.kind == SlotKind::Radius
                          || info.kind == SlotKind::Divider || info.kind == SlotKind::Index;
    if (choices.isEmpty() && isNumber) {
        const double least = std::max(info.range.least, 0.0);
        const double most = std::min(info.range.most, least + kMostSteps);
        for (double number = least; number <= most; ++number) {
            QVariant one(number);
            if (!value.isValid() || one.convert(value.metaType()))
                choices << one;
        }
    }
    return choices;
}

ModelData sceneWithMaps(int side)
{
    ModelData data = threeCubes(0.5f);
    QImage map(side, 8, QImage::Format_RGB32);
    map.fill(Qt::gray);
    data.materials[0].map_Kd = map;
    ModelSurface surface;
    surface.map_baseColor = map;
    surface.map_normal = map;
    data.materials[0].surface = surface;
    return data;
}

} // namespace

class ShaderTexts : public GLTest
{};

TEST_F(ShaderTexts, AreWhatTheReferenceCompilerTakes)
{
    if (QStandardPaths::findExecutable(QStringLiteral("glslangValidator")).isEmpty())
        GTEST_SKIP() << "glslangValidator is not installed (package glslang-tools)";
    const MessageCapture messages; // Odd choices are told; here only texts matter.
    {
        const Catch caught;
        QSet<QString> given; // choices, by class
        for (const QString &name : pipelineNames()) {
            // Without maps, with one, and with one in tiles: each reads them by another text.
            for (const int side : {0, 8, 3000}) {
                running = name.toUtf8();
                Stage stage(name, side ? sceneWithMaps(side) : threeCubes(0.5f), {24, 16});
                stage.render();
                stage.render();
                if (side != 8)
                    continue;
                for (const QString &pass : stage.pipeline.passNames()) {
                    for (const PassInput &input : stage.pipeline.inputs(pass)) {
                        const SlotInfo *info = stage.pipeline.inputInfo(pass, input.slot);
                        if (!info || input.kind == PassInput::Kind::Host || input.kind == PassInput::Kind::Link)
                            continue;
                        for (const QVariant &choice : choicesOf(*info, input.value)) {
                            const QString what = stage.pipeline.className(pass) + input.slot + choice.toString();
                            if (given.contains(what))
                                continue;
                            given.insert(what);
                            running = (name + u' ' + pass + u'.' + input.slot + u'=' + choice.toString()).toUtf8();
                            ASSERT_TRUE(stage.pipeline.setValue(pass, input.slot, choice));
                            stage.render();
                        }
                        ASSERT_TRUE(stage.pipeline.setValue(pass, input.slot, input.value));
                    }
                }
            }
        }
        running = "picking";
        GPUModel model;
        ASSERT_TRUE(model.upload(threeCubes()));
        PickPass pick;
        OutlinePass outline;
        outline.setItems({0});
        for (RenderPassHelper *pass :
             {static_cast<RenderPassHelper *>(&pick), static_cast<RenderPassHelper *>(&outline)}) {
            pass->setInput(0, QRect(0, 0, 16, 16));
            pass->setInput(3, QVariant::fromValue(&model));
            pass->start(nullptr);
        }
    }
    EXPECT_GT(texts.size(), 100);
    const QTemporaryDir folder;
    for (const Text &text : std::as_const(texts)) {
        const QByteArray verdict = verdictOn(text, folder.path());
        EXPECT_TRUE(verdict.isEmpty()) << "of " << text.from.constData() << ":\n"
                                       << verdict.left(1500).constData() << "\n"
                                       << text.source.left(400).constData();
    }
}
