#include "graphview.h"

#include "host/pipeline.h"
#include "host/slotname.h"
#include "session.h"

#include <QApplication>
#include <QEvent>
#include <QGraphicsPathItem>
#include <QGraphicsScene>
#include <QMouseEvent>
#include <QPainter>
#include <QStyleOptionGraphicsItem>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr double kWidth = 190.0;
constexpr double kTitle = 34.0;
constexpr double kRow = 15.0;
constexpr double kKnob = 4.0;
constexpr double kReach = 9.0; // of a knob, for the hand
constexpr double kColumnGap = 70.0;
constexpr double kRowGap = 22.0;
constexpr double kLeastZoom = 0.62;

QPainterPath curve(const QPointF &from, const QPointF &to)
{
    QPainterPath path(from);
    const double bend = std::max(40.0, std::abs(to.x() - from.x()) / 2);
    path.cubicTo(from + QPointF(bend, 0), to - QPointF(bend, 0), to);
    return path;
}

/// A link that knows its ends.
class LinkItem : public QGraphicsPathItem
{
public:
    QString from;
    QString to;
};

bool isWorthShowing(const PassInput &input)
{
    return input.kind == PassInput::Kind::Link || SlotName::parse(input.slot).type.endsWith(u'*');
}

} // namespace

/// A pass: its name, class, the inputs that links can feed (left) and its outputs (right).
class GraphNode : public QGraphicsItem
{
public:
    GraphNode(const QString &pass, const QString &className) : name(pass), _className(className)
    {
        setFlag(ItemIsMovable, false);
        setZValue(1);
    }

    QRectF boundingRect() const override
    {
        const auto rows = double(std::max(inputs.size(), outputs.size()));
        return {-kKnob, 0, kWidth + 2 * kKnob, kTitle + rows * kRow + 6};
    }
    QPointF inputAt(qsizetype i) const { return mapToScene(0, kTitle + (double(i) + 0.5) * kRow); }
    QPointF outputAt(qsizetype i) const { return mapToScene(kWidth, kTitle + (double(i) + 0.5) * kRow); }

    void paint(QPainter *painter, const QStyleOptionGraphicsItem *, QWidget *widget) override
    {
        const QPalette palette = widget ? widget->palette() : QApplication::palette();
        const QRectF box = boundingRect().adjusted(kKnob, 0, -kKnob, 0);
        painter->setOpacity(isOn ? 1.0 : 0.45);
        painter->setPen(QPen(palette.color(isLit ? QPalette::Highlight : QPalette::Mid), isLit ? 3 : 1));
        painter->setBrush(palette.color(QPalette::Button));
        painter->drawRoundedRect(box, 4, 4);
        painter->setPen(palette.color(QPalette::ButtonText));
        QFont font = QApplication::font();
        font.setPixelSize(13);
        font.setBold(true);
        painter->setFont(font);
        const QRectF title = box.adjusted(6, 2, -6, 0);
        const QString shown = isOn ? name : name + QObject::tr(" (off)");
        painter->drawText(title, Qt::AlignLeft | Qt::AlignTop,
                          QFontMetrics(font).elidedText(shown, Qt::ElideRight, int(title.width())));
        font.setBold(false);
        font.setPixelSize(10);
        painter->setFont(font);
        const QFontMetrics metrics(font);
        painter->drawText(title.adjusted(0, 16, 0, 0), Qt::AlignLeft | Qt::AlignTop,
                          metrics.elidedText(_className, Qt::ElideRight, int(title.width())));
        const int half = int(kWidth / 2 - 10);
        for (qsizetype i = 0; i < inputs.size(); ++i)
            drawSlot(painter, palette, {0, kTitle + double(i) * kRow}, inputs[i], linked.contains(inputs[i]), half,
                     false, metrics);
        for (qsizetype i = 0; i < outputs.size(); ++i)
            drawSlot(painter, palette, {kWidth, kTitle + double(i) * kRow}, outputs[i], read.contains(outputs[i]), half,
                     true, metrics);
    }

    QString name;
    QStringList inputs;
    QStringList outputs;
    QStringList linked; ///< Of the inputs.
    QStringList read; ///< Of the outputs.
    bool isLit = false;
    bool isOn = true;

private:
    static void drawSlot(QPainter *painter, const QPalette &palette, const QPointF &at, const QString &slot,
                         bool isUsed, int width, bool isRight, const QFontMetrics &metrics)
    {
        painter->setBrush(isUsed ? palette.color(QPalette::Highlight) : palette.color(QPalette::Base));
        painter->setPen(palette.color(QPalette::Mid));
        painter->drawEllipse(at + QPointF(0, kRow / 2), kKnob, kKnob);
        QColor color = palette.color(QPalette::ButtonText);
        color.setAlpha(isUsed ? 255 : 140);
        painter->setPen(color);
        const QString text = metrics.elidedText(SlotName::parse(slot).name, Qt::ElideRight, width);
        const QRectF area = isRight ? QRectF(at.x() - kWidth / 2, at.y(), kWidth / 2 - 8, kRow)
                                    : QRectF(at.x() + 8, at.y(), kWidth / 2, kRow);
        painter->drawText(area, (isRight ? Qt::AlignRight : Qt::AlignLeft) | Qt::AlignVCenter, text);
    }

    QString _className;
};

GraphView::GraphView(Session *session, QWidget *parent) : QGraphicsView(parent), _session(session)
{
    setScene(&_scene);
    setRenderHint(QPainter::Antialiasing);
    setDragMode(NoDrag);
    setAccessibleName(tr("Graph of the passes"));
    viewport()->setAccessibleName(accessibleName());
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    connect(session, &Session::structureChanged, this, &GraphView::rebuild);
    connect(session, &Session::inputChanged, this, [this](const QString &pass, const QString &) {
        // A pull at a slider changes no link.
        const GraphNode *node = _nodes.value(pass);
        QStringList linked;
        if (Pipeline *pipeline = _session->pipeline())
            for (const PassInput &input : pipeline->inputs(pass))
                if (input.kind == PassInput::Kind::Link)
                    linked << input.slot;
        if (node && (linked != node->linked || !linked.isEmpty()))
            rebuild();
    });
    connect(session, &Session::enabledChanged, this, [this](const QString &pass) {
        if (GraphNode *node = _nodes.value(pass)) {
            node->isOn = _session->pipeline()->isEnabled(pass);
            node->update();
        }
    });
    connect(session, &Session::chosenPassChanged, this, [this] {
        light();
        showChosen();
    });
}

void GraphView::rebuild()
{
    Pipeline *pipeline = _session->pipeline();
    _scene.clear();
    _nodes.clear();
    _thread = nullptr;
    if (!pipeline)
        return;
    for (const QString &name : pipeline->order()) {
        auto *node = new GraphNode(name, pipeline->className(name));
        node->isOn = pipeline->isEnabled(name);
        for (const PassInput &input : pipeline->inputs(name)) {
            if (isWorthShowing(input))
                node->inputs << input.slot;
            if (input.kind == PassInput::Kind::Link)
                node->linked << input.slot;
        }
        node->outputs = pipeline->outputs(name);
        for (const QString &output : std::as_const(node->outputs))
            if (pipeline->users(name, output) > 0)
                node->read << output;
        _nodes.insert(name, node);
        _scene.addItem(node);
    }
    layOut();
    addLinks();
    light();
    if (_isFitted)
        fit();
}

// Columns by the longest way from a pass without links; in a column those go up whose sources are up.
void GraphView::layOut()
{
    Pipeline *pipeline = _session->pipeline();
    QHash<QString, int> columns;
    QVector<QStringList> passes;
    for (const QString &name : pipeline->order()) {
        int column = 0;
        for (const PassInput &input : pipeline->inputs(name))
            if (input.kind == PassInput::Kind::Link)
                column = std::max(column, columns.value(input.sourcePass) + 1);
        columns[name] = column;
        passes.resize(std::max(passes.size(), qsizetype(column) + 1));
        passes[column] << name;
    }
    QHash<QString, double> middles;
    double x = 0.0;
    for (QStringList &column : passes) {
        QHash<QString, double> wish;
        for (const QString &name : std::as_const(column)) {
            double sum = 0.0;
            int count = 0;
            for (const PassInput &input : pipeline->inputs(name))
                if (input.kind == PassInput::Kind::Link) {
                    sum += middles.value(input.sourcePass);
                    ++count;
                }
            wish[name] = count > 0 ? sum / count : 0.0;
        }
        std::stable_sort(column.begin(), column.end(),
                         [&](const QString &a, const QString &b) { return wish[a] < wish[b]; });
        double height = -kRowGap;
        for (const QString &name : std::as_const(column))
            height += _nodes[name]->boundingRect().height() + kRowGap;
        double y = -height / 2;
        for (const QString &name : std::as_const(column)) {
            GraphNode *node = _nodes[name];
            node->setPos(x, y);
            middles[name] = y + node->boundingRect().height() / 2;
            y += node->boundingRect().height() + kRowGap;
        }
        x += kWidth + kColumnGap;
    }
}

void GraphView::addLinks()
{
    Pipeline *pipeline = _session->pipeline();
    for (const GraphNode *node : std::as_const(_nodes))
        for (const PassInput &input : pipeline->inputs(node->name)) {
            const GraphNode *from = _nodes.value(input.sourcePass);
            if (input.kind != PassInput::Kind::Link || !from)
                continue;
            auto *link = new LinkItem;
            link->from = input.sourcePass;
            link->to = node->name;
            link->setPath(curve(from->outputAt(from->outputs.indexOf(input.source)),
                                node->inputAt(node->inputs.indexOf(input.slot))));
            link->setToolTip(u"%1.%2 → %3.%4"_s.arg(input.sourcePass, SlotName::parse(input.source).name, node->name,
                                                    SlotName::parse(input.slot).name));
            _scene.addItem(link);
        }
    _scene.setSceneRect(_scene.itemsBoundingRect().adjusted(-20, -20, 20, 20));
}

void GraphView::light()
{
    const QString chosen = _session->chosenPass();
    for (GraphNode *node : std::as_const(_nodes)) {
        node->isLit = node->name == chosen;
        node->update();
    }
    for (QGraphicsItem *item : _scene.items())
        if (auto *link = dynamic_cast<LinkItem *>(item)) {
            const bool isLit = link->from == chosen || link->to == chosen;
            link->setPen(QPen(palette().color(isLit ? QPalette::Highlight : QPalette::Mid), isLit ? 2.5 : 1.5));
            link->setZValue(isLit ? 0.5 : 0.0);
        }
}

void GraphView::fit()
{
    _isFitted = true;
    const QRectF all = _scene.sceneRect();
    if (!all.isEmpty())
        fitInView(all, Qt::KeepAspectRatio);
    // Not larger than it was drawn for, and not smaller than can be read: then what is chosen is in sight.
    const double zoom = std::clamp(transform().m11(), kLeastZoom, 1.2);
    if (zoom == transform().m11())
        return;
    resetTransform();
    scale(zoom, zoom);
    showChosen();
}

void GraphView::showChosen()
{
    if (const GraphNode *node = _nodes.value(_session->chosenPass()))
        ensureVisible(node->sceneBoundingRect(), 60, 20);
}

GraphView::Knob GraphView::knobAt(const QPoint &position) const
{
    const QPointF at = mapToScene(position);
    const double reach = std::max(kReach, 6.0 / std::max(transform().m11(), 1e-6));
    const auto isNear = [&](const QPointF &knob) { return QLineF(at, knob).length() <= reach; };
    for (const GraphNode *node : std::as_const(_nodes)) {
        for (qsizetype i = 0; i < node->outputs.size(); ++i)
            if (isNear(node->outputAt(i)))
                return {node->name, node->outputs[i], true};
        for (qsizetype i = 0; i < node->inputs.size(); ++i)
            if (isNear(node->inputAt(i)))
                return {node->name, node->inputs[i], false};
    }
    return {};
}

namespace {

qsizetype indexOf(const QStringList &slotNames, const QString &slot)
{
    for (qsizetype i = 0; i < slotNames.size(); ++i)
        if (slotNames[i] == slot || SlotName::parse(slotNames[i]).name == slot)
            return i;
    return -1;
}

} // namespace

QPoint GraphView::inputKnob(const QString &pass, const QString &slot) const
{
    const GraphNode *node = _nodes.value(pass);
    const qsizetype index = node ? indexOf(node->inputs, slot) : -1;
    return index < 0 ? QPoint(-1, -1) : mapFromScene(node->inputAt(index));
}

QPoint GraphView::outputKnob(const QString &pass, const QString &slot) const
{
    const GraphNode *node = _nodes.value(pass);
    const qsizetype index = node ? indexOf(node->outputs, slot) : -1;
    return index < 0 ? QPoint(-1, -1) : mapFromScene(node->outputAt(index));
}

void GraphView::mousePressEvent(QMouseEvent *event)
{
    _from = event->button() == Qt::LeftButton ? knobAt(event->pos()) : Knob();
    if (_from.isValid()) {
        _thread = _scene.addPath(QPainterPath(), QPen(palette().color(QPalette::Highlight), 2, Qt::DashLine));
        return;
    }
    for (QGraphicsItem *item : items(event->pos()))
        if (const auto *node = dynamic_cast<GraphNode *>(item)) {
            _session->choosePass(node->name);
            return;
        }
    setDragMode(ScrollHandDrag);
    QGraphicsView::mousePressEvent(event);
}

void GraphView::mouseMoveEvent(QMouseEvent *event)
{
    if (!_from.isValid() || !_thread) {
        setCursor(knobAt(event->pos()).isValid() ? Qt::CrossCursor : Qt::ArrowCursor);
        QGraphicsView::mouseMoveEvent(event);
        return;
    }
    const GraphNode *node = _nodes.value(_from.pass);
    const QPointF here = mapToScene(event->pos());
    const QPointF start = _from.isOutput ? node->outputAt(node->outputs.indexOf(_from.slot))
                                         : node->inputAt(node->inputs.indexOf(_from.slot));
    _thread->setPath(_from.isOutput ? curve(start, here) : curve(here, start));
    const Knob to = knobAt(event->pos());
    // Red where it would be refused.
    const bool isMisfit = to.isValid() && to.pass != _from.pass
                          && (to.isOutput == _from.isOutput || !slotTypesMatch(_from.slot, to.slot));
    _thread->setPen(QPen(isMisfit ? QColor(0xd0, 0x30, 0x30) : palette().color(QPalette::Highlight), 2, Qt::DashLine));
}

void GraphView::mouseReleaseEvent(QMouseEvent *event)
{
    setDragMode(NoDrag);
    const Knob from = std::exchange(_from, {});
    delete std::exchange(_thread, nullptr);
    if (!from.isValid()) {
        QGraphicsView::mouseReleaseEvent(event);
        return;
    }
    const Knob to = knobAt(event->pos());
    if (!to.isValid()) {
        // A link that is let go of beside everything is taken out.
        if (!from.isOutput && _nodes.value(from.pass)->linked.contains(from.slot))
            _session->restoreDefault(from.pass, from.slot);
        return;
    }
    if (to.pass == from.pass && to.slot == from.slot)
        return;
    if (to.isOutput == from.isOutput)
        Q_EMIT _session->failed({tr("A link leads from an output to an input")});
    else if (from.isOutput)
        _session->connectSlots(from.pass, from.slot, to.pass, to.slot);
    else
        _session->connectSlots(to.pass, to.slot, from.pass, from.slot);
}

void GraphView::wheelEvent(QWheelEvent *event)
{
    _isFitted = false;
    setTransformationAnchor(AnchorUnderMouse);
    const double factor = std::pow(1.2, event->angleDelta().y() / 120.0);
    scale(factor, factor);
    event->accept();
}

// Along the order of running.
void GraphView::step(int by)
{
    if (!_session->pipeline())
        return;
    const QStringList order = _session->pipeline()->order();
    const qsizetype next = order.indexOf(_session->chosenPass()) + by;
    if (next >= 0 && next < order.size())
        _session->choosePass(order[next]);
}

void GraphView::keyPressEvent(QKeyEvent *event)
{
    switch (event->key()) {
    case Qt::Key_Left:
    case Qt::Key_Up: step(-1); break;
    case Qt::Key_Right:
    case Qt::Key_Down: step(1); break;
    case Qt::Key_F: fit(); break;
    default: QGraphicsView::keyPressEvent(event);
    }
}

void GraphView::showEvent(QShowEvent *event)
{
    QGraphicsView::showEvent(event);
    if (_isFitted)
        fit();
}

void GraphView::resizeEvent(QResizeEvent *event)
{
    QGraphicsView::resizeEvent(event);
    if (_isFitted)
        fit();
}

bool GraphView::event(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange && !_nodes.isEmpty())
        light();
    return QGraphicsView::event(event);
}
