#include "pipelinechecks.h"

#include "core/renderpasshelper.h"
#include "host/slotname.h"
#include "host/slotvalue.h"
#include "hostvalues.h"
#include "passgraph.h"

#include <QFileInfo>
#include <QRect>
#include <QSize>
#include <QVector2D>
#include <QVector3D>

#include <algorithm>
#include <cmath>
#include <vector>

namespace Brevane::Kvo {

namespace {

constexpr QLatin1StringView kPaths("paths.");

// The numbers that a range bounds; none in a value of another type.
std::vector<double> numbersIn(const QVariant &value)
{
    switch (value.metaType().id()) {
    case QMetaType::Int:
    case QMetaType::Float:
    case QMetaType::Double: return {value.toDouble()};
    case QMetaType::QSize: return {double(value.toSize().width()), double(value.toSize().height())};
    case QMetaType::QVector2D: {
        const auto v = qvariant_cast<QVector2D>(value);
        return {double(v.x()), double(v.y())};
    }
    case QMetaType::QVector3D: {
        const auto v = qvariant_cast<QVector3D>(value);
        return {double(v.x()), double(v.y()), double(v.z())};
    }
    default: return {};
    }
}

// "0 to 511 texels", "at least 0".
QString textOf(const SlotInfo &info)
{
    const QString unit = *info.unit ? QLatin1Char(' ') + QLatin1StringView(info.unit) : QString();
    if (!std::isfinite(info.range.most))
        return QStringLiteral("at least %1%2").arg(QString::number(info.range.least), unit);
    return QStringLiteral("%1 to %2%3").arg(QString::number(info.range.least), QString::number(info.range.most), unit);
}

// Where a pass reads null as 0, which is hardly meant. Colours and paths may be none.
bool countsAsZero(const SlotInfo &info)
{
    return std::isfinite(info.range.least) || !info.choices.empty();
}

// What is odd about a value that was given to an input; empty when nothing is.
QString oddityOf(const SlotInfo &info, const QVariant &value, const QVariant &defaultValue)
{
    if (!value.isValid())
        return defaultValue.isValid() && countsAsZero(info)
                   ? QStringLiteral("is null; leave it out for its default, %1").arg(describeSlotValue(defaultValue))
                   : QString();
    const QString text = describeSlotValue(value);
    if (info.kind == SlotKind::Path && !value.toString().isEmpty() && !QFileInfo(value.toString()).isFile())
        return QStringLiteral("is %1: there is no such file").arg(text);
    if (!info.choices.empty()) {
        const bool isKnown = std::any_of(info.choices.begin(), info.choices.end(),
                                         [&](const SlotChoice &c) { return c.value == value.toInt(); });
        QStringList names;
        for (const SlotChoice &choice : info.choices)
            names << QStringLiteral("%1 %2").arg(choice.value).arg(QLatin1StringView(choice.name));
        return isKnown ? QString()
                       : QStringLiteral("is %1, which is none of %2").arg(text, names.join(QLatin1StringView(", ")));
    }
    const std::vector<double> numbers = numbersIn(value);
    const bool isSane =
        std::all_of(numbers.begin(), numbers.end(), [&](double number) { return info.range.contains(number); });
    return isSane ? QString() : QStringLiteral("is %1, beyond what makes sense: %2").arg(text, textOf(info));
}

class Checks
{
public:
    Checks(const PassGraph &graph, const HostValues &hosts) : _graph(graph), _hosts(hosts) {}

    QStringList run()
    {
        for (const auto &node : _graph.nodes()) {
            checkViewport(*node);
            checkImages(*node);
            for (int i = 0; i < node->pass->numInputs(); ++i)
                checkInput({node.get(), i});
        }
        checkHostValues();
        return _found;
    }

private:
    void checkViewport(Node &node)
    {
        const int index = viewportInputOf(*node.pass);
        if (index >= 0 && std::holds_alternative<DefaultSource>(node.source(index))
            && node.pass->defaultValue(index).toRect().isEmpty())
            _found << QStringLiteral("pass '%1' has no viewport, so its pictures are empty").arg(node.name);
    }

    // A filter of nothing. Passes that work on other things too (models, files, geometry) may do without images.
    void checkImages(Node &node)
    {
        static const QStringList kOtherWork{QStringLiteral("KvoGPUModel*"), QStringLiteral("KvoDrawBuffers*"),
                                            QStringLiteral("QString"), QStringLiteral("string")};
        QStringList images;
        for (int i = 0; i < node.pass->numInputs(); ++i) {
            const SlotName slot = SlotName::parse(node.pass->inputName(i));
            if (kOtherWork.contains(slot.type))
                return;
            if (slot.type != QLatin1StringView("KvoTexture*") || slot.name.endsWith(QLatin1StringView("Out")))
                continue;
            if (!std::holds_alternative<DefaultSource>(node.source(i)))
                return;
            images << QLatin1Char('\'') + slot.name + QLatin1Char('\'');
        }
        if (!images.isEmpty())
            _found << QStringLiteral("pass '%1' has no image to work on: nothing is given to %2")
                          .arg(node.name, images.join(QLatin1StringView(" or ")));
    }

    void checkInput(const InputPort &input)
    {
        const SlotInfo *info = input.info();
        const Source &source = input.source();
        const QString name = QStringLiteral("input '%1' of pass '%2'").arg(input.slot(), input.node->name);
        if (const auto *host = std::get_if<HostSource>(&source))
            checkBinding(name, *host);
        else if (const auto *link = std::get_if<LinkSource>(&source))
            checkLink(name, info, {link->from, link->output});
        else if (const auto *given = std::get_if<ValueSource>(&source); given && info)
            if (const QString oddity = oddityOf(*info, given->value, input.node->pass->defaultValue(input.index));
                !oddity.isEmpty())
                _found << QStringLiteral("%1 %2").arg(name, oddity);
    }

    void checkBinding(const QString &input, const HostSource &source)
    {
        const QString &host = _hosts.name(source.host);
        _used << host;
        if (host.startsWith(kPaths) && _hosts[source.host].toString().isEmpty())
            _found << QStringLiteral("%1 is bound to @%2, which is not given").arg(input, host);
    }

    void checkLink(const QString &input, const SlotInfo *info, const OutputPort &from)
    {
        const QString output = QStringLiteral("%1.%2").arg(from.node->name, from.slot());
        if (info && !info->hasEffect)
            _found << QStringLiteral("%1 is not read: the link from '%2' has no effect").arg(input, output);
        if (const SlotInfo *source = from.info(); source && !source->hasEffect)
            _found << QStringLiteral("%1 is linked to '%2', which is never written").arg(input, output);
    }

    void checkHostValues()
    {
        for (int i = 0; i < _hosts.count(); ++i) {
            const QString &name = _hosts.name(i);
            const bool isGiven = name.startsWith(kPaths) ? !_hosts[i].toString().isEmpty()
                                                         : i == HostValues::Lights && !_hosts[i].toList().isEmpty();
            if (isGiven && !_used.contains(name))
                _found << QStringLiteral("@%1 has no effect: no input is bound to it").arg(name);
        }
    }

    const PassGraph &_graph;
    const HostValues &_hosts;
    QStringList _used;
    QStringList _found;
};

} // namespace

QStringList likelyMistakes(const PassGraph &graph, const HostValues &hosts)
{
    return Checks(graph, hosts).run();
}

} // namespace Brevane::Kvo
