#include "host/pipeline.h"

#include "debuggroup.h"
#include "gl/framebufferobject.h"
#include "gl/givenup.h"
#include "gl/hoststate.h"
#include "gl/opengldevicecontext.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "host/passfactory.h"
#include "host/slotname.h"
#include "host/slotvalue.h"
#include "model/gpumodel.h"
#include "passrows.h"
#include "passtimer.h"
#include "rectangleparts.h"
#include "referenceledger.h"

#include <QByteArray>
#include <QMatrix4x4>
#include <QSet>

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

enum HostValueIndex { kViewport, kCamera, kProjection, kNear, kFar, kModel, kOpaque, kScreen, kLights, kFrame };

// The type of a host value is given as slots give theirs.
struct HostValueType
{
    const char *name;
    const char *slot;
};

constexpr HostValueType kHostValues[] = {
    {"viewport", "Kvo_QRect_Viewport"},
    {"camera", "Kvo_QMatrix4x4_Camera"},
    {"projection", "Kvo_QMatrix4x4_Projection"},
    {"near", "Kvo_float_Near"},
    {"far", "Kvo_float_Far"},
    {"model", "Kvo_KvoGPUModel*_Model"},
    {"opaque", "Kvo_KvoGPUModel*_Opaque"},
    {"screen", "Kvo_KvoFramebuffer*_Screen"},
    {"lights", "Kvo_QList_Lights"},
    {"frame", "Kvo_int_Frame"},
};
constexpr QLatin1StringView kPathPrefix("paths.");
constexpr QLatin1StringView kPathSlot("Kvo_QString_Path");
constexpr QLatin1StringView kViewportSlot("Kvo_QRect_Viewport");

struct Node;

struct Source
{
    enum class Kind { Default, Value, Host, Link };

    Kind kind = Kind::Default;
    QVariant value;
    int host = -1;
    Node *from = nullptr;
    int output = -1;
    RectangleParts parts; ///< Of the host value, where not all of it is meant.
};

struct Node
{
    QString name;
    QString className; // empty: not known
    QByteArray label;
    std::unique_ptr<RenderPass> pass;
    std::vector<Source> inputs;
    bool isSetUp = false;
    unsigned int errorCode = 0;
    QColor clearColor; // invalid: transparent black
    PassTimer timer;
};

// What one frame does with a pass, worked out from the links.
struct Step
{
    struct Link
    {
        int input;
        Node *from;
        int output;
    };

    Node *node = nullptr;
    const StateRow *row = nullptr; ///< What the pass leaves changed; null: not known.
    int viewportInput = -1;
    std::vector<Link> links;
    std::vector<int> hosts; ///< Inputs that are bound to a host value.
    std::vector<int> outputs;
    std::vector<ReferenceLedger::Port> inputPorts;
    std::vector<ReferenceLedger::Port> outputPorts;
    std::vector<ReferenceLedger::Held> held;
};

bool fail(QString *error, const QString &message)
{
    if (error)
        *error = message;
    return false;
}

bool isName(const QString &name)
{
    return !name.isEmpty() && std::all_of(name.begin(), name.end(), [](QChar c) {
        return c.isLetterOrNumber() || c == QLatin1Char('_') || c == QLatin1Char('-');
    });
}

QStringList slotNames(const RenderPass &pass, bool inputs)
{
    QStringList names;
    const int count = inputs ? pass.numInputs() : pass.numOutputs();
    for (int i = 0; i < count; ++i)
        names << (inputs ? pass.inputName(i) : pass.outputName(i));
    return names;
}

QStringList shortNames(const QStringList &names)
{
    QStringList result;
    for (const QString &name : names)
        result << SlotName::parse(name).name;
    return result;
}

// Index of a slot by its full name, or by its last part where that is unique.
int findSlot(const Node &node, bool inputs, const QString &slot, QString *error)
{
    const QStringList names = slotNames(*node.pass, inputs);
    const QStringList brief = shortNames(names);
    if (const qsizetype index = names.indexOf(slot); index >= 0)
        return int(index);
    const qsizetype index = brief.indexOf(slot);
    if (index >= 0 && brief.lastIndexOf(slot) == index)
        return int(index);

    const QString kind = inputs ? QStringLiteral("input") : QStringLiteral("output");
    if (index >= 0) {
        QStringList matches;
        for (qsizetype i = 0; i < names.size(); ++i)
            if (brief[i] == slot)
                matches << names[i];
        fail(error, QStringLiteral("'%1' is short for several %2s of pass '%3': %4")
                        .arg(slot, kind, node.name, matches.join(QLatin1StringView(", "))));
        return -1;
    }
    const QStringList others = slotNames(*node.pass, !inputs);
    if (others.contains(slot) || shortNames(others).contains(slot))
        fail(error, QStringLiteral("'%1' of pass '%2' is not an %3").arg(slot, node.name, kind));
    else if (names.isEmpty())
        fail(error, QStringLiteral("pass '%1' has no %2s").arg(node.name, kind));
    else
        fail(error, QStringLiteral("pass '%1' has no %2 '%3'%4")
                        .arg(node.name, kind, slot,
                             nearestNameHint(slot, slot.startsWith(QLatin1StringView("Kvo_")) ? names : brief)));
    return -1;
}

QString typeText(const QString &slot)
{
    const QString type = SlotName::parse(slot).type;
    return type.isEmpty() ? QStringLiteral("unknown") : type;
}

bool contextIsCurrent()
{
    return !OpenGLDeviceContext::current().isNull();
}

bool names(const QVariant &value, const Texture *texture)
{
    if (value.metaType() == QMetaType(QMetaType::QVariantList)) {
        const QVariantList list = value.toList();
        return std::any_of(list.begin(), list.end(), [texture](const QVariant &v) { return names(v, texture); });
    }
    return textureFromVariant(value) == texture;
}

} // namespace

class PipelinePrivate
{
public:
    struct HostValue
    {
        QString name;
        QString slot; ///< Stands for the type.
        QVariant value;
    };

    PipelinePrivate();

    Node *find(const QString &name, QString *error = nullptr) const;
    Source *findInput(const QString &pass, const QString &slot, Node **node, int *index, QString *error) const;
    int findHostValue(const QString &name, QString *error);
    bool checkNewName(const QString &name, QString *error) const;
    bool checkLink(const Node &from, int output, const Node &to, int input, QString *error) const;
    Node *append(const QString &name, std::unique_ptr<RenderPass> pass);
    void set(Node *node, int input, const Source &source);
    void destroyPass(Node *node);
    void releaseTimer(Node *node);
    /// Whether an input, an output or a host value still names a texture.
    bool isNamed(const Texture *texture) const;
    /// Frees what passes have given up and nothing names.
    void freeGivenUp();
    QString sourceName(const Source &source) const;
    const QVariant &hostValueOf(const Source &source) const;

    /// Brings the steps up to date.
    bool prepare(QString *error);
    std::vector<Node *> sorted(QString *error) const;
    QString nameCycle(const std::vector<Node *> &remaining) const;
    Step makeStep(Node *node) const;
    void learnContext();

    void passInputs(Step &step);
    void setViewport(const Step &step);
    void checkReferences(Step &step);
    void report();

    std::vector<std::unique_ptr<Node>> nodes;
    std::vector<HostValue> hostValues;
    std::vector<Step> steps;
    bool dirty = true;
    int frame = 0;
    ReferenceLedger ledger;
    QStringList faults;
    QSet<QString> reported;
    std::function<void(const QString &, RenderPass *)> observer;
    int idleFrames = 120;
    qint64 poolBytes = -1;
    bool timing = false;
    int history = 120;
    QVector<QPointer<QObject>> givenUp; ///< By the passes of this pipeline.
    QWeakPointer<OpenGLDeviceContext> timerContext; ///< Where the queries are.
    bool contextKnown = false;
    bool hasDebugGroups = false;
    bool hasTimestamps = false;
};

PipelinePrivate::PipelinePrivate()
{
    for (const HostValueType &type : kHostValues)
        hostValues.push_back({QLatin1StringView(type.name), QLatin1StringView(type.slot), QVariant()});
    hostValues[kFrame].value = 0;
}

Node *PipelinePrivate::find(const QString &name, QString *error) const
{
    QStringList names;
    for (const auto &node : nodes) {
        if (node->name == name)
            return node.get();
        names << node->name;
    }
    fail(error, QStringLiteral("there is no pass '%1'%2").arg(name, nearestNameHint(name, names)));
    return nullptr;
}

Source *PipelinePrivate::findInput(const QString &pass, const QString &slot, Node **node, int *index,
                                   QString *error) const
{
    *node = find(pass, error);
    if (!*node)
        return nullptr;
    *index = findSlot(**node, true, slot, error);
    if (*index < 0)
        return nullptr;
    // A pass may have grown slots since it was added.
    if (int((*node)->inputs.size()) <= *index)
        (*node)->inputs.resize((*node)->pass->numInputs());
    return &(*node)->inputs[*index];
}

int PipelinePrivate::findHostValue(const QString &name, QString *error)
{
    for (size_t i = 0; i < hostValues.size(); ++i)
        if (hostValues[i].name == name)
            return int(i);
    if (name.startsWith(kPathPrefix) && isName(name.mid(kPathPrefix.size()))) {
        hostValues.push_back({name, kPathSlot, QVariant(QString())});
        return int(hostValues.size()) - 1;
    }
    fail(error, QStringLiteral("there is no host value '%1'%2")
                    .arg(name, nearestNameHint(name, Pipeline::hostValueNames() << QStringLiteral("paths.NAME"))));
    return -1;
}

bool PipelinePrivate::checkNewName(const QString &name, QString *error) const
{
    if (!isName(name))
        return fail(error, QStringLiteral("'%1' is no name for a pass: use letters, digits, '_' and '-'").arg(name));
    if (find(name))
        return fail(error, QStringLiteral("there is a pass '%1' already").arg(name));
    return true;
}

bool PipelinePrivate::checkLink(const Node &from, int output, const Node &to, int input, QString *error) const
{
    const QString source = from.pass->outputName(output);
    const QString target = to.pass->inputName(input);
    if (slotTypesMatch(source, target))
        return true;
    return fail(error, QStringLiteral("cannot link '%1.%2' (%3) to '%4.%5' (%6)")
                           .arg(from.name, source, typeText(source), to.name, target, typeText(target)));
}

Node *PipelinePrivate::append(const QString &name, std::unique_ptr<RenderPass> pass)
{
    auto node = std::make_unique<Node>();
    node->name = name;
    node->label = name.toUtf8();
    node->inputs.resize(pass->numInputs());
    node->errorCode = pass->errorCode();
    node->pass = std::move(pass);
    node->timer.setHistory(history);
    nodes.push_back(std::move(node));
    dirty = true;
    return nodes.back().get();
}

void PipelinePrivate::set(Node *node, int input, const Source &source)
{
    node->inputs[input] = source;
    if (source.kind == Source::Kind::Value)
        node->pass->setInput(input, source.value);
    else
        // What a link brought last may be gone by the next frame.
        node->pass->setInput(input, node->pass->defaultValue(input));
    dirty = true;
}

void PipelinePrivate::destroyPass(Node *node)
{
    const GivenUpCollector collector(givenUp);
    if (node->isSetUp && contextIsCurrent()) {
        node->pass->teardown(nullptr);
        node->pass->teardownContextData(nullptr);
    }
    releaseTimer(node);
    node->isSetUp = false;
    node->pass.reset();
}

// Queries belong to one context, and their names mean others in another one.
void PipelinePrivate::releaseTimer(Node *node)
{
    const QSharedPointer<OpenGLDeviceContext> context = timerContext.toStrongRef();
    if (context && OpenGLDeviceContext::current() == context)
        node->timer.release();
    else
        node->timer.forget();
}

bool PipelinePrivate::isNamed(const Texture *texture) const
{
    for (const auto &node : nodes) {
        for (int i = 0; i < node->pass->numOutputs(); ++i) {
            if (names(node->pass->output(i), texture))
                return true;
        }
        for (const Source &source : node->inputs) {
            if (names(source.value, texture))
                return true;
        }
    }
    return std::any_of(hostValues.begin(), hostValues.end(),
                       [texture](const HostValue &host) { return names(host.value, texture); });
}

void PipelinePrivate::freeGivenUp()
{
    for (const QPointer<QObject> &object : std::exchange(givenUp, {})) {
        const auto *texture = qobject_cast<const Texture *>(object.data());
        if (texture && isNamed(texture))
            givenUp.append(object);
        else
            delete object.data();
    }
}

QString PipelinePrivate::sourceName(const Source &source) const
{
    switch (source.kind) {
    case Source::Kind::Host: return QLatin1Char('@') + hostValues[source.host].name + source.parts.text();
    case Source::Kind::Link: return source.from->name + QLatin1Char('.') + source.from->pass->outputName(source.output);
    default: return QString();
    }
}

const QVariant &PipelinePrivate::hostValueOf(const Source &source) const
{
    const QVariant &value = hostValues[source.host].value;
    return source.parts.isEmpty() ? value : source.parts.of(value.toRect());
}

std::vector<Node *> PipelinePrivate::sorted(QString *error) const
{
    // Of the passes whose sources have all run, the one that was added first comes next.
    std::vector<Node *> remaining, result;
    for (const auto &node : nodes)
        remaining.push_back(node.get());
    while (!remaining.empty()) {
        const auto ready = std::find_if(remaining.begin(), remaining.end(), [&](const Node *node) {
            return std::all_of(node->inputs.begin(), node->inputs.end(), [&](const Source &source) {
                return source.kind != Source::Kind::Link
                       || std::find(result.begin(), result.end(), source.from) != result.end();
            });
        });
        if (ready == remaining.end()) {
            fail(error, QStringLiteral("the links form a cycle: %1").arg(nameCycle(remaining)));
            return {};
        }
        result.push_back(*ready);
        remaining.erase(ready);
    }
    return result;
}

QString PipelinePrivate::nameCycle(const std::vector<Node *> &remaining) const
{
    // Every pass here waits for another one here, so walking upstream must come round.
    std::vector<Node *> walk{remaining.front()};
    while (true) {
        const auto waitsFor =
            std::find_if(walk.back()->inputs.begin(), walk.back()->inputs.end(), [&](const Source &s) {
                return s.kind == Source::Kind::Link
                       && std::find(remaining.begin(), remaining.end(), s.from) != remaining.end();
            });
        Node *upstream = waitsFor->from;
        const bool closed = std::find(walk.begin(), walk.end(), upstream) != walk.end();
        walk.push_back(upstream);
        if (!closed)
            continue;
        QStringList names{upstream->name};
        for (auto node = walk.rbegin() + 1; node != walk.rend(); ++node) {
            names << (*node)->name;
            if (*node == upstream)
                break;
        }
        return names.join(QLatin1StringView(" -> "));
    }
}

Step PipelinePrivate::makeStep(Node *node) const
{
    Step step;
    step.node = node;
    RenderPass &pass = *node->pass;
    step.row = stateRowOf(pass);
    step.viewportInput = int(slotNames(pass, true).indexOf(kViewportSlot));
    for (int i = 0; i < int(node->inputs.size()); ++i) {
        const Source &source = node->inputs[i];
        if (source.kind == Source::Kind::Host)
            step.hosts.push_back(i);
        if (source.kind != Source::Kind::Link)
            continue;
        step.links.push_back({i, source.from, source.output});
        step.inputPorts.push_back({pass.inputName(i)});
    }
    pass.resetNumOutputUsers();
    for (int output = 0; output < pass.numOutputs(); ++output) {
        int users = 0;
        for (const auto &other : nodes)
            for (const Source &source : other->inputs)
                users += source.kind == Source::Kind::Link && source.from == node && source.output == output;
        pass.setNumOutputUsers(output, users);
        if (users == 0)
            continue;
        step.outputs.push_back(output);
        step.outputPorts.push_back({pass.outputName(output), nullptr, users});
    }
    step.held.resize(step.outputs.size());
    return step;
}

bool PipelinePrivate::prepare(QString *error)
{
    if (!dirty)
        return true;
    const std::vector<Node *> order = sorted(error);
    if (order.size() != nodes.size())
        return false;
    steps.clear();
    for (Node *node : order)
        steps.push_back(makeStep(node));
    dirty = false;
    return true;
}

void PipelinePrivate::learnContext()
{
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    if (contextKnown && timerContext == context)
        return;
    for (const auto &node : nodes)
        node->timer.forget();
    timerContext = context;
    const int version = epoxy_gl_version();
    hasDebugGroups = version >= 43 || epoxy_has_gl_extension("GL_KHR_debug");
    hasTimestamps = version >= 33 || epoxy_has_gl_extension("GL_ARB_timer_query");
    contextKnown = true;
}

void PipelinePrivate::passInputs(Step &step)
{
    RenderPass &pass = *step.node->pass;
    for (const int input : step.hosts)
        pass.setInput(input, hostValueOf(step.node->inputs[size_t(input)]));
    for (size_t i = 0; i < step.links.size(); ++i) {
        const Step::Link &link = step.links[i];
        const QVariant value = link.from->pass->output(link.output);
        step.inputPorts[i].texture = textureFromVariant(value);
        pass.setInput(link.input, value);
    }
}

void PipelinePrivate::setViewport(const Step &step)
{
    QRect viewport = hostValues[kViewport].value.toRect();
    if (step.viewportInput >= 0 && step.viewportInput < int(step.node->inputs.size())) {
        const Source &source = step.node->inputs[step.viewportInput];
        switch (source.kind) {
        case Source::Kind::Default: viewport = step.node->pass->defaultValue(step.viewportInput).toRect(); break;
        case Source::Kind::Value: viewport = source.value.toRect(); break;
        case Source::Kind::Host: viewport = hostValueOf(source).toRect(); break;
        case Source::Kind::Link: viewport = source.from->pass->output(source.output).toRect(); break;
        }
    }
    // Targets of passes begin at 0, wherever the rectangle lies in the window.
    glViewport(0, 0, std::max(viewport.width(), 0), std::max(viewport.height(), 0));
}

void PipelinePrivate::checkReferences(Step &step)
{
    RenderPass &pass = *step.node->pass;
    for (size_t i = 0; i < step.outputs.size(); ++i)
        step.outputPorts[i].texture = textureFromVariant(pass.output(step.outputs[i]));
    ledger.afterStart(step.node->name, step.inputPorts, step.outputPorts, step.held, &faults);
    if (pass.errorCode() == step.node->errorCode)
        return;
    step.node->errorCode = pass.errorCode();
    if (step.node->errorCode != 0)
        faults << QStringLiteral("pass '%1' reports error %2").arg(step.node->name).arg(int(step.node->errorCode));
}

void PipelinePrivate::report()
{
    for (const QString &fault : std::as_const(faults)) {
        if (reported.contains(fault))
            continue;
        reported.insert(fault);
        qWarning("%s", qPrintable(fault));
    }
}

Pipeline::Pipeline() : d(new PipelinePrivate) {}

Pipeline::~Pipeline()
{
    const bool anySetUp = std::any_of(d->nodes.begin(), d->nodes.end(), [](const auto &node) { return node->isSetUp; });
    if (anySetUp && contextIsCurrent())
        teardown();
    {
        const GivenUpCollector collector(d->givenUp);
        d->nodes.clear();
    }
    d->freeGivenUp();
}

bool Pipeline::add(const QString &name, std::unique_ptr<RenderPass> pass, QString *error)
{
    if (!d->checkNewName(name, error))
        return false;
    if (!pass)
        return fail(error, QStringLiteral("there is no pass to add as '%1'").arg(name));
    d->append(name, std::move(pass));
    return true;
}

bool Pipeline::add(const QString &name, const QString &className, QString *error)
{
    if (!d->checkNewName(name, error))
        return false;
    std::unique_ptr<RenderPass> pass = passFactory().make(className);
    if (!pass)
        return fail(error, QStringLiteral("there is no pass class '%1'%2")
                               .arg(className, nearestNameHint(className, passFactory().classNames())));
    d->append(name, std::move(pass))->className = className;
    return true;
}

bool Pipeline::insert(const QString &name, std::unique_ptr<RenderPass> pass, const QString &to, const QString &toSlot,
                      const QString &inputSlot, const QString &outputSlot, QString *error)
{
    Node *target = nullptr;
    int targetInput = -1;
    const Source *found = d->findInput(to, toSlot, &target, &targetInput, error);
    if (!found)
        return false;
    const Source before = *found;
    if (before.kind != Source::Kind::Link)
        return fail(error, QStringLiteral("input '%1' of pass '%2' is not linked").arg(toSlot, to));
    if (!add(name, std::move(pass), error))
        return false;

    Node *inserted = d->nodes.back().get();
    const int input = findSlot(*inserted, true, inputSlot, error);
    const int output = input < 0 ? -1 : findSlot(*inserted, false, outputSlot, error);
    if (output < 0 || !d->checkLink(*before.from, before.output, *inserted, input, error)
        || !d->checkLink(*inserted, output, *target, targetInput, error)) {
        d->nodes.pop_back();
        return false;
    }
    d->set(inserted, input, before);
    d->set(target, targetInput, {Source::Kind::Link, QVariant(), -1, inserted, output, {}});
    return true;
}

bool Pipeline::replace(const QString &name, std::unique_ptr<RenderPass> pass, QString *error)
{
    Node *node = d->find(name, error);
    if (!node)
        return false;
    if (!pass)
        return fail(error, QStringLiteral("there is no pass to put in the place of '%1'").arg(name));

    const QStringList inputs = slotNames(*pass, true);
    const QStringList outputs = slotNames(*pass, false);
    std::vector<Source> sources(pass->numInputs());
    for (int i = 0; i < int(node->inputs.size()); ++i) {
        if (node->inputs[i].kind == Source::Kind::Default)
            continue;
        const qsizetype index = inputs.indexOf(node->pass->inputName(i));
        if (index < 0)
            return fail(error, QStringLiteral("the pass for '%1' has no input '%2', which is in use")
                                   .arg(name, node->pass->inputName(i)));
        sources[index] = node->inputs[i];
    }
    // Collected first, so that a failure changes nothing.
    std::vector<std::pair<Source *, int>> users;
    for (const auto &other : d->nodes) {
        for (Source &source : other->inputs) {
            if (source.kind != Source::Kind::Link || source.from != node)
                continue;
            const qsizetype index = outputs.indexOf(node->pass->outputName(source.output));
            if (index < 0)
                return fail(error, QStringLiteral("the pass for '%1' has no output '%2', which is in use")
                                       .arg(name, node->pass->outputName(source.output)));
            users.emplace_back(&source, int(index));
        }
    }
    for (const auto &[source, output] : users)
        source->output = output;

    d->destroyPass(node);
    node->className.clear();
    node->pass = std::move(pass);
    node->errorCode = node->pass->errorCode();
    node->timer.setHistory(d->history);
    node->inputs.assign(sources.size(), Source());
    for (int i = 0; i < int(sources.size()); ++i)
        if (sources[i].kind != Source::Kind::Default)
            d->set(node, i, sources[i]);
    d->dirty = true;
    return true;
}

bool Pipeline::remove(const QString &name, QString *error)
{
    Node *node = d->find(name, error);
    if (!node)
        return false;
    for (const auto &other : d->nodes)
        for (int i = 0; i < int(other->inputs.size()); ++i)
            if (other->inputs[i].kind == Source::Kind::Link && other->inputs[i].from == node)
                d->set(other.get(), i, Source());
    d->destroyPass(node);
    d->steps.clear();
    d->dirty = true;
    std::erase_if(d->nodes, [node](const auto &other) { return other.get() == node; });
    return true;
}

bool Pipeline::setClearColor(const QString &pass, const QColor &color, QString *error)
{
    Node *node = d->find(pass, error);
    if (!node)
        return false;
    node->clearColor = color;
    return true;
}

bool Pipeline::rename(const QString &name, const QString &newName, QString *error)
{
    Node *node = d->find(name, error);
    if (!node || (name != newName && !d->checkNewName(newName, error)))
        return false;
    node->name = newName;
    node->label = newName.toUtf8();
    return true;
}

RenderPass *Pipeline::pass(const QString &name) const
{
    const Node *node = d->find(name);
    return node ? node->pass.get() : nullptr;
}

QString Pipeline::className(const QString &name) const
{
    const Node *node = d->find(name);
    return node ? node->className : QString();
}

QStringList Pipeline::passNames() const
{
    QStringList names;
    for (const auto &node : d->nodes)
        names << node->name;
    return names;
}

QStringList Pipeline::order(QString *error) const
{
    QStringList names;
    for (const Node *node : d->sorted(error))
        names << node->name;
    return names;
}

bool Pipeline::connect(const QString &from, const QString &fromSlot, const QString &to, const QString &toSlot,
                       QString *error)
{
    Node *source = d->find(from, error);
    if (!source)
        return false;
    const int output = findSlot(*source, false, fromSlot, error);
    Node *target = nullptr;
    int input = -1;
    if (output < 0 || !d->findInput(to, toSlot, &target, &input, error)
        || !d->checkLink(*source, output, *target, input, error))
        return false;
    d->set(target, input, {Source::Kind::Link, QVariant(), -1, source, output, {}});
    return true;
}

bool Pipeline::connect(const QString &from, const QString &to, QString *error)
{
    for (const QString &end : {from, to})
        if (!end.contains(QLatin1Char('.')))
            return fail(error, QStringLiteral("'%1' is not of the form PASS.SLOT").arg(end));
    return connect(from.section(QLatin1Char('.'), 0, 0), from.section(QLatin1Char('.'), 1),
                   to.section(QLatin1Char('.'), 0, 0), to.section(QLatin1Char('.'), 1), error);
}

bool Pipeline::bind(const QString &pass, const QString &slot, const QString &hostValue, QString *error)
{
    Node *node = nullptr;
    int input = -1;
    if (!d->findInput(pass, slot, &node, &input, error))
        return false;
    const qsizetype bracket = hostValue.indexOf(QLatin1Char('['));
    const QString name = bracket < 0 ? hostValue : hostValue.left(bracket);
    const int host = d->findHostValue(name, error);
    if (host < 0)
        return false;
    const QString target = node->pass->inputName(input);
    const QString type = d->hostValues[host].slot;
    if (!slotTypesMatch(type, target))
        return fail(error, QStringLiteral("cannot bind host value '%1' (%2) to '%3.%4' (%5)")
                               .arg(name, typeText(type), pass, target, typeText(target)));
    Source source;
    source.kind = Source::Kind::Host;
    source.host = host;
    QString reason;
    if (bracket >= 0 && SlotName::parse(type).type != QLatin1StringView("QRect"))
        return fail(
            error, QStringLiteral("host value '%1' (%2) has no parts: only rectangles have").arg(name, typeText(type)));
    if (bracket >= 0 && !source.parts.parse(hostValue.mid(bracket), &reason))
        return fail(error, QStringLiteral("input '%1' of pass '%2': %3").arg(target, pass, reason));
    d->set(node, input, source);
    return true;
}

bool Pipeline::setValue(const QString &pass, const QString &slot, const QVariant &value, QString *error)
{
    Node *node = nullptr;
    int input = -1;
    if (!d->findInput(pass, slot, &node, &input, error))
        return false;
    d->set(node, input, {Source::Kind::Value, value});
    return true;
}

bool Pipeline::setValueText(const QString &pass, const QString &slot, const QString &text, QString *error)
{
    if (text.startsWith(QLatin1Char('@')))
        return bind(pass, slot, text.mid(1), error);
    QString name;
    QVariant hint, value;
    QString reason;
    if (!inputSlot(pass, slot, &name, &hint, error))
        return false;
    if (!parseSlotValue(name, text, &value, &reason, hint))
        return fail(error, QStringLiteral("pass '%1': %2").arg(pass, reason));
    return setValue(pass, name, value, error);
}

bool Pipeline::inputSlot(const QString &pass, const QString &slot, QString *fullName, QVariant *defaultValue,
                         QString *error) const
{
    Node *node = nullptr;
    int input = -1;
    if (!d->findInput(pass, slot, &node, &input, error))
        return false;
    *fullName = node->pass->inputName(input);
    *defaultValue = node->pass->defaultValue(input);
    return true;
}

bool Pipeline::reset(const QString &pass, const QString &slot, QString *error)
{
    Node *node = nullptr;
    int input = -1;
    if (!d->findInput(pass, slot, &node, &input, error))
        return false;
    d->set(node, input, Source());
    return true;
}

QString Pipeline::source(const QString &pass, const QString &slot) const
{
    Node *node = nullptr;
    int input = -1;
    const Source *source = d->findInput(pass, slot, &node, &input, nullptr);
    return source ? d->sourceName(*source) : QString();
}

QVector<PassInput> Pipeline::inputs(const QString &pass) const
{
    QVector<PassInput> result;
    const Node *node = d->find(pass);
    if (!node)
        return result;
    for (int i = 0; i < node->pass->numInputs(); ++i) {
        // A pass may have grown slots since it was added.
        const Source source = i < int(node->inputs.size()) ? node->inputs[size_t(i)] : Source();
        PassInput input;
        input.slot = node->pass->inputName(i);
        switch (source.kind) {
        case Source::Kind::Default: input.value = node->pass->defaultValue(i); break;
        case Source::Kind::Value:
            input.kind = PassInput::Kind::Value;
            input.value = source.value;
            break;
        case Source::Kind::Host:
            input.kind = PassInput::Kind::Host;
            input.source = d->sourceName(source);
            break;
        case Source::Kind::Link:
            input.kind = PassInput::Kind::Link;
            input.source = source.from->pass->outputName(source.output);
            input.sourcePass = source.from->name;
            break;
        }
        result << input;
    }
    return result;
}

bool Pipeline::uses(const QString &hostValue) const
{
    for (const auto &node : d->nodes)
        for (const Source &source : node->inputs)
            if (source.kind == Source::Kind::Host && d->hostValues[source.host].name == hostValue)
                return true;
    return false;
}

QStringList Pipeline::warnings() const
{
    QStringList result;
    for (const auto &node : d->nodes) {
        const qsizetype index = slotNames(*node->pass, true).indexOf(kViewportSlot);
        if (index >= 0 && node->inputs[index].kind == Source::Kind::Default
            && node->pass->defaultValue(int(index)).toRect().isEmpty())
            result << QStringLiteral("pass '%1' has no viewport, so its pictures are empty").arg(node->name);
    }
    return result;
}

QVariant Pipeline::output(const QString &pass, const QString &slot, QString *error) const
{
    const Node *node = d->find(pass, error);
    const int index = node ? findSlot(*node, false, slot, error) : -1;
    return index < 0 ? QVariant() : node->pass->output(index);
}

bool Pipeline::outputSlot(const QString &pass, const QString &slot, QString *fullName, QString *error) const
{
    const Node *node = d->find(pass, error);
    const int index = node ? findSlot(*node, false, slot, error) : -1;
    if (index < 0)
        return false;
    *fullName = node->pass->outputName(index);
    return true;
}

int Pipeline::users(const QString &pass, const QString &slot) const
{
    const Node *node = d->find(pass);
    const int index = node ? findSlot(*node, false, slot, nullptr) : -1;
    int users = 0;
    for (const auto &other : d->nodes)
        for (const Source &source : other->inputs)
            users += index >= 0 && source.kind == Source::Kind::Link && source.from == node && source.output == index;
    return users;
}

void Pipeline::setViewport(const QRect &viewport)
{
    d->hostValues[kViewport].value = viewport;
}

void Pipeline::setCamera(const QMatrix4x4 &camera, const QMatrix4x4 &projection, float nearPlane, float farPlane)
{
    d->hostValues[kCamera].value = QVariant::fromValue(camera);
    d->hostValues[kProjection].value = QVariant::fromValue(projection);
    d->hostValues[kNear].value = nearPlane;
    d->hostValues[kFar].value = farPlane;
}

void Pipeline::setModel(GPUModel *model, GPUModel *opaque)
{
    d->hostValues[kModel].value = QVariant::fromValue(model);
    d->hostValues[kOpaque].value = QVariant::fromValue(opaque ? opaque : model);
}

void Pipeline::setScreen(FramebufferObject *screen)
{
    d->hostValues[kScreen].value = framebufferToVariant(screen);
}

bool Pipeline::setHostValue(const QString &name, const QVariant &value, QString *error)
{
    const int index = d->findHostValue(name, error);
    if (index < 0)
        return false;
    d->hostValues[index].value = value;
    return true;
}

QVariant Pipeline::hostValue(const QString &name) const
{
    for (const PipelinePrivate::HostValue &host : d->hostValues)
        if (host.name == name)
            return host.value;
    return QVariant();
}

QStringList Pipeline::hostValueNames()
{
    QStringList names;
    for (const HostValueType &type : kHostValues)
        names << QLatin1StringView(type.name);
    return names;
}

bool Pipeline::setup(RenderCallbacks *callbacks, QString *error)
{
    if (!contextIsCurrent())
        return fail(error, QStringLiteral("no OpenGL context of version 3.2 or later is current"));
    if (!d->prepare(error))
        return false;
    d->learnContext();
    for (const Step &step : d->steps) {
        if (step.node->isSetUp)
            continue;
        step.node->pass->setup(callbacks);
        step.node->isSetUp = true;
    }
    return true;
}

bool Pipeline::render(RenderCallbacks *callbacks, QString *error)
{
    if (!setup(callbacks, error))
        return false;
    if (!d->givenUp.isEmpty())
        d->freeGivenUp();
    const DefaultState state;
    d->faults.clear();
    d->ledger.beginFrame();
    d->hostValues[kFrame].value = d->frame;
    for (const Step &step : d->steps)
        step.node->pass->beginFrame(callbacks);
    for (Step &step : d->steps) {
        Node &node = *step.node;
        const DebugGroup group(d->hasDebugGroups, node.label.constData());
        d->passInputs(step);
        d->setViewport(step);
        if (const QColor &c = node.clearColor; c.isValid())
            glClearColor(c.redF(), c.greenF(), c.blueF(), c.alphaF());
        d->ledger.beforeStart(step.inputPorts);
        if (d->timing)
            node.timer.begin(d->hasTimestamps);
        {
            const GivenUpCollector collector(d->givenUp);
            const DefaultState::Known known(step.row != nullptr);
            node.pass->start(callbacks);
        }
        if (d->timing)
            node.timer.end();
        d->checkReferences(step);
        if (d->observer)
            d->observer(node.name, node.pass.get());
        // The next one, and the host, find nothing of this one.
        if (step.row && !d->observer)
            DefaultState::resetAfter(*step.row);
        else
            DefaultState::resetAll();
        if (node.clearColor.isValid())
            glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
    }
    for (const Step &step : d->steps)
        step.node->pass->endFrame(callbacks);
    ++d->frame;
    d->report();
    TextureManager &textures = TextureManager::Instance();
    textures.advanceFrame();
    textures.trim(d->idleFrames, d->poolBytes);
    return true;
}

void Pipeline::teardown(RenderCallbacks *callbacks)
{
    for (auto node = d->nodes.rbegin(); node != d->nodes.rend(); ++node) {
        if (!(*node)->isSetUp)
            continue;
        (*node)->pass->teardown(callbacks);
        (*node)->isSetUp = false;
    }
    teardownContextData(callbacks);
}

void Pipeline::teardownContextData(RenderCallbacks *callbacks)
{
    for (auto node = d->nodes.rbegin(); node != d->nodes.rend(); ++node) {
        (*node)->pass->teardownContextData(callbacks);
        d->releaseTimer(node->get());
    }
    d->contextKnown = false;
}

int Pipeline::frameNumber() const
{
    return d->frame;
}

void Pipeline::setPassObserver(std::function<void(const QString &, RenderPass *)> observer)
{
    d->observer = std::move(observer);
}

QStringList Pipeline::faults() const
{
    return d->faults;
}

void Pipeline::setPoolLimits(int idleFrames, qint64 bytes)
{
    d->idleFrames = idleFrames;
    d->poolBytes = bytes;
}

void Pipeline::setTimingEnabled(bool enabled)
{
    d->timing = enabled;
}

void Pipeline::setTimingHistory(int frames)
{
    d->history = frames;
    for (const auto &node : d->nodes)
        node->timer.setHistory(frames);
}

QVector<PassTiming> Pipeline::timings(bool wait)
{
    QVector<PassTiming> result;
    if (!d->prepare(nullptr))
        return result;
    for (Step &step : d->steps) {
        if (contextIsCurrent())
            step.node->timer.collect(wait);
        result << step.node->timer.result(step.node->name);
    }
    return result;
}

} // namespace Brevane::Kvo
