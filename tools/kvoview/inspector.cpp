#include "inspector.h"

#include "gl/texture.h"
#include "histogramview.h"
#include "host/pipeline.h"
#include "host/slotname.h"
#include "host/viewportwidget.h"
#include "session.h"
#include "textureview.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QVBoxLayout>

#include <cmath>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr int kPassRole = Qt::UserRole;
constexpr int kSlotRole = Qt::UserRole + 1;
constexpr int kLists = 100; // beside Look::Channels
constexpr double kLimit = 1e12;

QString numberText(double value)
{
    if (std::isnan(value))
        return u"NaN"_s;
    return std::isinf(value) ? (value > 0 ? u"+∞"_s : u"−∞"_s) : QString::number(value, 'g', 9);
}

QComboBox *makeBox(QWidget *parent, const QString &name)
{
    auto *box = new QComboBox(parent);
    box->setAccessibleName(name);
    box->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    box->setMinimumContentsLength(8);
    return box;
}

} // namespace

Inspector::Inspector(Session *session, FrameProbe *probe, QWidget *parent)
    : QWidget(parent), _session(session), _probe(probe), _output(makeBox(this, tr("Output"))),
      _moment(makeBox(this, tr("Moment of the frame"))), _channels(makeBox(this, tr("Channels"))),
      _layer(new QSpinBox(this)), _level(new QSpinBox(this)), _compare(makeBox(this, tr("Compare"))),
      _other(makeBox(this, tr("Output to compare with"))), _low(new QDoubleSpinBox(this)),
      _high(new QDoubleSpinBox(this)), _auto(new QCheckBox(tr("Auto"), this)),
      _specials(new QCheckBox(tr("Mark NaN, ∞"), this)), _histogram(new HistogramView(this)),
      _view(new TextureView(this)), _facts(new QLabel(this)), _texel(new QLabel(this))
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 2);
    layout->setSpacing(3);
    layout->addLayout(makeSources());
    layout->addLayout(makeLook());
    layout->addWidget(_histogram);
    layout->addLayout(makeRange());
    layout->addWidget(_view, 1);
    layout->addWidget(_facts);
    layout->addWidget(_texel);
    _facts->setWordWrap(true);
    _texel->setWordWrap(true);
    _texel->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    _texel->setMinimumHeight(fontMetrics().lineSpacing() * 2);
    _texel->setAccessibleName(tr("Values of the texel"));

    connect(session, &Session::structureChanged, this, &Inspector::fillOutputs);
    connect(probe, &FrameProbe::looked, this, &Inspector::take);
    for (QComboBox *box : {_output, _moment, _other, _compare})
        connect(box, &QComboBox::currentIndexChanged, this, &Inspector::arm);
    connect(_level, &QSpinBox::valueChanged, this, &Inspector::arm);
    connect(_channels, &QComboBox::currentIndexChanged, this, &Inspector::arm);
    connect(_layer, &QSpinBox::valueChanged, this, &Inspector::render);
    connect(_specials, &QCheckBox::toggled, this, &Inspector::render);
    connect(_auto, &QCheckBox::toggled, this, &Inspector::render);
    for (QDoubleSpinBox *field : {_low, _high})
        connect(field, &QDoubleSpinBox::valueChanged, this, [this] {
            _auto->setChecked(false);
            render();
        });
    connect(_histogram, &HistogramView::rangePulled, this, [this](double low, double high) {
        const QSignalBlocker lower(_low), upper(_high);
        _auto->setChecked(false);
        _low->setValue(low);
        _high->setValue(high);
        render();
    });
    connect(_view, &TextureView::hoveredChanged, this, &Inspector::updateText);
}

QLayout *Inspector::makeSources()
{
    auto *form = new QFormLayout;
    form->setSpacing(3);
    _output->setObjectName(u"output"_s);
    _moment->setObjectName(u"moment"_s);
    form->addRow(tr("Output"), _output);
    form->addRow(tr("Behind"), _moment);
    auto *compare = new QHBoxLayout;
    _compare->addItems({tr("alone"), tr("wipe"), tr("difference")});
    compare->addWidget(_compare);
    compare->addWidget(_other, 1);
    form->addRow(tr("Compare"), compare);
    return form;
}

QLayout *Inspector::makeLook()
{
    auto *row = new QHBoxLayout;
    using Channels = Look::Channels;
    const std::pair<QString, Channels> choices[] = {{tr("RGB"), Channels::Color},
                                                    {tr("Red"), Channels::Red},
                                                    {tr("Green"), Channels::Green},
                                                    {tr("Blue"), Channels::Blue},
                                                    {tr("Alpha"), Channels::Alpha},
                                                    {tr("RGB over alpha"), Channels::Blended},
                                                    {tr("Depth, linear"), Channels::LinearDepth},
                                                    {tr("Ids"), Channels::Ids}};
    for (const auto &[text, channels] : choices)
        _channels->addItem(text, int(channels));
    _channels->addItem(tr("Fragment lists"), kLists);
    _channels->setObjectName(u"channels"_s);
    _layer->setPrefix(tr("layer "));
    _layer->setAccessibleName(tr("Layer or face"));
    _layer->setObjectName(u"layer"_s);
    _level->setPrefix(tr("level "));
    _level->setAccessibleName(tr("Mip level"));
    _level->setObjectName(u"level"_s);
    auto *save = new QPushButton(tr("Save…"), this);
    connect(save, &QPushButton::clicked, this, &Inspector::saveAs);
    row->addWidget(_channels, 1);
    row->addWidget(_layer);
    row->addWidget(_level);
    row->addWidget(save);
    return row;
}

QLayout *Inspector::makeRange()
{
    auto *row = new QHBoxLayout;
    for (QDoubleSpinBox *field : {_low, _high}) {
        field->setRange(-kLimit, kLimit);
        field->setDecimals(5);
        field->setKeyboardTracking(false);
        field->setButtonSymbols(QAbstractSpinBox::NoButtons);
        row->addWidget(field, 1);
    }
    _low->setAccessibleName(tr("Value shown black"));
    _high->setAccessibleName(tr("Value shown white"));
    _high->setValue(1.0);
    _auto->setChecked(true);
    _auto->setObjectName(u"auto"_s);
    _specials->setChecked(true);
    row->addWidget(_auto);
    row->addWidget(_specials);
    return row;
}

void Inspector::fillOutputs()
{
    Pipeline *pipeline = _session->pipeline();
    if (!pipeline)
        return;
    const QString output = _output->currentText();
    const QString other = _other->currentText();
    const QString moment = _moment->currentText();
    const QSignalBlocker a(_output), b(_other), c(_moment);
    for (QComboBox *box : {_output, _other})
        box->clear();
    _moment->clear();
    _moment->addItem(tr("its own pass"));
    for (const QString &pass : pipeline->order()) {
        _moment->addItem(pass);
        for (const QString &slot : pipeline->outputs(pass)) {
            if (!isLookable(slot))
                continue;
            for (QComboBox *box : {_output, _other}) {
                box->addItem(u"%1.%2"_s.arg(pass, SlotName::parse(slot).name));
                box->setItemData(box->count() - 1, pass, kPassRole);
                box->setItemData(box->count() - 1, slot, kSlotRole);
            }
        }
    }
    // The last picture of the chain is where one begins.
    const int last = _output->count() - 1;
    _output->setCurrentIndex(std::max(_output->findText(output), output.isEmpty() ? last : -1));
    _other->setCurrentIndex(std::max(_other->findText(other), 0));
    _moment->setCurrentIndex(std::max(_moment->findText(moment), 0));
    if (_output->currentIndex() < 0)
        _output->setCurrentIndex(last);
    arm();
}

void Inspector::lookAt(const QString &pass, const QString &slot)
{
    for (int i = 0; i < _output->count(); ++i) {
        const QString full = _output->itemData(i, kSlotRole).toString();
        if (_output->itemData(i, kPassRole).toString() != pass
            || (!slot.isEmpty() && full != slot && SlotName::parse(full).name != slot))
            continue;
        _output->setCurrentIndex(i);
        return;
    }
}

Tap Inspector::tapOf(const QComboBox *box) const
{
    Tap tap;
    tap.pass = box->currentData(kPassRole).toString();
    tap.slot = box->currentData(kSlotRole).toString();
    tap.moment = _moment->currentIndex() > 0 && box == _output ? _moment->currentText() : QString();
    tap.level = _level->value();
    return tap;
}

bool Inspector::showsLists() const
{
    return _channels->currentData().toInt() == kLists;
}

// Asks for what is wanted while the panel is seen, and for nothing else.
void Inspector::arm()
{
    if (!isVisible()) {
        _probe->setTaps({});
        _probe->setVisitor({});
        return;
    }
    QVector<Tap> taps{tapOf(_output)};
    if (_compare->currentIndex() > 0)
        taps << tapOf(_other);
    _other->setEnabled(_compare->currentIndex() > 0);
    _probe->setTaps(taps);
    if (showsLists())
        _probe->setVisitor([this](const QString &pass) { readLists(pass); });
    else
        _probe->setVisitor({});
    _session->view()->invalidate();
}

void Inspector::showEvent(QShowEvent *)
{
    arm();
}

void Inspector::hideEvent(QHideEvent *)
{
    arm();
}

void Inspector::readLists(const QString &pass)
{
    const Tap tap = tapOf(_output);
    Pipeline *pipeline = _session->pipeline();
    if (pass != tap.pass)
        return;
    _listsError.clear();
    _lists.read(textureFromVariant(pipeline->output(pass, u"HeadPointers"_s)),
                textureFromVariant(pipeline->output(pass, u"NodeBuffer"_s)),
                pipeline->output(pass, u"NodeBufferWidth"_s).toInt(), &_listsError);
}

void Inspector::take()
{
    const QVector<TapResult> &results = _probe->results();
    if (results.isEmpty() || !isVisible())
        return;
    _shown = results[0].texels;
    _second = results.size() > 1 ? results[1].texels : Texels();
    QString facts = _shown.isEmpty() ? results[0].error + results[0].text : _shown.facts().text();
    if (_compare->currentIndex() == int(Compare::Difference) && results.size() > 1) {
        QString error;
        Texels difference;
        if (Texels::difference(_shown, _second, &difference, &error))
            _shown = difference;
        else
            facts = error;
    }
    {
        const QSignalBlocker layer(_layer), level(_level);
        _layer->setRange(0, std::max(0, _shown.layers() - 1));
        _level->setRange(0, std::max(0, _shown.facts().levels - 1));
        _layer->setEnabled(_shown.layers() > 1);
        _level->setEnabled(_shown.facts().levels > 1);
    }
    _facts->setText(facts);
    render();
}

void Inspector::updateRange()
{
    const TexelStatistics statistics = _shown.statistics(_layer->value(), _look);
    if (_auto->isChecked()) {
        // Colours from 0 to 1 are shown as they are.
        const bool isPlain = !_shown.isDepth() && _look.channels != Look::Channels::LinearDepth && !_shown.isInteger()
                             && statistics.least >= 0.0 && statistics.most <= 1.0
                             && _compare->currentIndex() != int(Compare::Difference);
        const QSignalBlocker low(_low), high(_high);
        _low->setValue(isPlain ? 0.0 : statistics.least);
        _high->setValue(isPlain ? 1.0 : statistics.most);
        _look.low = isPlain ? 0.0 : statistics.least;
        _look.high = isPlain ? 1.0 : statistics.most;
    } else {
        _look.low = _low->value();
        _look.high = _high->value();
    }
    _histogram->setStatistics(statistics);
    _histogram->setRange(_look.low, _look.high);
    QString text = _facts->text().section(u'\n', 0, 0);
    if (statistics.finite > 0)
        text += tr("\n%1 to %2, mean %3")
                    .arg(numberText(statistics.least), numberText(statistics.most), numberText(statistics.mean));
    if (statistics.notNumbers + statistics.infinities > 0)
        text += tr(", %1 NaN, %2 infinite").arg(statistics.notNumbers).arg(statistics.infinities);
    _facts->setText(text);
}

void Inspector::render()
{
    if (showsLists()) {
        _view->setOther({});
        _view->setPicture(_listsError.isEmpty() ? _lists.lengthImage() : QImage());
        _facts->setText(_listsError.isEmpty() ? _lists.summary().join(u'\n') : _listsError);
        updateText();
        return;
    }
    _look.channels = Look::Channels(_channels->currentData().toInt());
    _look.marksSpecials = _specials->isChecked();
    if (Pipeline *pipeline = _session->pipeline())
        _look.projection = pipeline->hostValue(u"projection"_s).value<QMatrix4x4>();
    updateRange();
    _view->setPicture(_shown.picture(_layer->value(), _look));
    _view->setOther(_compare->currentIndex() == int(Compare::Wipe) ? _second.picture(_layer->value(), _look)
                                                                   : QImage());
    updateText();
}

void Inspector::updateText()
{
    _texel->setText(texelText());
}

QString Inspector::texelText() const
{
    const std::optional<QPoint> at = _view->hovered();
    if (!at)
        return QString();
    if (showsLists()) {
        if (!_listsError.isEmpty())
            return _listsError;
        const int row = _lists.size().height() - 1 - at->y();
        QStringList lines{tr("(%1, %2): %3 fragments").arg(at->x()).arg(at->y()).arg(_lists.lengthAt(at->x(), row))};
        for (const ListedFragment &fragment : _lists.at(at->x(), row).mid(0, 12))
            lines << tr("depth %1  item %2  triangle %3")
                         .arg(double(fragment.depth), 0, 'f', 8)
                         .arg(fragment.draw)
                         .arg(fragment.primitive);
        return lines.join(u'\n');
    }
    const QVector<double> values = _shown.at(*at, _layer->value());
    if (values.isEmpty())
        return QString();
    QStringList parts;
    for (const double value : values)
        parts << numberText(value);
    QString text = u"(%1, %2): %3"_s.arg(at->x()).arg(at->y()).arg(parts.join(u"  "_s));
    if (_look.channels == Look::Channels::LinearDepth)
        text += tr("\ndistance %1").arg(numberText(_shown.shownAt(*at, _layer->value(), _look, 0)));
    if (_compare->currentIndex() == int(Compare::Wipe)) {
        QStringList others;
        for (const double value : _second.at(*at, _layer->value()))
            others << numberText(value);
        text += tr("\nother: %1").arg(others.join(u"  "_s));
    }
    return text;
}

bool Inspector::save(const QString &path, QString *error)
{
    if (path.endsWith(u".exr", Qt::CaseInsensitive) && !showsLists())
        return writeExr(_shown.layer(_layer->value()), path, error);
    return writeImage(_view->picture(), path, error);
}

void Inspector::saveAs()
{
    const QString path = QFileDialog::getSaveFileName(this, tr("Save the texture"), QString(),
                                                      tr("As shown (*.png);;Exact values (*.exr)"));
    QString error;
    if (!path.isEmpty() && !save(path, &error))
        Q_EMIT _session->failed({error});
}
