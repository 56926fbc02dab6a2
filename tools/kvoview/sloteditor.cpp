#include "sloteditor.h"

#include "core/slotinfo.h"
#include "host/slotname.h"
#include "host/slotvalue.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QMatrix4x4>
#include <QPainter>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QToolButton>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <algorithm>
#include <cmath>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr double kLimit = 1e9; // of fields for numbers without a range
constexpr size_t kLongestUnit = 7;
constexpr int kSliderSteps = 1000;
constexpr int kArrows = 30; // pixels beside the text of a field
int lastGesture = 0;

bool isFiniteRange(const SlotInfo *info)
{
    return info && std::isfinite(info->range.least) && std::isfinite(info->range.most)
           && info->range.most > info->range.least;
}

double stepOf(const SlotInfo *info, bool isWhole)
{
    if (info && info->range.step > 0.0)
        return info->range.step;
    if (isWhole)
        return 1.0;
    return isFiniteRange(info) ? (info->range.most - info->range.least) / 100.0 : 0.1;
}

QString tipOf(const SlotInfo *info)
{
    if (!info)
        return QString();
    QString tip = QString::fromLatin1(info->meaning);
    if (isFiniteRange(info))
        tip += u" (%1 to %2 %3)"_s.arg(info->range.least).arg(info->range.most).arg(QLatin1StringView(info->unit));
    else if (*info->unit)
        tip += u" (%1)"_s.arg(QLatin1StringView(info->unit));
    return tip;
}

QDoubleSpinBox *makeField(const SlotInfo *info, bool isWhole, QWidget *parent)
{
    // Typed digits count when they are all there.
    auto *field = new QDoubleSpinBox(parent);
    field->setKeyboardTracking(false);
    field->setDecimals(isWhole ? 0 : 3);
    field->setRange(info && std::isfinite(info->range.least) ? info->range.least : -kLimit,
                    info && std::isfinite(info->range.most) ? info->range.most : kLimit);
    field->setSingleStep(stepOf(info, isWhole));
    field->setMinimumWidth(64);
    return field;
}

// A number: a slider where its range has two ends, and a field with its unit.
class NumberEditor : public SlotEditor
{
public:
    NumberEditor(const SlotInfo *info, bool isWhole, QWidget *parent)
        : SlotEditor(parent), _isWhole(isWhole), _field(makeField(info, isWhole, this))
    {
        auto *layout = new QHBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        if (isFiniteRange(info)) {
            _slider = new QSlider(Qt::Horizontal, this);
            _slider->setObjectName(u"slider"_s);
            _slider->setMinimumWidth(36);
            const double width = info->range.most - info->range.least;
            _slider->setRange(0, isWhole ? int(std::min(width, 1e6)) : kSliderSteps);
            _least = info->range.least;
            _perStep = width / _slider->maximum();
            layout->addWidget(_slider, 1);
            connect(_slider, &QSlider::sliderPressed, this, [this] { beginGesture(); });
            connect(_slider, &QSlider::valueChanged, this, [this](int place) {
                if (!_slider->isSliderDown())
                    beginGesture();
                give(_least + place * _perStep);
            });
        }
        // Longer ones are in the tip.
        if (info && *info->unit && qstrlen(info->unit) <= kLongestUnit)
            _field->setSuffix(u' ' + QString::fromLatin1(info->unit));
        _field->setMinimumWidth(_field->fontMetrics().horizontalAdvance(u"00.000"_s + _field->suffix()) + kArrows);
        _field->setObjectName(u"field"_s);
        layout->addWidget(_field, _slider ? 0 : 1);
        connect(_field, &QDoubleSpinBox::valueChanged, this, [this](double value) {
            beginGesture();
            give(value);
        });
    }

    void display(const QVariant &value) override
    {
        const double number = value.toDouble();
        const QSignalBlocker field(_field);
        // A pass takes more than what makes sense, and so does a file.
        _field->setRange(std::min(_field->minimum(), number), std::max(_field->maximum(), number));
        _field->setValue(number);
        if (_slider) {
            const QSignalBlocker slider(_slider);
            _slider->setValue(int(std::lround((number - _least) / _perStep)));
        }
    }

private:
    void give(double value)
    {
        if (isShowing())
            return;
        const QVariant given = _isWhole ? QVariant(int(std::lround(value))) : QVariant(float(value));
        setValue(given);
        emitEdited(given);
    }

    bool _isWhole;
    double _least = 0.0;
    double _perStep = 1.0;
    QSlider *_slider = nullptr;
    QDoubleSpinBox *_field;
};

class SwitchEditor : public SlotEditor
{
public:
    explicit SwitchEditor(QWidget *parent) : SlotEditor(parent), _box(new QCheckBox(this))
    {
        auto *layout = new QHBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(_box);
        connect(_box, &QCheckBox::toggled, this, [this](bool on) {
            beginGesture();
            emitEdited(on);
        });
    }
    void display(const QVariant &value) override { _box->setChecked(value.toBool()); }

private:
    QCheckBox *_box;
};

class ChoiceEditor : public SlotEditor
{
public:
    ChoiceEditor(const SlotInfo *info, QWidget *parent) : SlotEditor(parent), _box(new QComboBox(this))
    {
        auto *layout = new QHBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(_box);
        for (const SlotChoice &choice : info->choices) {
            _box->addItem(QString::fromLatin1(choice.name), choice.value);
            _box->setItemData(_box->count() - 1, QString::fromLatin1(choice.meaning), Qt::ToolTipRole);
        }
        connect(_box, &QComboBox::currentIndexChanged, this, [this](int index) {
            beginGesture();
            if (index >= 0)
                emitEdited(_box->itemData(index));
        });
    }
    void display(const QVariant &value) override
    {
        const int index = _box->findData(value.toInt());
        _box->setCurrentIndex(value.isValid() ? index : -1);
    }

private:
    QComboBox *_box;
};

class ColorEditor : public SlotEditor
{
public:
    explicit ColorEditor(QWidget *parent) : SlotEditor(parent), _button(new QPushButton(this))
    {
        auto *layout = new QHBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(_button);
        _button->setAccessibleName(tr("Colour"));
        connect(_button, &QPushButton::clicked, this, [this] {
            const QColor color = QColorDialog::getColor(_color.isValid() ? _color : QColor(Qt::white), this, QString(),
                                                        QColorDialog::ShowAlphaChannel);
            if (!color.isValid())
                return;
            beginGesture();
            setValue(color);
            emitEdited(color);
        });
    }
    void display(const QVariant &value) override
    {
        _color = value.value<QColor>();
        QPixmap swatch(32, 14);
        swatch.fill(_color.isValid() ? _color : QColor(Qt::transparent));
        _button->setIcon(swatch);
        _button->setIconSize(swatch.size());
        _button->setText(_color.isValid() ? _color.name(QColor::HexArgb) : tr("none"));
    }

private:
    QPushButton *_button;
    QColor _color;
};

// Several numbers side by side: vectors, sizes, points, rectangles.
class NumbersEditor : public SlotEditor
{
public:
    NumbersEditor(const QString &type, const SlotInfo *info, QWidget *parent) : SlotEditor(parent), _type(type)
    {
        auto *layout = new QHBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->setSpacing(2);
        const bool isWhole = type == u"QSize" || type == u"QPoint" || type == u"QRect";
        const int count = type == u"QVector3D" ? 3 : type == u"QVector4D" || type == u"QRect" ? 4 : 2;
        for (int i = 0; i < count; ++i) {
            _fields << makeField(info, isWhole, this);
            _fields.last()->setButtonSymbols(QAbstractSpinBox::NoButtons);
            _fields.last()->setMinimumWidth(44);
            layout->addWidget(_fields.last(), 1);
            connect(_fields.last(), &QDoubleSpinBox::valueChanged, this, [this] {
                beginGesture();
                emitEdited(value());
            });
        }
    }
    void display(const QVariant &value) override
    {
        const QVector<double> numbers = numbersOf(value);
        for (qsizetype i = 0; i < _fields.size(); ++i) {
            const double number = i < numbers.size() ? numbers[i] : 0.0;
            _fields[i]->setRange(std::min(_fields[i]->minimum(), number), std::max(_fields[i]->maximum(), number));
            _fields[i]->setValue(number);
        }
    }

private:
    QVector<double> numbersOf(const QVariant &value) const
    {
        switch (value.typeId()) {
        case QMetaType::QVector2D: return {value.value<QVector2D>().x(), value.value<QVector2D>().y()};
        case QMetaType::QVector3D: {
            const auto v = value.value<QVector3D>();
            return {v.x(), v.y(), v.z()};
        }
        case QMetaType::QVector4D: {
            const auto v = value.value<QVector4D>();
            return {v.x(), v.y(), v.z(), v.w()};
        }
        case QMetaType::QSize: return {double(value.toSize().width()), double(value.toSize().height())};
        case QMetaType::QPoint: return {double(value.toPoint().x()), double(value.toPoint().y())};
        case QMetaType::QRect: {
            const QRect r = value.toRect();
            return {double(r.x()), double(r.y()), double(r.width()), double(r.height())};
        }
        default: return {};
        }
    }
    QVariant value() const
    {
        const auto f = [this](int i) { return float(_fields[i]->value()); };
        const auto n = [this](int i) { return int(_fields[i]->value()); };
        if (_type == u"QVector2D")
            return QVector2D(f(0), f(1));
        if (_type == u"QVector3D")
            return QVector3D(f(0), f(1), f(2));
        if (_type == u"QVector4D")
            return QVector4D(f(0), f(1), f(2), f(3));
        if (_type == u"QSize")
            return QSize(n(0), n(1));
        if (_type == u"QPoint")
            return QPoint(n(0), n(1));
        return QRect(n(0), n(1), n(2), n(3));
    }

    QString _type;
    QVector<QDoubleSpinBox *> _fields;
};

// Any value that has a text; paths have a button for a file as well.
class TextEditor : public SlotEditor
{
public:
    TextEditor(const QString &slot, const SlotInfo *info, const QVariant &fallback, QWidget *parent)
        : SlotEditor(parent), _slot(slot), _info(info), _fallback(fallback), _line(new QLineEdit(this))
    {
        auto *layout = new QHBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(_line, 1);
        connect(_line, &QLineEdit::editingFinished, this, [this] { take(_line->text()); });
        if (info && info->kind == SlotKind::Path) {
            auto *browse = new QToolButton(this);
            browse->setText(u"…"_s);
            browse->setAccessibleName(tr("Choose a file"));
            layout->addWidget(browse);
            connect(browse, &QToolButton::clicked, this, [this] {
                const QString file = QFileDialog::getOpenFileName(this, tr("Choose a file"), _line->text());
                if (!file.isEmpty())
                    take(file);
            });
        }
    }
    void display(const QVariant &value) override
    {
        _shown = value.typeId() == QMetaType::QString ? value.toString() : describeSlotValue(value);
        _line->setText(_shown);
        _line->setStyleSheet(QString());
    }

private:
    void take(const QString &text)
    {
        if (text == _shown || isShowing())
            return;
        QVariant value;
        QString error;
        if (!parseSlotValue(_slot, text, &value, &error, _fallback, _info)) {
            _line->setStyleSheet(u"color: #c02020"_s);
            _line->setToolTip(error);
            return;
        }
        _line->setToolTip(QString());
        beginGesture();
        setValue(value);
        emitEdited(value);
    }

    QString _slot;
    const SlotInfo *_info;
    QVariant _fallback;
    QLineEdit *_line;
    QString _shown;
};

} // namespace

SlotEditor::SlotEditor(QWidget *parent) : QWidget(parent) {}

SlotEditor *SlotEditor::make(const QString &slot, const SlotInfo *info, const QVariant &fallback, QWidget *parent)
{
    const QString type = SlotName::parse(slot).type;
    SlotEditor *editor = nullptr;
    if (info && !info->choices.empty())
        editor = new ChoiceEditor(info, parent);
    else if (type == u"bool" || (type.isEmpty() && info && info->kind == SlotKind::Switch))
        editor = new SwitchEditor(parent);
    else if (type == u"float" || type == u"double" || type == u"int" || type == u"Float" || type == u"Int")
        editor = new NumberEditor(info, type.toLower() == u"int", parent);
    else if (type == u"QColor")
        editor = new ColorEditor(parent);
    else if (type == u"QVector2D" || type == u"QVector3D" || type == u"QVector4D" || type == u"QSize"
             || type == u"QPoint" || type == u"QRect")
        editor = new NumbersEditor(type, info, parent);
    else
        editor = new TextEditor(slot, info, fallback, parent);
    editor->setToolTip(tipOf(info));
    const QString name = SlotName::parse(slot).name;
    editor->setObjectName(name);
    editor->setAccessibleName(name);
    for (auto *child : editor->findChildren<QWidget *>())
        if (child->accessibleName().isEmpty())
            child->setAccessibleName(name);
    return editor;
}

void SlotEditor::setValue(const QVariant &value)
{
    _isShowing = true;
    display(value);
    _isShowing = false;
}

void SlotEditor::beginGesture()
{
    if (!_isShowing)
        _gesture = ++lastGesture;
}

void SlotEditor::emitEdited(const QVariant &value)
{
    if (!_isShowing)
        Q_EMIT edited(value, _gesture);
}
