#include "passespanel.h"

#include "core/renderpasshelper.h"
#include "host/passfactory.h"
#include "host/slotname.h"
#include "host/viewportwidget.h"
#include "session.h"

#include <QAction>
#include <QHeaderView>
#include <QInputDialog>
#include <QPainter>
#include <QStyle>
#include <QStyledItemDelegate>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <algorithm>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

enum Column { kName, kGpu, kCpu, kHistory, kClass };
constexpr int kTick = 250; // ms
constexpr int kMostSamples = 60;
constexpr int kHistoryRole = Qt::UserRole + 1;
constexpr int kNameRole = Qt::UserRole + 2;

// A small line of the last times, from 0 to the longest.
class HistoryDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        QStyledItemDelegate::paint(painter, option, index);
        const auto samples = index.data(kHistoryRole).value<QVector<double>>();
        if (samples.size() < 2)
            return;
        const double most = std::max(*std::max_element(samples.begin(), samples.end()), 1e-6);
        const QRectF area = QRectF(option.rect).adjusted(2, 3, -2, -3);
        QPolygonF line;
        for (qsizetype i = 0; i < samples.size(); ++i)
            line << QPointF(area.left() + area.width() * double(i) / (kMostSamples - 1),
                            area.bottom() - area.height() * samples[i] / most);
        painter->save();
        painter->setRenderHint(QPainter::Antialiasing);
        const bool isSelected = option.state.testFlag(QStyle::State_Selected);
        painter->setPen(option.palette.color(isSelected ? QPalette::HighlightedText : QPalette::Highlight));
        painter->drawPolyline(line);
        painter->restore();
    }
};

QString milliseconds(int samples, double value)
{
    return samples > 0 ? QString::number(value, 'f', 2) : u"–"_s;
}

QString meaningOf(const QString &className)
{
    const std::unique_ptr<RenderPass> pass = passFactory().make(className);
    const auto *helper = dynamic_cast<const RenderPassHelper *>(pass.get());
    const PassInfo *info = helper ? helper->passInfo() : nullptr;
    return info ? QString::fromLatin1(info->meaning) : QString();
}

} // namespace

PassesPanel::PassesPanel(Session *session, QWidget *parent) : QWidget(parent), _session(session), _list(new QTreeWidget)
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(_list);
    _list->setObjectName(u"passes"_s);
    _list->setAccessibleName(tr("Passes in the order of running"));
    _list->setHeaderLabels({tr("Pass"), tr("GPU ms"), tr("CPU ms"), tr("History"), tr("Class")});
    _list->setRootIsDecorated(false);
    _list->setUniformRowHeights(true);
    _list->setEditTriggers(QAbstractItemView::EditKeyPressed);
    _list->setItemDelegateForColumn(kHistory, new HistoryDelegate(_list));
    _list->header()->setStretchLastSection(true);
    _list->setContextMenuPolicy(Qt::ActionsContextMenu);
    for (const auto &[column, width] : {std::pair(kGpu, 62), std::pair(kCpu, 62), std::pair(kHistory, 64)})
        _list->setColumnWidth(column, width);
    addActions();
    connect(session, &Session::structureChanged, this, &PassesPanel::rebuild);
    connect(session, &Session::enabledChanged, this, [this](const QString &pass) {
        _isFilling = true;
        if (QTreeWidgetItem *item = itemOf(pass))
            item->setCheckState(kName, _session->pipeline()->isEnabled(pass) ? Qt::Checked : Qt::Unchecked);
        _isFilling = false;
    });
    connect(session, &Session::chosenPassChanged, this, [this](const QString &name) {
        if (QTreeWidgetItem *item = itemOf(name); item && item != _list->currentItem())
            _list->setCurrentItem(item);
    });
    connect(_list, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem *item) {
        if (item && !_isFilling)
            _session->choosePass(item->data(kName, kNameRole).toString());
    });
    connect(_list, &QTreeWidget::itemChanged, this, &PassesPanel::onItemChanged);
    // Only frames bring new times: without them the timer does not run.
    _tick.setSingleShot(true);
    _tick.setInterval(kTick);
    connect(&_tick, &QTimer::timeout, this, &PassesPanel::updateTimes);
    connect(session->view(), &ViewportWidget::frameDrawn, this, [this] {
        if (!_tick.isActive() && isVisible())
            _tick.start();
    });
}

QAction *PassesPanel::addAction(const QString &text, const QKeySequence &keys, void (PassesPanel::*slot)())
{
    auto *action = new QAction(text, this);
    action->setShortcut(keys);
    action->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(action, &QAction::triggered, this, slot);
    _list->addAction(action);
    _actions << action;
    return action;
}

void PassesPanel::addActions()
{
    addAction(tr("On or off"), Qt::Key_Space, &PassesPanel::toggle);
    addAction(tr("Rename"), Qt::Key_F2, &PassesPanel::rename);
    addAction(tr("Add a pass…"), QKeySequence(Qt::CTRL | Qt::Key_N), &PassesPanel::add);
    addAction(tr("Insert a pass behind…"), Qt::Key_Insert, &PassesPanel::insert);
    addAction(tr("Replace by another class…"), QKeySequence(Qt::CTRL | Qt::Key_R), &PassesPanel::replace);
    addAction(tr("Remove"), Qt::Key_Delete, &PassesPanel::remove);
}

QTreeWidgetItem *PassesPanel::itemOf(const QString &pass) const
{
    for (int i = 0; i < _list->topLevelItemCount(); ++i)
        if (_list->topLevelItem(i)->data(kName, kNameRole).toString() == pass)
            return _list->topLevelItem(i);
    return nullptr;
}

void PassesPanel::rebuild()
{
    Pipeline *pipeline = _session->pipeline();
    if (!pipeline)
        return;
    _isFilling = true;
    _list->clear();
    for (const QString &name : pipeline->order()) {
        auto *item = new QTreeWidgetItem(_list, {name, QString(), QString(), QString(), pipeline->className(name)});
        item->setData(kName, kNameRole, name);
        item->setFlags(item->flags() | Qt::ItemIsUserCheckable | Qt::ItemIsEditable);
        item->setCheckState(kName, pipeline->isEnabled(name) ? Qt::Checked : Qt::Unchecked);
        item->setToolTip(kClass, meaningOf(pipeline->className(name)));
        QStringList ways;
        for (const QString &output : pipeline->outputs(name)) {
            const QString past = pipeline->bypassSlot(name, output);
            if (pipeline->users(name, output) > 0 || !past.isEmpty())
                ways << u"%1 ← %2"_s.arg(SlotName::parse(output).name,
                                         past.isEmpty() ? tr("nothing") : SlotName::parse(past).name);
        }
        item->setToolTip(kName, tr("Off: %1").arg(ways.isEmpty() ? tr("left out") : ways.join(u", ")));
        for (const int column : {kGpu, kCpu})
            item->setTextAlignment(column, Qt::AlignRight | Qt::AlignVCenter);
        if (name == _session->chosenPass())
            _list->setCurrentItem(item);
    }
    _isFilling = false;
    for (const int column : {kName, kClass})
        _list->resizeColumnToContents(column);
    showFaults();
    updateTimes();
}

void PassesPanel::updateTimes()
{
    Pipeline *pipeline = _session->pipeline();
    if (!pipeline || !_session->view()->isValid())
        return;
    _session->view()->makeCurrent();
    const QVector<PassTiming> timings = pipeline->timings();
    _session->view()->doneCurrent();
    _isFilling = true;
    for (const PassTiming &timing : timings) {
        QTreeWidgetItem *item = itemOf(timing.pass);
        if (!item)
            continue;
        item->setText(kGpu, milliseconds(timing.gpuSamples, timing.gpuMedian));
        item->setText(kCpu, milliseconds(timing.cpuSamples, timing.cpuMedian));
        QVector<double> &samples = _history[timing.pass];
        samples << (timing.gpuSamples > 0 ? timing.gpuLast : timing.cpuLast);
        if (samples.size() > kMostSamples)
            samples.removeFirst();
        item->setData(kHistory, kHistoryRole, QVariant::fromValue(samples));
    }
    _isFilling = false;
}

void PassesPanel::setFaults(const QStringList &faults)
{
    if (faults == _faults)
        return;
    _faults = faults;
    showFaults();
}

void PassesPanel::showFaults()
{
    _isFilling = true;
    for (int i = 0; i < _list->topLevelItemCount(); ++i) {
        QTreeWidgetItem *item = _list->topLevelItem(i);
        const QString quoted = u'\'' + item->data(kName, kNameRole).toString() + u'\'';
        const QStringList own = _faults.filter(quoted);
        item->setIcon(kName, own.isEmpty() ? QIcon() : style()->standardIcon(QStyle::SP_MessageBoxWarning));
        item->setData(kName, Qt::AccessibleDescriptionRole, own.join(u'\n'));
        if (!own.isEmpty())
            item->setToolTip(kName, own.join(u'\n'));
    }
    _isFilling = false;
}

void PassesPanel::onItemChanged(QTreeWidgetItem *item, int column)
{
    if (_isFilling || column != kName)
        return;
    const QString name = item->data(kName, kNameRole).toString();
    const bool isOn = item->checkState(kName) == Qt::Checked;
    const QString text = item->text(kName);
    // What comes of it makes the list anew, which this item does not survive.
    QMetaObject::invokeMethod(
        this,
        [this, name, isOn, text] {
            if (text != name) {
                if (!_session->rename(name, text))
                    rebuild();
            } else {
                _session->setEnabled(name, isOn);
            }
        },
        Qt::QueuedConnection);
}

void PassesPanel::toggle()
{
    const QString pass = _session->chosenPass();
    if (_session->pipeline())
        _session->setEnabled(pass, !_session->pipeline()->isEnabled(pass));
}

void PassesPanel::rename()
{
    if (QTreeWidgetItem *item = itemOf(_session->chosenPass()))
        _list->editItem(item, kName);
}

QString PassesPanel::askForClass(const QString &title, const QStringList &classes)
{
    bool isChosen = false;
    const QString name = QInputDialog::getItem(this, title, tr("Class"), classes, 0, false, &isChosen);
    return isChosen ? name : QString();
}

void PassesPanel::add()
{
    const QString className = askForClass(tr("Add a pass"), passFactory().classNames());
    if (className.isEmpty())
        return;
    const QString name = _session->freeName(className);
    if (_session->add(name, className))
        _session->choosePass(name);
}

// Into the first link that starts at the chosen pass and that a class fits into.
void PassesPanel::insert()
{
    Pipeline *pipeline = _session->pipeline();
    if (!pipeline)
        return;
    const QString from = _session->chosenPass();
    QString to;
    PassInput link;
    for (const QString &other : pipeline->order())
        for (const PassInput &input : pipeline->inputs(other))
            if (to.isEmpty() && input.kind == PassInput::Kind::Link && input.sourcePass == from) {
                to = other;
                link = input;
            }
    if (to.isEmpty()) {
        Q_EMIT _session->failed({tr("Nothing reads an output of '%1': there is no link to insert into").arg(from)});
        return;
    }
    QHash<QString, std::pair<QString, QString>> ways; // by class: the way in and the way out
    for (const QString &className : passFactory().classNames()) {
        const std::unique_ptr<RenderPass> pass = passFactory().make(className);
        QString in, out;
        for (int i = 0; i < pass->numInputs() && in.isEmpty(); ++i)
            if (slotTypesMatch(link.source, pass->inputName(i)) && !SlotName::parse(pass->inputName(i)).type.isEmpty())
                in = pass->inputName(i);
        for (int i = 0; i < pass->numOutputs() && out.isEmpty(); ++i)
            if (slotTypesMatch(pass->outputName(i), link.slot))
                out = pass->outputName(i);
        if (!in.isEmpty() && !out.isEmpty())
            ways.insert(className, {in, out});
    }
    QStringList classes = ways.keys();
    classes.sort();
    const QString className = askForClass(tr("Insert a pass behind '%1'").arg(from), classes);
    if (className.isEmpty())
        return;
    const QString name = _session->freeName(className);
    const auto &[in, out] = ways[className];
    if (_session->insert(name, className, to, link.slot, in, out))
        _session->choosePass(name);
}

void PassesPanel::replace()
{
    const QString pass = _session->chosenPass();
    const QString className = askForClass(tr("Replace '%1' by another class").arg(pass), passFactory().classNames());
    if (!className.isEmpty())
        _session->replace(pass, className);
}

void PassesPanel::remove()
{
    _session->remove(_session->chosenPass());
}
