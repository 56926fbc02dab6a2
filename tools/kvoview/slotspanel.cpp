#include "slotspanel.h"

#include "core/renderpasshelper.h"
#include "core/slotinfo.h"
#include "frameprobe.h"
#include "host/slotname.h"
#include "host/slotvalue.h"
#include "host/viewportwidget.h"
#include "session.h"
#include "sloteditor.h"

#include <QComboBox>
#include <QGridLayout>
#include <QLabel>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QStyle>
#include <QToolButton>
#include <QVBoxLayout>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr int kNameWidth = 92;
constexpr int kValueWidth = 180;
constexpr int kTick = 250; // ms
constexpr int kKindRole = Qt::UserRole;
constexpr int kSourceRole = Qt::UserRole + 1;
constexpr int kPassRole = Qt::UserRole + 2;

// What only links and host values can give.
bool hasText(const QString &slot)
{
    const QString type = SlotName::parse(slot).type;
    return !type.endsWith(u'*') && !type.startsWith(u"Kvo") && type != u"QList";
}

} // namespace

SlotsPanel::SlotsPanel(Session *session, QWidget *parent)
    : QWidget(parent), _session(session), _title(new QLabel), _area(new QScrollArea)
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 0);
    layout->addWidget(_title);
    layout->addWidget(_area, 1);
    _title->setWordWrap(true);
    _title->setTextFormat(Qt::RichText);
    _area->setWidgetResizable(true);
    _area->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    _area->setFrameShape(QFrame::NoFrame);
    setAccessibleName(tr("Slots of the chosen pass"));
    connect(session, &Session::chosenPassChanged, this, &SlotsPanel::rebuild);
    connect(session, &Session::structureChanged, this, &SlotsPanel::rebuild);
    connect(session, &Session::inputChanged, this, &SlotsPanel::update);
    // Only frames bring other values of outputs.
    _tick.setSingleShot(true);
    _tick.setInterval(kTick);
    connect(&_tick, &QTimer::timeout, this, &SlotsPanel::updateValues);
    connect(session->view(), &ViewportWidget::frameDrawn, this, [this] {
        if (!_values.isEmpty() && !_tick.isActive() && isVisible())
            _tick.start();
    });
}

const SlotsPanel::Row *SlotsPanel::rowOf(const QString &slot) const
{
    for (auto row = _rows.cbegin(); row != _rows.cend(); ++row)
        if (row.key() == slot || SlotName::parse(row.key()).name == slot)
            return &row.value();
    return nullptr;
}

SlotEditor *SlotsPanel::editor(const QString &slot) const
{
    const Row *row = rowOf(slot);
    return row ? row->editor : nullptr;
}

QComboBox *SlotsPanel::sourceChoice(const QString &slot) const
{
    const Row *row = rowOf(slot);
    return row ? row->source : nullptr;
}

QToolButton *SlotsPanel::restoreButton(const QString &slot) const
{
    const Row *row = rowOf(slot);
    return row ? row->restore : nullptr;
}

void SlotsPanel::rebuild()
{
    Pipeline *pipeline = _session->pipeline();
    _pass = _session->chosenPass();
    _rows.clear();
    _values.clear();
    // What asked for this may be one of the widgets that go.
    if (QWidget *before = _area->takeWidget())
        before->deleteLater();
    RenderPass *pass = pipeline ? pipeline->pass(_pass) : nullptr;
    if (!pass) {
        _title->clear();
        return;
    }
    const auto *helper = dynamic_cast<const RenderPassHelper *>(pass);
    const PassInfo *info = helper ? helper->passInfo() : nullptr;
    _title->setText(u"<b>%1</b> – %2%3"_s.arg(_pass.toHtmlEscaped(), pipeline->className(_pass).toHtmlEscaped(),
                                              info ? u": %1"_s.arg(QString::fromLatin1(info->meaning).toHtmlEscaped())
                                                   : QString()));
    auto *page = new QWidget;
    auto *layout = new QGridLayout(page);
    layout->setContentsMargins(0, 2, 4, 2);
    layout->setVerticalSpacing(2);
    layout->setHorizontalSpacing(4);
    int line = 0;
    for (const PassInput &input : pipeline->inputs(_pass))
        addInput(layout, line++, input);
    for (const QString &output : pipeline->outputs(_pass))
        addOutput(layout, line++, output);
    layout->setColumnMinimumWidth(3, 150);
    layout->setColumnStretch(3, 1);
    layout->setRowStretch(line, 1);
    _area->setWidget(page);
    updateValues();
}

void SlotsPanel::addInput(QGridLayout *layout, int line, const PassInput &input)
{
    Pipeline *pipeline = _session->pipeline();
    const SlotInfo *info = pipeline->inputInfo(_pass, input.slot);
    Row row;
    pipeline->inputSlot(_pass, input.slot, nullptr, &row.fallback);
    const SlotName name = SlotName::parse(input.slot);
    // Long names are cut: the editors need the room, and the whole name is in the tip.
    row.name = new QLabel(fontMetrics().elidedText(name.name, Qt::ElideMiddle, kNameWidth));
    QString tip = u"%1 (%2)"_s.arg(name.name, name.type);
    if (info)
        tip += u"\n%1%2"_s.arg(QString::fromLatin1(info->meaning),
                               info->hasEffect ? QString() : tr("\nThe pass does not read it."));
    row.name->setToolTip(tip);
    row.source = new QComboBox;
    row.source->setMinimumContentsLength(5);
    row.source->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    row.source->setAccessibleName(tr("Source of %1").arg(name.name));
    fillSources(row.source, input);
    const QString slot = input.slot;
    connect(row.source, &QComboBox::activated, this, [this, slot](int index) { takeSource(slot, index); });
    if (hasText(slot)) {
        row.editor = SlotEditor::make(slot, info, row.fallback, this);
        connect(row.editor, &SlotEditor::edited, this,
                [this, slot](const QVariant &value, int gesture) { _session->setValue(_pass, slot, value, gesture); });
        row.name->setBuddy(row.editor);
    }
    row.restore = new QToolButton;
    row.restore->setIcon(style()->standardIcon(QStyle::SP_BrowserReload));
    row.restore->setAutoRaise(true);
    row.restore->setAccessibleName(tr("Restore the default of %1").arg(name.name));
    row.restore->setToolTip(tr("Back to the default: %1").arg(describeSlotValue(row.fallback)));
    connect(row.restore, &QToolButton::clicked, this, [this, slot] { _session->restoreDefault(_pass, slot); });
    layout->addWidget(row.name, line, 0);
    layout->addWidget(row.source, line, 1);
    layout->addWidget(row.restore, line, 2);
    if (row.editor)
        layout->addWidget(row.editor, line, 3);
    _rows.insert(slot, row);
    display(row, input);
}

void SlotsPanel::addOutput(QGridLayout *layout, int line, const QString &slot)
{
    Pipeline *pipeline = _session->pipeline();
    const SlotInfo *info = pipeline->outputInfo(_pass, slot);
    const SlotName name = SlotName::parse(slot);
    auto *label = new QLabel(u"→ "_s + name.name);
    label->setToolTip(
        info ? u"%1\n%2\n%3"_s.arg(name.type, QString::fromLatin1(info->meaning), QString::fromLatin1(info->format))
             : name.type);
    const int users = pipeline->users(_pass, slot);
    auto *readers = new QLabel(users == 0 ? tr("unread") : tr("%n reader(s)", nullptr, users));
    readers->setEnabled(users > 0);
    layout->addWidget(label, line, 0);
    layout->addWidget(readers, line, 1);
    if (!isLookable(slot)) {
        auto *value = new QLabel;
        value->setTextInteractionFlags(Qt::TextSelectableByMouse);
        value->setAccessibleName(tr("Value of %1").arg(name.name));
        layout->addWidget(value, line, 2, 1, 2);
        _values.append({slot, value});
        return;
    }
    auto *look = new QToolButton;
    look->setText(tr("Look"));
    look->setObjectName(u"look "_s + name.name);
    look->setAccessibleName(tr("Look at %1").arg(name.name));
    connect(look, &QToolButton::clicked, this, [this, slot] { Q_EMIT lookAt(_pass, slot); });
    layout->addWidget(look, line, 2, 1, 2, Qt::AlignLeft);
}

// The entry that is current is always the first of its kind: the links of passes further down the chain are not
// offered, since they would close a cycle.
void SlotsPanel::fillSources(QComboBox *box, const PassInput &input) const
{
    Pipeline *pipeline = _session->pipeline();
    const auto add = [box](const QString &text, PassInput::Kind kind, const QString &source, const QString &pass) {
        box->addItem(text);
        const int last = box->count() - 1;
        box->setItemData(last, int(kind), kKindRole);
        box->setItemData(last, source, kSourceRole);
        box->setItemData(last, pass, kPassRole);
    };
    add(tr("default"), PassInput::Kind::Default, {}, {});
    if (hasText(input.slot) || input.kind == PassInput::Kind::Value)
        add(tr("value"), PassInput::Kind::Value, {}, {});
    for (const QString &host : Pipeline::hostValuesFor(input.slot))
        add(u'@' + host, PassInput::Kind::Host, u'@' + host, {});
    if (input.kind == PassInput::Kind::Host && box->findText(input.source) < 0)
        add(input.source, PassInput::Kind::Host, input.source, {});
    for (const QString &other : pipeline->passNames()) {
        if (other == _pass)
            continue;
        for (const QString &output : pipeline->outputs(other))
            if (slotTypesMatch(output, input.slot) && !SlotName::parse(output).type.isEmpty())
                add(u"%1.%2"_s.arg(other, SlotName::parse(output).name), PassInput::Kind::Link, output, other);
    }
}

void SlotsPanel::updateValues()
{
    Pipeline *pipeline = _session->pipeline();
    for (const auto &[slot, label] : std::as_const(_values)) {
        const QString text = pipeline ? describeSlotValue(pipeline->output(_pass, slot)) : QString();
        label->setText(label->fontMetrics().elidedText(text, Qt::ElideRight, kValueWidth));
        label->setToolTip(text);
    }
}

void SlotsPanel::takeSource(const QString &slot, int index)
{
    const Row row = _rows.value(slot);
    PassInput state;
    state.slot = slot;
    state.kind = PassInput::Kind(row.source->itemData(index, kKindRole).toInt());
    state.source = row.source->itemData(index, kSourceRole).toString();
    state.sourcePass = row.source->itemData(index, kPassRole).toString();
    // A value of its own begins with the default.
    state.value = row.fallback;
    if (!_session->setInput(_pass, state))
        update(_pass, slot); // back to what it is
}

void SlotsPanel::update(const QString &pass, const QString &slot)
{
    const auto row = _rows.constFind(slot);
    if (pass != _pass || row == _rows.cend() || !_session->pipeline())
        return;
    for (const PassInput &input : _session->pipeline()->inputs(pass))
        if (input.slot == slot)
            display(*row, input);
}

void SlotsPanel::display(const Row &row, const PassInput &input)
{
    const QSignalBlocker quiet(row.source);
    for (int i = 0; i < row.source->count(); ++i)
        if (row.source->itemData(i, kKindRole).toInt() == int(input.kind)
            && row.source->itemData(i, kSourceRole).toString() == input.source
            && row.source->itemData(i, kPassRole).toString() == input.sourcePass)
            row.source->setCurrentIndex(i);
    const bool isDefault = input.kind == PassInput::Kind::Default;
    QFont font = row.name->font();
    font.setBold(!isDefault);
    row.name->setFont(font);
    row.restore->setEnabled(!isDefault);
    if (!row.editor)
        return;
    const bool isOwn = isDefault || input.kind == PassInput::Kind::Value;
    row.editor->setVisible(isOwn);
    // A default that is what the pulled slider holds already would jump back under the hand.
    if (isOwn)
        row.editor->setValue(isDefault ? row.fallback : input.value);
}
