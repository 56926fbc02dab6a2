#include "pipelineframe.h"

#include "core/hostcode.h"
#include "core/renderpass.h"
#include "debuggroup.h"
#include "gl/bindings.h"
#include "gl/givenup.h"
#include "gl/hoststate.h"
#include "gl/opengldevicecontext.h"
#include "gl/pooltaker.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "hostvalues.h"
#include "passrows.h"

#include <epoxy/gl.h>

#include <QMatrix4x4>
#include <QRect>
#include <QScopedValueRollback>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

namespace Brevane::Kvo {

namespace {

bool names(const QVariant &value, const Texture *texture)
{
    if (value.metaType() == QMetaType(QMetaType::QVariantList)) {
        const QVariantList list = value.toList();
        return std::any_of(list.begin(), list.end(), [texture](const QVariant &v) { return names(v, texture); });
    }
    return textureFromVariant(value) == texture;
}

/// Around a call to a pass, whose class may be the host's.
class MaybeHostCode
{
public:
    explicit MaybeHostCode(bool isHostCode)
    {
        if (isHostCode)
            _hostCode.emplace();
    }

private:
    std::optional<HostCode> _hostCode;
};

QVariant outputOf(const LinkSource &source, bool isOurs)
{
    const MaybeHostCode host(!isOurs);
    return source.from->pass->output(source.output);
}

// Passes of the library that read images without giving references back: they work on what its makers keep. An image
// of the pool would stay taken for good.
ReferenceLedger::GivingBack givingBackOf(const StateRow *row)
{
    constexpr std::array kWithoutCounting{
        "DeferredRenderPass",           "DepthOfFieldRenderPass",
        "LuminanceAverageRenderPass",   "ModelDeferredPass",
        "TextureToScreenRenderPass",    "TransparencyRenderPass",
        "VisibilityDeferredRenderPass", "VisibilitySortRenderPass",
    };
    const bool counts = !row || std::none_of(kWithoutCounting.begin(), kWithoutCounting.end(), [row](const char *name) {
        return qstrcmp(name, row->className) == 0;
    });
    return counts ? ReferenceLedger::GivingBack::Pass : ReferenceLedger::GivingBack::Ledger;
}

} // namespace

bool contextIsCurrent()
{
    return !OpenGLDeviceContext::current().isNull();
}

void PipelineFrame::setup(RenderCallbacks *callbacks)
{
    prepare();
    learnContext();
    for (const Step &step : _steps) {
        if (step.node->isSetUp)
            continue;
        step.node->pass->setup(callbacks);
        step.node->isSetUp = true;
    }
}

void PipelineFrame::run(RenderCallbacks *callbacks)
{
    setup(callbacks);
    const QScopedValueRollback running(isRunning, true);
    if (!_givenUp.isEmpty())
        freeGivenUp();
    const DefaultState state;
    const BindingScope bindings;
    const PictureWindowScope part(window);
    faults.clear();
    _ledger.beginFrame();
    _hosts[HostValues::Frame] = number;
    for (const Step &step : _steps) {
        const MaybeHostCode host(!step.row);
        step.node->pass->beginFrame(callbacks);
    }
    for (Step &step : _steps)
        runStep(step, callbacks);
    for (const Step &step : _steps) {
        const MaybeHostCode host(!step.row);
        step.node->pass->endFrame(callbacks);
    }
    ++number;
    report();
    TextureManager &textures = TextureManager::Instance();
    textures.advanceFrame();
    textures.trim(idleFrames, poolBytes);
}

void PipelineFrame::runStep(Step &step, RenderCallbacks *callbacks)
{
    Node &node = *step.node;
    const MaybeHostCode host(!step.row);
    const DebugGroup group(_hasDebugGroups, node.label.constData());
    passInputs(step);
    setViewport(step);
    if (const QColor &c = node.clearColor; c.isValid())
        glClearColor(c.redF(), c.greenF(), c.blueF(), c.alphaF());
    _ledger.beforeStart(step.inputPorts);
    if (timing)
        node.timer.begin(_hasTimestamps);
    {
        const GivenUpCollector collector(_givenUp);
        const DefaultState::Known known(step.row != nullptr);
        const PoolTaker taker(node.name);
        node.pass->start(callbacks);
    }
    if (timing)
        node.timer.end();
    checkReferences(step);
    const bool isObserved = bool(observer);
    if (isObserved) {
        const HostCode hostCode;
        const Observer called = observer; // which may set another one
        called(node.name, node.pass.get());
    }
    // The next one, and the host, find nothing of this one.
    if (step.row && !isObserved)
        DefaultState::resetAfter(*step.row);
    else
        DefaultState::resetAll();
    if (node.clearColor.isValid())
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
}

void PipelineFrame::prepare()
{
    if (_revision == _graph.revision())
        return;
    _steps.clear();
    for (Node *node : _graph.order())
        if (node->isOn)
            _steps.push_back(makeStep(node));
    _revision = _graph.revision();
}

PipelineFrame::Step PipelineFrame::makeStep(Node *node) const
{
    Step step;
    step.node = node;
    RenderPass &pass = *node->pass;
    step.row = stateRowOf(pass);
    step.givingBack = givingBackOf(step.row);
    step.viewportInput = viewportInputOf(pass);
    step.placing = placingOf(step.row);
    for (int i = 0; i < int(node->sources.size()); ++i) {
        const Source &source = PassGraph::effective(node->sources[size_t(i)]);
        if (const auto *host = std::get_if<HostSource>(&source))
            step.hosts.emplace_back(i, *host);
        // Of an input whose link ends at a pass that is off. Other values were set when they were given.
        if (&source != &node->sources[size_t(i)]) {
            const auto *given = std::get_if<ValueSource>(&source);
            pass.setInput(i, given ? given->value : pass.defaultValue(i));
        }
        if (const auto *link = std::get_if<LinkSource>(&source)) {
            step.links.push_back({i, *link, stateRowOf(*link->from->pass) != nullptr});
            step.inputPorts.push_back({pass.inputName(i)});
        }
    }
    pass.resetNumOutputUsers();
    for (int output = 0; output < pass.numOutputs(); ++output) {
        const int users = _graph.users({node, output});
        pass.setNumOutputUsers(output, users);
        if (users == 0)
            continue;
        step.outputs.push_back(output);
        step.outputPorts.push_back({pass.outputName(output), nullptr, users});
    }
    step.held.resize(step.outputs.size());
    return step;
}

void PipelineFrame::learnContext()
{
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    if (_contextKnown && _timerContext == context)
        return;
    for (const auto &node : _graph.nodes())
        node->timer.forget();
    _timerContext = context;
    const int version = epoxy_gl_version();
    _hasDebugGroups = version >= 43 || epoxy_has_gl_extension("GL_KHR_debug");
    _hasTimestamps = version >= 33 || epoxy_has_gl_extension("GL_ARB_timer_query");
    _contextKnown = true;
}

void PipelineFrame::passInputs(Step &step)
{
    RenderPass &pass = *step.node->pass;
    for (const auto &[input, host] : step.hosts) {
        if (!_hosts[host.host].isValid())
            reportMissing(step, input, host.host);
        pass.setInput(input, hostValueFor(step, host));
    }
    for (size_t i = 0; i < step.links.size(); ++i) {
        const Step::Link &link = step.links[i];
        const QVariant value = outputOf(link.source, link.isOurs);
        step.inputPorts[i].texture = textureFromVariant(value);
        pass.setInput(link.input, value);
    }
}

// Lights, screens and paths may well be left out. Of a viewport, a camera and a model nothing would be seen; who means
// none says so, by a null pointer for instance.
void PipelineFrame::reportMissing(const Step &step, int input, int host)
{
    if (host > HostValues::Opaque || (_missing >> host & 1u))
        return;
    _missing |= 1u << host;
    const HostCode hostCode;
    qWarning("Pipeline: the host value '%s', which pass '%s' wants in '%s', was never set",
             qPrintable(_hosts.name(host)), qPrintable(step.node->name), qPrintable(step.node->pass->inputName(input)));
}

PipelineFrame::Placing PipelineFrame::placingOf(const StateRow *row)
{
    static constexpr std::array kWhole{"ForwardRenderPass",         "GBufferRenderPass", "GradientRenderPass",
                                       "ModelRenderPass",           "SkyboxRenderPass",  "TransparencyRenderPass",
                                       "VisibilityBufferRenderPass"};
    static constexpr std::array kBeside{"CameraJitterPass", "ShadowMapRenderPass", "ShadowMapRenderPass2"};
    const auto is = [row](const char *name) { return row && qstrcmp(row->className, name) == 0; };
    if (std::any_of(kWhole.begin(), kWhole.end(), is))
        return Placing::Whole;
    return std::any_of(kBeside.begin(), kBeside.end(), is) ? Placing::Beside : Placing::Part;
}

// The projection of a part, of one that is drawn by itself.
QVariant PipelineFrame::hostValueFor(const Step &step, const HostSource &source) const
{
    const QVariant &value = _hosts.of(source);
    if (!window.isPart())
        return value;
    const bool knowsAll = step.placing == Placing::Beside || (step.placing == Placing::Whole && window.fitsViewport());
    const QRect viewport = _hosts[HostValues::Viewport].toRect();
    if (source.host == HostValues::Viewport && step.placing == Placing::Beside)
        return QRect(0, 0, window.width, window.height);
    if (source.host != HostValues::Projection || knowsAll || viewport.isEmpty())
        return value;
    const double width = viewport.width(), height = viewport.height();
    const double scaleX = window.width / width, scaleY = window.height / height;
    const double shiftX = (window.width - 2.0 * window.x - width) / width;
    const double shiftY = (window.height - 2.0 * window.y - height) / height;
    auto projection = qvariant_cast<QMatrix4x4>(value);
    for (int column = 0; column < 4; ++column) {
        const double w = double(projection(3, column));
        projection(0, column) = float(scaleX * double(projection(0, column)) + shiftX * w);
        projection(1, column) = float(scaleY * double(projection(1, column)) + shiftY * w);
    }
    return projection;
}

void PipelineFrame::setViewport(const Step &step)
{
    QRect viewport = _hosts[HostValues::Viewport].toRect();
    if (step.viewportInput >= 0)
        viewport = valueOf({step.node, step.viewportInput}).toRect();
    // Targets of passes begin at 0, wherever the rectangle lies in the window.
    const PictureWindow none;
    (step.placing == Placing::Whole ? window : none)
        .setViewport(std::max(viewport.width(), 0), std::max(viewport.height(), 0));
}

QVariant PipelineFrame::valueOf(const InputPort &input) const
{
    const Source &source = PassGraph::effective(input.source());
    if (const auto *given = std::get_if<ValueSource>(&source))
        return given->value;
    if (const auto *host = std::get_if<HostSource>(&source))
        return _hosts.of(*host);
    if (const auto *link = std::get_if<LinkSource>(&source))
        return outputOf(*link, stateRowOf(*link->from->pass) != nullptr);
    return input.node->pass->defaultValue(input.index);
}

void PipelineFrame::checkReferences(Step &step)
{
    RenderPass &pass = *step.node->pass;
    for (size_t i = 0; i < step.outputs.size(); ++i)
        step.outputPorts[i].texture = textureFromVariant(pass.output(step.outputs[i]));
    _ledger.afterStart(step.node->name, step.givingBack, step.inputPorts, step.outputPorts, step.held, &faults);
    if (pass.errorCode() == step.node->errorCode)
        return;
    step.node->errorCode = pass.errorCode();
    if (step.node->errorCode != 0)
        faults << QStringLiteral("pass '%1' reports error %2")
                      .arg(step.node->name, QString::number(int(step.node->errorCode)));
}

void PipelineFrame::report()
{
    for (const QString &fault : std::as_const(faults)) {
        if (_reported.contains(fault))
            continue;
        _reported.insert(fault);
        const HostCode hostCode;
        qWarning("%s", qPrintable(fault));
    }
}

void PipelineFrame::destroyPass(Node *node, std::unique_ptr<RenderPass> pass)
{
    const GivenUpCollector collector(_givenUp);
    if (node->isSetUp && contextIsCurrent()) {
        pass->teardown(nullptr);
        pass->teardownContextData(nullptr);
    }
    node->isSetUp = false;
    releaseTimer(node);
    pass.reset(); // while what it gives up is collected: a parameter outlives what is local
}

void PipelineFrame::destroyPasses()
{
    const auto &nodes = _graph.nodes();
    if (contextIsCurrent() && std::any_of(nodes.begin(), nodes.end(), [](const auto &node) { return node->isSetUp; }))
        teardown(nullptr);
    {
        const GivenUpCollector collector(_givenUp);
        for (const auto &node : nodes)
            node->pass.reset();
    }
    for (const QPointer<QObject> &object : std::exchange(_givenUp, {}))
        delete object.data();
}

void PipelineFrame::teardown(RenderCallbacks *callbacks)
{
    const auto &nodes = _graph.nodes();
    for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) {
        if (!(*node)->isSetUp)
            continue;
        (*node)->pass->teardown(callbacks);
        (*node)->isSetUp = false;
    }
    teardownContextData(callbacks);
}

void PipelineFrame::teardownContextData(RenderCallbacks *callbacks)
{
    const auto &nodes = _graph.nodes();
    for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) {
        (*node)->pass->teardownContextData(callbacks);
        releaseTimer(node->get());
    }
    _contextKnown = false;
}

// Queries belong to one context, and their names mean others in another one.
void PipelineFrame::releaseTimer(Node *node)
{
    const QSharedPointer<OpenGLDeviceContext> context = _timerContext.toStrongRef();
    if (context && OpenGLDeviceContext::current() == context)
        node->timer.release();
    else
        node->timer.forget();
}

QVector<PassTiming> PipelineFrame::timings(bool wait)
{
    prepare();
    QVector<PassTiming> result;
    for (const Step &step : _steps) {
        if (contextIsCurrent())
            step.node->timer.collect(wait);
        result << step.node->timer.result(step.node->name);
    }
    return result;
}

void PipelineFrame::setTimingHistory(int frames)
{
    history = frames;
    for (const auto &node : _graph.nodes())
        node->timer.setHistory(frames);
}

// Whether an input, an output or a host value still names a texture.
bool PipelineFrame::isNamed(const Texture *texture) const
{
    for (const auto &node : _graph.nodes()) {
        for (int i = 0; i < node->pass->numOutputs(); ++i) {
            if (names(node->pass->output(i), texture))
                return true;
        }
        for (const Source &source : node->sources) {
            const auto *given = std::get_if<ValueSource>(&source);
            if (given && names(given->value, texture))
                return true;
        }
    }
    for (int i = 0; i < _hosts.count(); ++i) {
        if (names(_hosts[i], texture))
            return true;
    }
    return false;
}

void PipelineFrame::freeGivenUp()
{
    for (const QPointer<QObject> &object : std::exchange(_givenUp, {})) {
        const auto *texture = qobject_cast<const Texture *>(object.data());
        if (texture && isNamed(texture))
            _givenUp.append(object);
        else
            delete object.data();
    }
}

} // namespace Brevane::Kvo
