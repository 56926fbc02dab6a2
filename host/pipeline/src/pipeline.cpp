#include "host/pipeline.h"

#include "core/hostcode.h"
#include "core/renderpass.h"
#include "core/slotinfo.h"
#include "core/slottypes.h"
#include "failure.h"
#include "gl/framebufferobject.h"
#include "host/passfactory.h"
#include "host/slotname.h"
#include "host/slotvalue.h"
#include "hostvalues.h"
#include "model/gpumodel.h"
#include "passgraph.h"
#include "pipelinechecks.h"
#include "pipelineframe.h"

#include <QMatrix4x4>

#include <algorithm>
#include <iterator>
#include <utility>

namespace Brevane::Kvo {

namespace {

// "Pass.Slot", taken apart at its first dot.
bool parseEnd(const QString &end, QString *pass, QString *slot, QString *error)
{
    *pass = end.section(QLatin1Char('.'), 0, 0);
    *slot = end.section(QLatin1Char('.'), 1);
    return end.contains(QLatin1Char('.')) || fail(error, QStringLiteral("'%1' is not of the form PASS.SLOT").arg(end));
}

// Stands in for an error text that the host did not ask for, and says it: a typing error in a name would otherwise be
// seen in the picture only.
class SaidReason
{
public:
    explicit SaidReason(QString **error) : _isAsked(*error)
    {
        if (!_isAsked)
            *error = &_text;
    }
    SaidReason(const SaidReason &) = delete;
    SaidReason &operator=(const SaidReason &) = delete;
    ~SaidReason()
    {
        if (_text.isEmpty())
            return;
        const HostCode hostCode;
        qWarning("Pipeline: %s", qPrintable(_text));
    }

private:
    bool _isAsked;
    QString _text;
};

// Why a value is none for a slot, going by its name where nobody has said more of it: "takes a rectangle, not a QSize".
// A pass would read it as none. Whether a list is taken for one of its elements such a name does not say.
QString misfitOf(const QString &slot, const SlotInfo *info, const QVariant &value)
{
    static constexpr SlotInfo kByName{.name = "", .meaning = ""};
    const TypeMismatch wrong = typeMismatch(slot, info ? info : &kByName, value);
    if (!wrong || (!info && value.metaType().id() == QMetaType::QVariantList))
        return QString();
    const QLatin1StringView type(wrong.given.name());
    const QString what = value.metaType().id() == QMetaType::QString
                             ? QStringLiteral("the text \"%1\"").arg(value.toString())
                         : type.startsWith(QLatin1Char('i')) ? QStringLiteral("an %1").arg(type)
                                                             : QStringLiteral("a %1").arg(type);
    const QString where = wrong.element < 0 ? QString() : QStringLiteral(" in element %1").arg(wrong.element);
    return QStringLiteral("takes a %1, not %2%3").arg(QLatin1StringView(wrong.wanted), what, where);
}

} // namespace

class PipelinePrivate
{
public:
    Node *append(std::unique_ptr<Node> node);
    QString sourceName(const Source &source) const;
    static std::unique_ptr<RenderPass> make(const QString &className, QString *error);

    PassGraph graph;
    HostValues hosts;
    PipelineFrame frame{graph, hosts};
    QString inOnePiece;
    bool lacksContext = false; ///< In the last frame.
};

Node *PipelinePrivate::append(std::unique_ptr<Node> node)
{
    node->timer.setHistory(frame.history);
    return graph.append(std::move(node));
}

std::unique_ptr<RenderPass> PipelinePrivate::make(const QString &className, QString *error)
{
    std::unique_ptr<RenderPass> pass = passFactory().make(className);
    if (!pass)
        fail(error, QStringLiteral("there is no pass class '%1'%2")
                        .arg(className, nearestNameHint(className, passFactory().classNames())));
    return pass;
}

QString PipelinePrivate::sourceName(const Source &source) const
{
    if (const auto *host = std::get_if<HostSource>(&source))
        return QLatin1Char('@') + hosts.name(host->host) + host->parts.text();
    if (const auto *link = std::get_if<LinkSource>(&source))
        return link->from->name + QLatin1Char('.') + link->from->pass->outputName(link->output);
    return QString();
}

Pipeline::Pipeline() : d(new PipelinePrivate) {}

Pipeline::~Pipeline()
{
    d->frame.destroyPasses();
}

bool Pipeline::add(const QString &name, std::unique_ptr<RenderPass> pass, QString *error)
{
    const SaidReason said(&error);
    if (!d->graph.checkNewName(name, error))
        return false;
    if (!pass)
        return fail(error, QStringLiteral("there is no pass to add as '%1'").arg(name));
    d->append(PassGraph::makeNode(name, std::move(pass)));
    return true;
}

bool Pipeline::add(const QString &name, const QString &className, QString *error)
{
    const SaidReason said(&error);
    if (!d->graph.checkNewName(name, error))
        return false;
    std::unique_ptr<RenderPass> pass = d->make(className, error);
    if (!pass)
        return false;
    d->append(PassGraph::makeNode(name, std::move(pass)))->className = className;
    return true;
}

bool Pipeline::insert(const QString &name, std::unique_ptr<RenderPass> pass, const QString &to, const QString &toSlot,
                      const QString &inputSlot, const QString &outputSlot, QString *error)
{
    const SaidReason said(&error);
    const InputPort target = d->graph.input(to, toSlot, error);
    if (!target)
        return false;
    if (!target.link())
        return fail(error, QStringLiteral("input '%1' of pass '%2' is not linked").arg(toSlot, to));
    if (!d->graph.checkNewName(name, error))
        return false;
    if (!pass)
        return fail(error, QStringLiteral("there is no pass to add as '%1'").arg(name));

    // Added once both links are known to fit.
    std::unique_ptr<Node> node = PassGraph::makeNode(name, std::move(pass));
    const LinkSource before = *target.link();
    const InputPort in = PassGraph::inputOf(node.get(), inputSlot, error);
    const OutputPort out = in ? PassGraph::outputOf(node.get(), outputSlot, error) : OutputPort();
    if (!out || !PassGraph::checkTypes({before.from, before.output}, in, error)
        || !PassGraph::checkTypes(out, target, error))
        return false;
    d->append(std::move(node));
    d->graph.set(in, before);
    d->graph.set(target, LinkSource{out.node, out.index});
    return true;
}

bool Pipeline::insert(const QString &name, const QString &className, const QString &to, const QString &toSlot,
                      const QString &inputSlot, const QString &outputSlot, QString *error)
{
    const SaidReason said(&error);
    std::unique_ptr<RenderPass> pass = d->make(className, error);
    if (!pass || !insert(name, std::move(pass), to, toSlot, inputSlot, outputSlot, error))
        return false;
    d->graph.find(name)->className = className;
    return true;
}

bool Pipeline::replace(const QString &name, std::unique_ptr<RenderPass> pass, QString *error)
{
    const SaidReason said(&error);
    Node *node = d->graph.find(name, error);
    if (!node)
        return false;
    if (!pass)
        return fail(error, QStringLiteral("there is no pass to put in the place of '%1'").arg(name));
    if (d->frame.isRunning)
        return fail(error, QStringLiteral("pass '%1' cannot be replaced while a frame runs").arg(name));
    std::unique_ptr<RenderPass> before = d->graph.replace(node, std::move(pass), error);
    if (!before)
        return false;
    d->frame.destroyPass(node, std::move(before));
    node->timer.setHistory(d->frame.history);
    return true;
}

bool Pipeline::replace(const QString &name, const QString &className, QString *error)
{
    const SaidReason said(&error);
    if (!d->graph.find(name, error))
        return false;
    std::unique_ptr<RenderPass> pass = d->make(className, error);
    if (!pass || !replace(name, std::move(pass), error))
        return false;
    d->graph.find(name)->className = className;
    return true;
}

bool Pipeline::setEnabled(const QString &name, bool enabled, QString *error)
{
    const SaidReason said(&error);
    Node *node = d->graph.find(name, error);
    if (node)
        d->graph.setOn(node, enabled);
    return node != nullptr;
}

bool Pipeline::isEnabled(const QString &name) const
{
    const Node *node = d->graph.find(name);
    return node && node->isOn;
}

QString Pipeline::bypassSlot(const QString &pass, const QString &outputSlot) const
{
    const OutputPort output = d->graph.output(pass, outputSlot, nullptr);
    const int input = output ? PassGraph::bypassOf(output.node, output.index) : -1;
    return input < 0 ? QString() : output.node->pass->inputName(input);
}

bool Pipeline::remove(const QString &name, QString *error)
{
    const SaidReason said(&error);
    Node *node = d->graph.find(name, error);
    if (!node)
        return false;
    if (d->frame.isRunning)
        return fail(error, QStringLiteral("pass '%1' cannot be removed while a frame runs").arg(name));
    const std::unique_ptr<Node> taken = d->graph.take(node);
    d->frame.destroyPass(node, std::move(taken->pass));
    return true;
}

bool Pipeline::setClearColor(const QString &pass, const QColor &color, QString *error)
{
    const SaidReason said(&error);
    Node *node = d->graph.find(pass, error);
    if (!node)
        return false;
    node->clearColor = color;
    return true;
}

QColor Pipeline::clearColor(const QString &pass) const
{
    const Node *node = d->graph.find(pass);
    return node ? node->clearColor : QColor();
}

bool Pipeline::rename(const QString &name, const QString &newName, QString *error)
{
    const SaidReason said(&error);
    Node *node = d->graph.find(name, error);
    if (!node || (name != newName && !d->graph.checkNewName(newName, error)))
        return false;
    node->name = newName;
    node->label = newName.toUtf8();
    return true;
}

RenderPass *Pipeline::pass(const QString &name) const
{
    const Node *node = d->graph.find(name);
    return node ? node->pass.get() : nullptr;
}

QString Pipeline::className(const QString &name) const
{
    const Node *node = d->graph.find(name);
    return node ? node->className : QString();
}

QStringList Pipeline::passNames() const
{
    QStringList names;
    for (const auto &node : d->graph.nodes())
        names << node->name;
    return names;
}

QStringList Pipeline::order(QString * /*error*/) const
{
    QStringList names;
    for (const Node *node : d->graph.order())
        names << node->name;
    return names;
}

bool Pipeline::connect(const QString &from, const QString &fromSlot, const QString &to, const QString &toSlot,
                       QString *error)
{
    const SaidReason said(&error);
    const OutputPort output = d->graph.output(from, fromSlot, error);
    const InputPort input = output ? d->graph.input(to, toSlot, error) : InputPort();
    return input && d->graph.link(output, input, error);
}

bool Pipeline::connect(const QString &from, const QString &to, QString *error)
{
    const SaidReason said(&error);
    QString fromPass, fromSlot, toPass, toSlot;
    return parseEnd(from, &fromPass, &fromSlot, error) && parseEnd(to, &toPass, &toSlot, error)
           && connect(fromPass, fromSlot, toPass, toSlot, error);
}

bool Pipeline::bind(const QString &pass, const QString &slot, const QString &hostValue, QString *error)
{
    const SaidReason said(&error);
    const InputPort input = d->graph.input(pass, slot, error);
    if (!input)
        return false;
    const qsizetype bracket = hostValue.indexOf(QLatin1Char('['));
    const QString name = bracket < 0 ? hostValue : hostValue.left(bracket);
    HostSource source;
    source.host = d->hosts.find(name, error);
    if (source.host < 0)
        return false;
    const QString type = d->hosts.slot(source.host);
    if (!slotTypesMatch(type, input.slot()))
        return fail(error, QStringLiteral("cannot bind host value '%1' (%2) to '%3.%4' (%5)")
                               .arg(name, typeText(type), pass, input.slot(), typeText(input.slot())));
    QString reason;
    if (bracket >= 0 && SlotName::parse(type).type != QLatin1StringView("QRect"))
        return fail(
            error, QStringLiteral("host value '%1' (%2) has no parts: only rectangles have").arg(name, typeText(type)));
    if (bracket >= 0 && !source.parts.parse(hostValue.mid(bracket), &reason))
        return fail(error, QStringLiteral("input '%1' of pass '%2': %3").arg(input.slot(), pass, reason));
    d->graph.set(input, source);
    return true;
}

int Pipeline::bindStandard()
{
    static constexpr std::pair<const char *, HostValues::Index> kStandard[] = {
        {"Kvo_QRect_Viewport", HostValues::Viewport},
        {"Kvo_QMatrix4x4_CameraMatrix", HostValues::Camera},
        {"Kvo_QMatrix4x4_ProjectionMatrix", HostValues::Projection},
        {"Kvo_float_NearPlane", HostValues::Near},
        {"Kvo_float_FarPlane", HostValues::Far},
        {"Kvo_KvoGPUModel*_Geometry", HostValues::Model},
    };
    int bound = 0;
    for (const auto &node : d->graph.nodes()) {
        for (int i = 0; i < node->pass->numInputs(); ++i) {
            const QString slot = node->pass->inputName(i);
            const auto *standard = std::find_if(std::begin(kStandard), std::end(kStandard),
                                                [&](const auto &one) { return slot == QLatin1StringView(one.first); });
            if (standard == std::end(kStandard) || !std::holds_alternative<DefaultSource>(node->source(i)))
                continue;
            HostSource source;
            source.host = standard->second;
            d->graph.set({node.get(), i}, source);
            ++bound;
        }
    }
    return bound;
}

bool Pipeline::setValue(const QString &pass, const QString &slot, const QVariant &value, QString *error)
{
    const SaidReason said(&error);
    const InputPort input = d->graph.input(pass, slot, error);
    if (!input)
        return false;
    if (const QString misfit = misfitOf(input.slot(), input.info(), value); !misfit.isEmpty())
        return fail(error, QStringLiteral("pass '%1': '%2' %3").arg(pass, input.slot(), misfit));
    d->graph.set(input, ValueSource{value});
    return true;
}

bool Pipeline::setValueText(const QString &pass, const QString &slot, const QString &text, QString *error)
{
    const SaidReason said(&error);
    if (text.startsWith(QLatin1Char('@')))
        return bind(pass, slot, text.mid(1), error);
    QString name;
    QVariant hint, value;
    QString reason;
    if (!inputSlot(pass, slot, &name, &hint, error))
        return false;
    if (!parseSlotValue(name, text, &value, &reason, hint, inputInfo(pass, name)))
        return fail(error, QStringLiteral("pass '%1': %2").arg(pass, reason));
    return setValue(pass, name, value, error);
}

bool Pipeline::inputSlot(const QString &pass, const QString &slot, QString *fullName, QVariant *defaultValue,
                         QString *error) const
{
    const InputPort input = d->graph.input(pass, slot, error);
    if (!input)
        return false;
    if (fullName)
        *fullName = input.slot();
    if (defaultValue)
        *defaultValue = input.node->pass->defaultValue(input.index);
    return true;
}

const SlotInfo *Pipeline::inputInfo(const QString &pass, const QString &slot) const
{
    const InputPort input = d->graph.input(pass, slot, nullptr);
    return input ? input.info() : nullptr;
}

bool Pipeline::reset(const QString &pass, const QString &slot, QString *error)
{
    const SaidReason said(&error);
    const InputPort input = d->graph.input(pass, slot, error);
    if (input)
        d->graph.set(input, DefaultSource());
    return bool(input);
}

QString Pipeline::source(const QString &pass, const QString &slot) const
{
    const InputPort input = d->graph.input(pass, slot, nullptr);
    return input ? d->sourceName(input.source()) : QString();
}

QVector<PassInput> Pipeline::inputs(const QString &pass) const
{
    QVector<PassInput> result;
    Node *node = d->graph.find(pass);
    for (int i = 0; node && i < node->pass->numInputs(); ++i) {
        PassInput input;
        input.slot = node->pass->inputName(i);
        const Source &source = node->source(i);
        if (const auto *given = std::get_if<ValueSource>(&source)) {
            input.kind = PassInput::Kind::Value;
            input.value = given->value;
        } else if (std::holds_alternative<HostSource>(source)) {
            input.kind = PassInput::Kind::Host;
            input.source = d->sourceName(source);
        } else if (const auto *link = std::get_if<LinkSource>(&source)) {
            input.kind = PassInput::Kind::Link;
            input.source = link->from->pass->outputName(link->output);
            input.sourcePass = link->from->name;
        } else {
            input.value = node->pass->defaultValue(i);
        }
        result << input;
    }
    return result;
}

bool Pipeline::uses(const QString &hostValue) const
{
    for (const auto &node : d->graph.nodes()) {
        for (const Source &source : node->sources) {
            const auto *host = std::get_if<HostSource>(&source);
            if (host && d->hosts.name(host->host) == hostValue)
                return true;
        }
    }
    return false;
}

QStringList Pipeline::warnings() const
{
    return likelyMistakes(d->graph, d->hosts);
}

QVariant Pipeline::output(const QString &pass, const QString &slot, QString *error) const
{
    const OutputPort output = d->graph.output(pass, slot, error);
    return output ? output.node->pass->output(output.index) : QVariant();
}

bool Pipeline::outputSlot(const QString &pass, const QString &slot, QString *fullName, QString *error) const
{
    const OutputPort output = d->graph.output(pass, slot, error);
    if (output && fullName)
        *fullName = output.slot();
    return bool(output);
}

QStringList Pipeline::outputs(const QString &pass) const
{
    QStringList result;
    const Node *node = d->graph.find(pass);
    for (int i = 0; node && i < node->pass->numOutputs(); ++i)
        result << node->pass->outputName(i);
    return result;
}

const SlotInfo *Pipeline::outputInfo(const QString &pass, const QString &slot) const
{
    const OutputPort output = d->graph.output(pass, slot, nullptr);
    return output ? output.info() : nullptr;
}

int Pipeline::users(const QString &pass, const QString &slot) const
{
    const OutputPort output = d->graph.output(pass, slot, nullptr);
    return output ? d->graph.users({output.node, output.index}) : 0;
}

void Pipeline::setViewport(const QRect &viewport)
{
    d->hosts[HostValues::Viewport] = viewport;
}

void Pipeline::setCamera(const QMatrix4x4 &camera, const QMatrix4x4 &projection, float nearPlane, float farPlane)
{
    d->hosts[HostValues::Camera] = QVariant::fromValue(camera);
    d->hosts[HostValues::Projection] = QVariant::fromValue(projection);
    d->hosts[HostValues::Near] = nearPlane;
    d->hosts[HostValues::Far] = farPlane;
}

void Pipeline::setWindow(const QRect &window, const QSize &picture)
{
    d->frame.window =
        picture.isEmpty() ? PictureWindow() : PictureWindow{window.x(), window.y(), picture.width(), picture.height()};
}

void Pipeline::setInOnePiece(const QString &reason)
{
    d->inOnePiece = reason;
}

QString Pipeline::inOnePiece() const
{
    return d->inOnePiece;
}

void Pipeline::setModel(GPUModel *model, GPUModel *opaque)
{
    d->hosts[HostValues::Model] = QVariant::fromValue(model);
    d->hosts[HostValues::Opaque] = QVariant::fromValue(opaque ? opaque : model);
}

void Pipeline::setScreen(FramebufferObject *screen)
{
    d->hosts[HostValues::Screen] = framebufferToVariant(screen);
}

bool Pipeline::setHostValue(const QString &name, const QVariant &value, QString *error)
{
    const SaidReason said(&error);
    const int index = d->hosts.find(name, error);
    if (index < 0)
        return false;
    if (const QString misfit = misfitOf(d->hosts.slot(index), nullptr, value); !misfit.isEmpty())
        return fail(error, QStringLiteral("host value '%1' %2").arg(name, misfit));
    d->hosts[index] = value;
    return true;
}

QVariant Pipeline::hostValue(const QString &name) const
{
    return d->hosts.valueOf(name);
}

QStringList Pipeline::hostValueNames()
{
    return HostValues::fixedNames();
}

QStringList Pipeline::hostValuesFor(const QString &slot)
{
    const HostValues hosts;
    QStringList names;
    for (int i = 0; i < hosts.count(); ++i)
        if (slotTypesMatch(hosts.slot(i), slot))
            names << hosts.name(i);
    return names;
}

namespace {

bool mayTearDown(const PipelineFrame &frame)
{
    if (frame.isRunning)
        qWarning("Pipeline: nothing is torn down while a frame runs");
    return !frame.isRunning;
}

} // namespace

bool Pipeline::setup(RenderCallbacks *callbacks, QString *error)
{
    const SaidReason said(&error);
    if (d->frame.isRunning)
        return fail(error, QStringLiteral("a frame of this pipeline is running"));
    if (!contextIsCurrent())
        return fail(error, QStringLiteral("no OpenGL context of version 3.2 or later is current"));
    d->frame.setup(callbacks);
    return true;
}

bool Pipeline::render(RenderCallbacks *callbacks, QString *error)
{
    QString saidBefore; // in the first of many frames
    const bool isNested = d->frame.isRunning;
    const bool isReady = setup(callbacks, error || !d->lacksContext ? error : &saidBefore);
    d->lacksContext = !isReady && !isNested;
    if (!isReady)
        return false;
    d->frame.run(callbacks);
    return true;
}

void Pipeline::teardown(RenderCallbacks *callbacks)
{
    if (mayTearDown(d->frame))
        d->frame.teardown(callbacks);
}

void Pipeline::teardownContextData(RenderCallbacks *callbacks)
{
    if (mayTearDown(d->frame))
        d->frame.teardownContextData(callbacks);
}

int Pipeline::frameNumber() const
{
    return d->frame.number;
}

void Pipeline::setPassObserver(std::function<void(const QString &, RenderPass *)> observer)
{
    d->frame.observer = std::move(observer);
}

QStringList Pipeline::faults() const
{
    return d->frame.faults;
}

void Pipeline::setPoolLimits(int idleFrames, qint64 bytes)
{
    d->frame.idleFrames = idleFrames;
    d->frame.poolBytes = bytes;
}

void Pipeline::setTimingEnabled(bool enabled)
{
    d->frame.timing = enabled;
}

void Pipeline::setTimingHistory(int frames)
{
    d->frame.setTimingHistory(frames);
}

QVector<PassTiming> Pipeline::timings(bool wait)
{
    return d->frame.timings(wait);
}

} // namespace Brevane::Kvo
