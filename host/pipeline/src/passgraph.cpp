#include "passgraph.h"

#include "core/renderpasshelper.h"
#include "failure.h"
#include "host/slotname.h"

#include <QSet>

#include <algorithm>
#include <utility>

namespace Brevane::Kvo {

namespace {

constexpr QLatin1StringView kViewportSlot("Kvo_QRect_Viewport");
constexpr qsizetype kMostNamesTold = 20;

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

bool reads(const Source &source, const Node *node)
{
    const auto *link = std::get_if<LinkSource>(&source);
    return link && link->from == node;
}

} // namespace

bool isPlainName(const QString &name)
{
    return !name.isEmpty() && std::all_of(name.begin(), name.end(), [](QChar c) {
        return c.isLetterOrNumber() || c == QLatin1Char('_') || c == QLatin1Char('-');
    });
}

int viewportInputOf(const RenderPass &pass)
{
    return int(slotNames(pass, true).indexOf(kViewportSlot));
}

QString typeText(const QString &slot)
{
    const QString type = SlotName::parse(slot).type;
    return type.isEmpty() ? QStringLiteral("unknown") : type;
}

Source &Node::source(int input)
{
    if (int(sources.size()) <= input)
        sources.resize(size_t(std::max(pass->numInputs(), input + 1)));
    return sources[size_t(input)];
}

QString InputPort::slot() const
{
    return node->pass->inputName(index);
}

const SlotInfo *InputPort::info() const
{
    const auto *pass = dynamic_cast<const RenderPassHelper *>(node->pass.get());
    return pass ? pass->inputInfo(index) : nullptr;
}

QString OutputPort::slot() const
{
    return node->pass->outputName(index);
}

const SlotInfo *OutputPort::info() const
{
    const auto *pass = dynamic_cast<const RenderPassHelper *>(node->pass.get());
    return pass ? pass->outputInfo(index) : nullptr;
}

Node *PassGraph::find(const QString &name, QString *error) const
{
    QStringList names;
    for (const auto &node : _nodes) {
        if (node->name == name)
            return node.get();
        names << node->name;
    }
    // Who is far from any name wants to know what there is.
    QString hint = nearestNameHint(name, names);
    if (hint.isEmpty() && !names.isEmpty() && names.size() <= kMostNamesTold)
        hint = QStringLiteral("; there are %1").arg(names.join(QLatin1StringView(", ")));
    fail(error, QStringLiteral("there is no pass '%1'%2").arg(name, hint));
    return nullptr;
}

bool PassGraph::checkNewName(const QString &name, QString *error) const
{
    if (!isPlainName(name))
        return fail(error, QStringLiteral("'%1' is no name for a pass: use letters, digits, '_' and '-'").arg(name));
    if (find(name))
        return fail(error, QStringLiteral("there is a pass '%1' already").arg(name));
    return true;
}

std::unique_ptr<Node> PassGraph::makeNode(const QString &name, std::unique_ptr<RenderPass> pass)
{
    auto node = std::make_unique<Node>();
    node->name = name;
    node->label = name.toUtf8();
    node->sources.resize(size_t(pass->numInputs()));
    node->errorCode = pass->errorCode();
    node->pass = std::move(pass);
    return node;
}

Node *PassGraph::append(std::unique_ptr<Node> node)
{
    ++_revision;
    _nodes.push_back(std::move(node));
    return _nodes.back().get();
}

std::unique_ptr<Node> PassGraph::take(Node *node)
{
    for (const auto &other : _nodes)
        for (size_t i = 0; i < other->sources.size(); ++i)
            if (reads(other->sources[i], node))
                set({other.get(), int(i)}, DefaultSource());
    const auto found = std::find_if(_nodes.begin(), _nodes.end(), [node](const auto &n) { return n.get() == node; });
    std::unique_ptr<Node> taken = std::move(*found);
    _nodes.erase(found);
    ++_revision;
    return taken;
}

std::unique_ptr<RenderPass> PassGraph::replace(Node *node, std::unique_ptr<RenderPass> pass, QString *error)
{
    const auto lacks = [&](const QString &kind, const QString &slot) {
        fail(error, QStringLiteral("the pass for '%1' has no %2 '%3', which is in use").arg(node->name, kind, slot));
        return nullptr;
    };
    const QStringList inputs = slotNames(*pass, true);
    const QStringList outputs = slotNames(*pass, false);
    std::vector<Source> sources(size_t(pass->numInputs()));
    for (size_t i = 0; i < node->sources.size(); ++i) {
        if (std::holds_alternative<DefaultSource>(node->sources[i]))
            continue;
        const QString slot = node->pass->inputName(int(i));
        const qsizetype index = inputs.indexOf(slot);
        if (index < 0)
            return lacks(QStringLiteral("input"), slot);
        sources[size_t(index)] = node->sources[i];
    }
    // Collected first, so that a failure changes nothing.
    std::vector<std::pair<LinkSource *, int>> users;
    for (const auto &other : _nodes) {
        for (Source &source : other->sources) {
            if (!reads(source, node))
                continue;
            auto &link = std::get<LinkSource>(source);
            const QString slot = node->pass->outputName(link.output);
            const qsizetype index = outputs.indexOf(slot);
            if (index < 0)
                return lacks(QStringLiteral("output"), slot);
            users.emplace_back(&link, int(index));
        }
    }
    for (const auto &[link, output] : users)
        link->output = output;

    node->className.clear();
    node->errorCode = pass->errorCode();
    std::unique_ptr<RenderPass> before = std::exchange(node->pass, std::move(pass));
    node->sources.assign(sources.size(), DefaultSource());
    for (size_t i = 0; i < sources.size(); ++i)
        if (!std::holds_alternative<DefaultSource>(sources[i]))
            set({node, int(i)}, sources[i]);
    ++_revision;
    return before;
}

InputPort PassGraph::input(const QString &pass, const QString &slot, QString *error) const
{
    return inputOf(find(pass, error), slot, error);
}

OutputPort PassGraph::output(const QString &pass, const QString &slot, QString *error) const
{
    return outputOf(find(pass, error), slot, error);
}

InputPort PassGraph::inputOf(Node *node, const QString &slot, QString *error)
{
    const int index = node ? findSlot(*node, true, slot, error) : -1;
    return index < 0 ? InputPort() : InputPort{node, index};
}

OutputPort PassGraph::outputOf(Node *node, const QString &slot, QString *error)
{
    const int index = node ? findSlot(*node, false, slot, error) : -1;
    return index < 0 ? OutputPort() : OutputPort{node, index};
}

bool PassGraph::checkTypes(const OutputPort &from, const InputPort &to, QString *error)
{
    if (slotTypesMatch(from.slot(), to.slot()))
        return true;
    return fail(error, QStringLiteral("cannot link '%1.%2' (%3) to '%4.%5' (%6)")
                           .arg(from.node->name, from.slot(), typeText(from.slot()), to.node->name, to.slot(),
                                typeText(to.slot())));
}

bool PassGraph::link(const OutputPort &from, const InputPort &to, QString *error)
{
    if (!checkTypes(from, to, error))
        return false;
    // A link closes a cycle when what it feeds already feeds where it starts.
    if (QStringList cycle = path(to.node, from.node); !cycle.isEmpty()) {
        cycle << to.node->name;
        return fail(error, QStringLiteral("cannot link '%1.%2' to '%3.%4': the links would form a cycle: %5")
                               .arg(from.node->name, from.slot(), to.node->name, to.slot(),
                                    cycle.join(QLatin1StringView(" -> "))));
    }
    set(to, LinkSource{from.node, from.index});
    return true;
}

// The names from a node that runs before the target because of links, or is it, to the target; none when it does not.
QStringList PassGraph::path(const Node *node, const Node *target)
{
    struct Step
    {
        const Node *node;
        int next; // Towards the target.
    };
    std::vector<Step> upstream{{target, -1}};
    QSet<const Node *> seen{target};
    for (int i = 0; i < int(upstream.size()); ++i) {
        const Node *current = upstream[size_t(i)].node;
        if (current == node) {
            QStringList names;
            for (int step = i; step >= 0; step = upstream[size_t(step)].next)
                names << upstream[size_t(step)].node->name;
            return names;
        }
        for (const Source &source : current->sources) {
            const auto *link = std::get_if<LinkSource>(&source);
            if (!link || seen.contains(link->from))
                continue;
            seen << link->from;
            upstream.push_back({link->from, i});
        }
    }
    return {};
}

void PassGraph::set(const InputPort &input, const Source &source)
{
    input.source() = source;
    RenderPass &pass = *input.node->pass;
    if (const auto *given = std::get_if<ValueSource>(&source))
        pass.setInput(input.index, given->value);
    else
        // What a link brought last may be gone by the next frame.
        pass.setInput(input.index, pass.defaultValue(input.index));
    ++_revision;
}

int PassGraph::users(const LinkSource &output) const
{
    int users = 0;
    for (const auto &node : _nodes) {
        if (!node->isOn)
            continue;
        for (const Source &source : node->sources) {
            const auto *link = std::get_if<LinkSource>(&effective(source));
            users += link && *link == output;
        }
    }
    return users;
}

void PassGraph::setOn(Node *node, bool on)
{
    if (node->isOn == on)
        return;
    node->isOn = on;
    // What links brought last may be gone by the next frame in which somebody looks.
    for (const auto &other : _nodes)
        for (size_t i = 0; i < other->sources.size(); ++i)
            if (std::holds_alternative<LinkSource>(other->sources[i]))
                other->pass->setInput(int(i), other->pass->defaultValue(int(i)));
    ++_revision;
}

// An image stands for another one where the names say that the pass works on it: the input is called as the output,
// or "Input", or begins with "Frame"; of two frames that are put together the last is the ground. Of other types it
// takes one input of the type that is no default.
int PassGraph::bypassOf(Node *node, int output)
{
    const QString slot = node->pass->outputName(output);
    const SlotName out = SlotName::parse(slot);
    const bool isTexture = slotTypesMatch(slot, QStringLiteral("Kvo_KvoTexture*_Any"));
    int named = -1;
    int any = -1;
    int count = 0;
    for (int i = 0; i < node->pass->numInputs(); ++i) {
        const SlotName in = SlotName::parse(node->pass->inputName(i));
        if (out.type.isEmpty() || in.type.isEmpty() || !slotTypesMatch(slot, node->pass->inputName(i))
            || std::holds_alternative<DefaultSource>(node->source(i)))
            continue;
        if (in.name == out.name)
            return i;
        if (isTexture && (in.name == QLatin1StringView("Input") || in.name.startsWith(QLatin1StringView("Frame"))))
            named = i;
        any = i;
        ++count;
    }
    return isTexture ? named : count == 1 ? any : -1;
}

const Source &PassGraph::effective(const Source &source)
{
    static const Source kDefault = DefaultSource();
    const Source *result = &source;
    for (;;) {
        const auto *link = std::get_if<LinkSource>(result);
        if (!link || link->from->isOn)
            return *result;
        const int input = bypassOf(link->from, link->output);
        result = input < 0 ? &kDefault : &link->from->source(input);
    }
}

std::vector<Node *> PassGraph::order() const
{
    std::vector<Node *> remaining, result;
    for (const auto &node : _nodes)
        remaining.push_back(node.get());
    const auto hasRun = [&result](const Source &source) {
        const auto *link = std::get_if<LinkSource>(&source);
        return !link || std::find(result.begin(), result.end(), link->from) != result.end();
    };
    while (!remaining.empty()) {
        // There is one, since links form no cycle.
        const auto ready = std::find_if(remaining.begin(), remaining.end(), [&](const Node *node) {
            return std::all_of(node->sources.begin(), node->sources.end(), hasRun);
        });
        result.push_back(*ready);
        remaining.erase(ready);
    }
    return result;
}

} // namespace Brevane::Kvo
