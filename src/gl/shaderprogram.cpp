#include "gl/shaderprogram.h"

#include "core/hostcode.h"
#include "gl/attributelocations.h"
#include "gl/bufferobject.h"
#include "gl/fallenshort.h"
#include "gl/glinfo.h"
#include "gl/managedtextures.h"
#include "gl/shaderfailurelistener.h"
#include "gl/shadermessages.h"
#include "gl/shaderprogram_p.h"
#include "gl/texturemanager.h"
#include "gl/uniformvalues.h"

#include <QHash>
#include <QMatrix4x4>
#include <QMutex>
#include <QRegularExpression>
#include <QSet>

#include <epoxy/gl.h>

#include <algorithm>
#include <utility>

namespace Brevane::Kvo {

namespace {

std::function<void(const ShaderFailure &)> &failureHandler()
{
    static std::function<void(const ShaderFailure &)> handler;
    return handler;
}

QString stageDefine(int stage)
{
    switch (stage) {
    case GL_VERTEX_SHADER: return QStringLiteral("KVO_STAGE_VERTEX");
    case GL_FRAGMENT_SHADER: return QStringLiteral("KVO_STAGE_FRAGMENT");
    case GL_GEOMETRY_SHADER: return QStringLiteral("KVO_STAGE_GEOMETRY");
    default: return QStringLiteral("KVO_STAGE_OTHER");
    }
}

/// The file of the library that samples managed textures of a kind, and what says to it how much there is to read.
struct ManagedSource
{
    const char *file;
    const char *define;
};

constexpr ManagedSource managedSource(ManagedKind kind)
{
    return kind == ManagedKind::Color ? ManagedSource{"ManagedColor.glslc", "KVO_MANAGED_COLOR_PAGES"}
                                      : ManagedSource{"TextureManager.glslc", "KVO_MANAGED_PAGES"};
}

// Making a shader of a stage that the context lacks is an error of GL.
constexpr GLint kCertainDrawBuffers = 8; // every context has them

bool hasStage(int stage)
{
    switch (stage) {
    case GL_TESS_CONTROL_SHADER:
    case GL_TESS_EVALUATION_SHADER: return hasGLExtension("GL_ARB_tessellation_shader");
    case GL_COMPUTE_SHADER: return hasGLExtension("GL_ARB_compute_shader");
    case GL_VERTEX_SHADER:
    case GL_GEOMETRY_SHADER:
    case GL_FRAGMENT_SHADER: return true;
    default: return false; // no stage at all
    }
}

// Whether a source stores the index of the draw itself; see InstanceData.glslh.
bool selectsDraw(const ProcessedSource &source)
{
    static const QString variable = QStringLiteral("kvo_DrawIndex");
    static const QRegularExpression comments(QStringLiteral("/\\*.*?\\*/|//[^\\n]*"),
                                             QRegularExpression::DotMatchesEverythingOption);
    for (qsizetype i = 0; i < source.originals.size(); ++i) {
        const bool declaresIt = source.fileNames[i] == QLatin1String("InstanceData.glslh");
        if (!declaresIt && source.originals[i].contains(variable)
            && QString(source.originals[i]).remove(comments).contains(variable))
            return true;
    }
    return false;
}

// The vertex stage's main, in front of which the index of the draw goes out. Were it left to the getters to
// write it, a vertex text that calls none, or one in some branch only, would leave it undefined.
ProcessedSource handingOnDrawIndex()
{
    ProcessedSource source;
    source.text = QStringLiteral("#version 150\n"
                                 "in uint va_DrawIndex;\n"
                                 "flat out uint kvo_vo_DrawIndex;\n"
                                 "void kvo_vertexMain();\n"
                                 "void main()\n"
                                 "{\n"
                                 "  kvo_vo_DrawIndex = va_DrawIndex;\n"
                                 "  kvo_vertexMain();\n"
                                 "}\n");
    source.fileNames.append(QStringLiteral("index of the draw"));
    source.originals.append(source.text);
    return source;
}

} // namespace

namespace {

// A driver that fails without a reason was short of something, and may build the program in the next frame. Not without
// end: compiling takes long.
void noteDriverFailure(const ShaderProgram *program)
{
    constexpr int kMostTries = 12;
    static QMutex mutex;
    static QHash<QString, int> tries;
    const QMutexLocker lock(&mutex);
    if (program->isLinked())
        tries.remove(program->label());
    else if (tries[program->label()]++ < kMostTries)
        noteFallenShort(program);
}

} // namespace

const GLSLMacroProcessor &ShaderProgramPrivate::processorInUse() const
{
    static const GLSLMacroProcessor byDefault;
    return processor ? *processor : byDefault;
}

bool ShaderProgramPrivate::readsManagedTextures(ManagedKind kind) const
{
    return std::any_of(sources.cbegin(), sources.cend(), [kind](const Source &source) {
        return source.isFile && source.name == QLatin1StringView(managedSource(kind).file);
    });
}

void ShaderProgramPrivate::addDrawIndex()
{
    QSet<int> selecting; // stages
    bool readsBehindVertex = false;
    bool hasStageBetween = false;
    for (const Compiled &c : compiled) {
        if (selectsDraw(c.source))
            selecting.insert(c.stage);
        if (c.stage != GL_VERTEX_SHADER) {
            readsBehindVertex = readsBehindVertex || c.source.usesInstanceData;
            hasStageBetween = hasStageBetween || c.stage != GL_FRAGMENT_SHADER;
        }
    }
    const bool handsOn = readsBehindVertex && !hasStageBetween && !selecting.contains(GL_FRAGMENT_SHADER);
    for (Compiled &c : compiled) {
        QString defines;
        if (selecting.contains(c.stage))
            defines = QStringLiteral("#define KVO_DRAW_INDEX_SELECTED 1\n");
        else if (c.stage != GL_VERTEX_SHADER)
            defines = handsOn ? QStringLiteral("#define KVO_DRAW_INDEX_VARYING 1\n")
                              : QStringLiteral("#define KVO_DRAW_INDEX_UNIFORM 1\n");
        if (handsOn && c.stage == GL_VERTEX_SHADER)
            defines += QStringLiteral("#define main kvo_vertexMain\n");
        c.source.text.insert(c.source.definesEnd, defines);
        c.drawIndexDefines = defines;
    }
    if (handsOn)
        compiled.push_back({{}, GL_VERTEX_SHADER, handingOnDrawIndex(), {}, true});
}

QString ShaderProgramPrivate::stageTitle(int stage, const QString &sourceName, int number) const
{
    const QString source = sourceName.isEmpty() ? QStringLiteral("source %1").arg(number) : sourceName;
    const QString owner = label.isEmpty() ? QString() : QStringLiteral(" of program '%1'").arg(label);
    return QStringLiteral("%1 shader '%2'%3").arg(QLatin1String(stageName(stage)), source, owner);
}

bool ShaderProgramPrivate::compileStage(Compiled &c, const QString &title)
{
    if (!hasStage(c.stage) || !c.shader.take(NameKind::Shader, glCreateShader(GLenum(c.stage)))) {
        wasRefused = wasRefused || !hasStage(c.stage);
        log += (hasStage(c.stage) ? QStringLiteral("%1: the driver makes no shader\n")
                                  : QStringLiteral("%1: the context has no such stage\n"))
                   .arg(title);
        return false;
    }
    const QByteArray utf8 = c.source.text.toUtf8();
    const char *data = utf8.constData();
    const auto length = GLint(utf8.size());
    const GLuint shader = c.shader.id();
    glShaderSource(shader, 1, &data, &length);
    glCompileShader(shader);

    GLint status = GL_FALSE;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &status);
    const QString message = shaderLog(shader);
    if (status == GL_TRUE && c.source.errors.isEmpty()) {
        if (!message.isEmpty())
            log += QStringLiteral("%1:\n%2\n").arg(title, withNames(message, c.source));
        return true;
    }
    wasRefused = wasRefused || !message.isEmpty() || !c.source.errors.isEmpty();
    log += QStringLiteral("%1 failed to compile:\n").arg(title);
    for (const QString &error : std::as_const(c.source.errors))
        log += error + u'\n';
    log += withNames(message, c.source) + u'\n' + sourcesBehind(message, c.source, title);
    return false;
}

// A source may need what stands in one before it: a macro, a variable, a function without a prototype.
bool ShaderProgramPrivate::compileJoined(const QSet<int> &stages, const QList<QPair<QString, QString>> &commonDefines)
{
    const QString logOfSources = std::exchange(log, QString());
    std::vector<Compiled> whole;
    const bool good = std::all_of(stages.cbegin(), stages.cend(), [&](int stage) {
        QStringList texts;
        QStringList names;
        for (const Source &source : std::as_const(sources)) {
            bool found = true;
            if (source.stage != stage)
                continue;
            texts << textOf(source, &found);
            names << source.name;
        }
        const auto part = std::find_if(compiled.cbegin(), compiled.cend(),
                                       [stage](const Compiled &c) { return c.stage == stage && !c.isOurs; });
        if (texts.size() < 2 || part == compiled.cend())
            return false;
        QList<QPair<QString, QString>> defines = commonDefines;
        defines.first().first = stageDefine(stage);
        ProcessedSource text =
            processorInUse().process(texts.join(u'\n'), names.join(QStringLiteral(" and ")), defines);
        text.text.insert(text.definesEnd, part->drawIndexDefines);
        whole.push_back({{}, stage, std::move(text)});
        return compileStage(whole.back(), stageTitle(stage, whole.back().source.fileNames[0]));
    });
    wasRefused = true; // as the sources were, whatever came of this
    if (!good) {
        log = logOfSources;
        return false;
    }
    for (Compiled &c : compiled) {
        if (c.isOurs || !stages.contains(c.stage))
            whole.push_back(std::move(c));
    }
    compiled = std::move(whole);
    return true;
}

QString ShaderProgramPrivate::textOf(const Source &source, bool *found) const
{
    return source.isFile ? processorInUse().readFile(source.name, found) : source.text;
}

void ShaderProgramPrivate::fail(bool whileLinking)
{
    if (mayFail)
        return;
    const HostCode hostCode;
    const ShaderFailure failure{label, log, whileLinking};
    if (const auto &handler = failureHandler())
        handler(failure);
    ShaderFailureListener::tell(failure);
}

const LinkedProgram::Uniform *ShaderProgramPrivate::findUniform(const QString &uniformName) const
{
    return program ? program->uniforms.find(uniformName) : nullptr;
}

bool ShaderProgramPrivate::isCurrent(const ShaderProgram *q) const
{
    ContextState *state = ContextState::current();
    if (!state || !isLinked())
        return false;
    if (state->boundProgram == q)
        return true;
    // A host may have made it current with plain GL.
    return state->bindings.bound(BindingPoint::Program) == id();
}

ShaderProgram::ShaderProgram(QObject *parent) : QObject(parent), d(std::make_unique<ShaderProgramPrivate>()) {}

ShaderProgram::~ShaderProgram()
{
    forgetFallenShort(this);
    ShaderProgramPrivate::forget(this);
}

// Where it is bound, what was there before it comes back. Where others were bound after it, they find what
// was there before it when they are unbound.
void ShaderProgramPrivate::forget(const ShaderProgram *program)
{
    ShaderProgramPrivate *const gone = program->d.get();
    if (gone->previous.isEmpty())
        return;
    const Previous before = gone->previous.first();
    const ContextState *const current = ContextState::currentIfKnown();
    for (ContextState *state : ContextState::all()) {
        if (state->boundProgram == program) {
            state->boundProgram = before.program;
            if (state == current)
                state->bindings.giveBack(BindingPoint::Program, before.name);
        }
        // Each program that is bound knows those before it.
        QVarLengthArray<ShaderProgram *, 8> known;
        if (state->boundProgram)
            known.append(state->boundProgram);
        for (qsizetype i = 0; i < known.size(); ++i) {
            for (Previous &entry : known[i]->d->previous) {
                if (entry.program == program)
                    entry = before;
                if (entry.program && !known.contains(entry.program))
                    known.append(entry.program);
            }
        }
    }
    gone->previous.clear();
}

bool ShaderProgram::bind()
{
    ContextState *state = ContextState::current();
    if (!state)
        return false;
    const bool usable = d->isLinked() && d->program->name.isUsableIn(*state);
    // A broken program draws nothing. Leaving the program of before in place would draw with it.
    const unsigned int before = state->bindings.take(BindingPoint::Program, usable ? d->id() : 0);
    d->previous.append({before, state->boundProgram});
    state->boundProgram = usable ? this : nullptr;
    return usable;
}

bool ShaderProgram::unbind()
{
    if (d->previous.isEmpty())
        return false;
    const ShaderProgramPrivate::Previous before = d->previous.last();
    d->previous.removeLast();
    ContextState *state = ContextState::current();
    if (!state)
        return false;
    state->bindings.giveBack(BindingPoint::Program, before.name);
    state->boundProgram = before.program;
    return true;
}

bool ShaderProgram::compile()
{
    const ContextState *state = ContextState::current();
    d->compiled.clear();
    d->program.reset();
    d->log.clear();
    d->compiledWell = false;
    if (!state) {
        d->log = QStringLiteral("no usable OpenGL context is current");
        return false;
    }
    bool good = !d->sources.isEmpty();
    d->wasRefused = !good;
    if (!good)
        d->log = QStringLiteral("program '%1' has no shaders").arg(d->label);

    QList<QPair<QString, QString>> defines{{QString(), QStringLiteral("1")}};
    for (const ManagedKind kind : kManagedKinds) {
        int &pages = d->managedPages[std::size_t(kind)];
        pages = -1;
        if (d->mayShare && d->readsManagedTextures(kind)) {
            pages = TextureManager::Instance().managedPageClasses(kind);
            defines.append({QLatin1StringView(managedSource(kind).define), QString::number(pages)});
        }
    }
    for (const ShaderProgramPrivate::Source &source : std::as_const(d->sources)) {
        bool found = true;
        const QString text = d->textOf(source, &found);
        if (!found) {
            d->log += QStringLiteral("%1: the file does not exist\n").arg(d->stageTitle(source.stage, source.name));
            good = false;
            d->wasRefused = true;
            continue;
        }
        defines.first().first = stageDefine(source.stage);
        d->compiled.push_back({{}, source.stage, d->processorInUse().process(text, source.name, defines)});
    }
    d->addDrawIndex();
    d->shareKey = d->fragDataLocations.join(u'\0').toUtf8();
    for (const ShaderProgramPrivate::Compiled &c : d->compiled)
        d->shareKey += '\0' + QByteArray::number(c.stage) + '\0' + c.source.text.toUtf8();
    if (good && d->mayShare)
        d->program = state->group->programs.value(d->shareKey).toStrongRef();
    if (d->program) {
        d->compiled.clear();
        d->compiledWell = true;
        return true;
    }

    d->program = QSharedPointer<LinkedProgram>::create();
    if (!d->program->name.create(NameKind::Program)) {
        d->log += QStringLiteral("program '%1': the driver makes none\n").arg(d->label);
        good = false;
    }
    state->labelObject(GL_PROGRAM, d->id(), d->label);
    QHash<int, int> perStage;
    QSet<int> refused; // stages
    for (ShaderProgramPrivate::Compiled &c : d->compiled) {
        if (!d->id())
            break;
        const QString title = d->stageTitle(c.stage, c.source.fileNames[0], perStage[c.stage]++);
        if (!d->compileStage(c, title))
            refused.insert(c.stage);
    }
    if (!refused.isEmpty())
        good = good && d->wasRefused && d->compileJoined(refused, defines);
    d->compiledWell = good;
    if (!good) {
        if (!d->wasRefused)
            noteDriverFailure(this);
        d->fail(false);
    }
    return good;
}

bool ShaderProgram::linkPre()
{
    const ContextState *state = ContextState::current();
    if (!state || !d->compiledWell || !d->program->name.isUsableIn(*state))
        return false;
    if (d->program->linked)
        return true;
    const GLuint program = d->id();
    for (const ShaderProgramPrivate::Compiled &c : d->compiled)
        glAttachShader(program, c.shader.id());
    const QStringList &shared = sharedAttributeNames();
    for (qsizetype i = 0; i < shared.size(); ++i)
        glBindAttribLocation(program, GLuint(i), shared[i].toLatin1().constData());
    GLint drawBuffers = kCertainDrawBuffers;
    if (d->fragDataLocations.size() > drawBuffers)
        glGetIntegerv(GL_MAX_DRAW_BUFFERS, &drawBuffers);
    for (qsizetype i = 0; i < std::min(d->fragDataLocations.size(), qsizetype(drawBuffers)); ++i)
        glBindFragDataLocation(program, GLuint(i), d->fragDataLocations[i].toLatin1().constData());
    glLinkProgram(program);
    return true;
}

bool ShaderProgram::linkPreWait()
{
    // Drivers wait in linkPost, when the status is asked for.
    return d->compiledWell;
}

bool ShaderProgram::linkPost()
{
    const ContextState *state = ContextState::current();
    if (!state || !d->compiledWell || !d->program->name.isUsableIn(*state))
        return false;
    if (d->program->linked)
        return true;
    const GLuint program = d->id();
    GLint status = GL_FALSE;
    glGetProgramiv(program, GL_LINK_STATUS, &status);
    d->program->linked = status == GL_TRUE;
    const QString message = programLog(program);
    if (!message.isEmpty())
        d->log += (status == GL_TRUE ? QStringLiteral("program '%1':\n%2\n")
                                     : QStringLiteral("program '%1' failed to link:\n%2\n"))
                      .arg(d->label, message);
    if (d->program->linked) {
        static quint64 serial = 0;
        d->program->serial = ++serial;
        d->program->readInterface();
        if (d->mayShare)
            state->group->programs.insert(d->shareKey, d->program);
    } else {
        QHash<int, int> perStage;
        for (const ShaderProgramPrivate::Compiled &c : d->compiled)
            d->log += d->stageTitle(c.stage, c.source.fileNames[0], perStage[c.stage]++) + QStringLiteral(":\n")
                      + numberedSource(c.source);
    }
    for (const ShaderProgramPrivate::Compiled &c : d->compiled)
        glDetachShader(program, c.shader.id());
    d->compiled.clear();
    if (d->program->linked || message.isEmpty())
        noteDriverFailure(this);
    if (!d->program->linked)
        d->fail(true);
    return d->program->linked;
}

bool ShaderProgram::link()
{
    return linkPre() && linkPreWait() && linkPost();
}

bool ShaderProgram::validate()
{
    if (!d->isLinked() || !ContextState::current())
        return false;
    glValidateProgram(d->id());
    GLint status = GL_FALSE;
    glGetProgramiv(d->id(), GL_VALIDATE_STATUS, &status);
    if (status != GL_TRUE)
        d->log += QStringLiteral("program '%1' is not valid:\n%2\n").arg(d->label, programLog(d->id()));
    return status == GL_TRUE;
}

void ShaderProgram::setMacroProcessor(GLSLMacroProcessor *processor)
{
    d->processor = processor;
}

void ShaderProgram::addShader(int stage, const QString &source, const QString &name)
{
    d->sources.append({stage, source, name, false});
}

void ShaderProgram::addShaderFromFile(int stage, const QString &fileName)
{
    d->sources.append({stage, QString(), fileName, true});
}

void ShaderProgram::setFragDataLocations(const QStringList &names)
{
    d->fragDataLocations = names;
}

QString ShaderProgram::log() const
{
    return d->log;
}

bool ShaderProgram::setUniform(const QString &name, const QVariant &value)
{
    if (value.metaType().id() == QMetaType::QMatrix4x4)
        return setUniform(name, *static_cast<const QMatrix4x4 *>(value.constData()));
    const UniformValues values = uniformValuesOf(value);
    return values.count > 0 && _setValues(name, values.v.data(), values.count);
}

bool ShaderProgram::_setNumber(const QString &name, double value)
{
    return _setValues(name, &value, 1);
}

bool ShaderProgram::_setValues(const QString &name, const double *values, int count)
{
    int location = -1;
    GLenum type = 0;
    if (const LinkedProgram::Uniform *uniform = d->findUniform(name)) {
        location = uniform->location;
        type = uniform->type;
    } else if (name.endsWith(u']')) {
        // An element of an array, which GL lists under the name of the array.
        if (const LinkedProgram::Uniform *array = d->findUniform(name.left(name.lastIndexOf(u'[')))) {
            location = getUniformLocation(name);
            type = array->type;
        }
    }
    if (location < 0 || !d->isCurrent(this))
        return false;
    UniformValues all{{}, count};
    std::copy_n(values, count, all.v.begin());
    return setUniformValues(location, type, all);
}

bool ShaderProgram::setUniform(const QString &name, const QMatrix4x4 &value)
{
    const LinkedProgram::Uniform *uniform = d->findUniform(name);
    if (!uniform || !d->isCurrent(this))
        return false;
    return setUniformMatrix(uniform->location, uniform->type, value);
}

bool ShaderProgram::setUniform(const QString &name, const QVector<float> &values)
{
    const LinkedProgram::Uniform *uniform = d->findUniform(name);
    const int components = uniform ? uniformComponents(uniform->type) : 0;
    if (components == 0 || !d->isCurrent(this))
        return false;
    const auto count = GLsizei(std::min<qsizetype>(values.size() / components, uniform->size));
    if (count == 0)
        return false;
    setUniformArray(uniform->location, uniform->type, count, values.constData());
    return true;
}

bool ShaderProgram::hasUniform(const QString &name) const
{
    return d->findUniform(name) != nullptr;
}

int ShaderProgram::getUniformLocation(const QString &name) const
{
    if (const LinkedProgram::Uniform *uniform = d->findUniform(name))
        return uniform->location;
    if (!d->isLinked() || !name.endsWith(u']') || !ContextState::current())
        return -1;
    const auto known = d->program->elementLocations.constFind(name);
    if (known != d->program->elementLocations.cend())
        return *known;
    const int location = glGetUniformLocation(d->id(), name.toLatin1().constData());
    d->program->elementLocations.insert(name, location);
    return location;
}

int ShaderProgram::attributeLocation(const QString &name) const
{
    if (!d->program)
        return -1;
    const auto found = d->program->attributes.constFind(name);
    return found == d->program->attributes.cend() ? -1 : found->location;
}

unsigned int ShaderProgram::programID() const
{
    return d->id();
}

bool ShaderProgram::isLinked() const
{
    return d->isLinked();
}

void ShaderProgram::setMayShare(bool mayShare)
{
    d->mayShare = mayShare;
}

bool ShaderProgram::refresh()
{
    const auto hasOutgrown = [this](ManagedKind kind) {
        const int pages = d->managedPages[std::size_t(kind)];
        return pages >= 0 && pages < TextureManager::Instance().managedPageClasses(kind);
    };
    if (std::none_of(std::begin(kManagedKinds), std::end(kManagedKinds), hasOutgrown))
        return false;
    compile();
    link();
    return true;
}

void ShaderProgram::setMayFail(bool mayFail)
{
    d->mayFail = mayFail;
}

void ShaderProgram::setLabel(const QString &label)
{
    d->label = label;
    if (const ContextState *state = ContextState::current(); state && d->program && d->program->name.isUsableIn(*state))
        state->labelObject(GL_PROGRAM, d->id(), label);
}

QString ShaderProgram::label() const
{
    return d->label;
}

void ShaderProgram::setFailureHandler(std::function<void(const ShaderFailure &)> handler)
{
    failureHandler() = std::move(handler);
}

} // namespace Brevane::Kvo
