#include "resourceview.h"

#include "host/pipeline.h"
#include "host/slotname.h"
#include "session.h"

#include <QHelpEvent>
#include <QLabel>
#include <QLocale>
#include <QPainter>
#include <QScrollArea>
#include <QToolTip>
#include <QVBoxLayout>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr int kLine = 18;
constexpr int kNames = 250;
constexpr int kHeader = 74;
constexpr int kLeastColumn = 26;

QString bytesText(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1);
}

} // namespace

class Bars : public QWidget
{
public:
    Bars() { setAccessibleName(tr("Textures over the passes")); }

    void setRecord(const ResourceRecord &record)
    {
        _record = record;
        // Textures that nobody held in this frame wait for later ones.
        _record.rows.removeIf([](const ResourceRow &row) {
            return std::none_of(row.uses.cbegin(), row.uses.cend(),
                                [](const ResourceRow::Use &use) { return use.references > 0 || use.isTaken; });
        });
        setMinimumSize(kNames + int(_record.passes.size()) * kLeastColumn, kHeader + int(_record.rows.size()) * kLine);
        update();
    }
    const ResourceRecord &record() const { return _record; }

protected:
    double column() const { return double(width() - kNames) / double(std::max<qsizetype>(1, _record.passes.size())); }

    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), palette().color(QPalette::Base));
        const double wide = column();
        for (qsizetype i = 0; i < _record.passes.size(); ++i) {
            painter.save();
            painter.translate(kNames + (double(i) + 0.5) * wide, kHeader - 4);
            painter.rotate(-40);
            painter.drawText(QPointF(0, 0), fontMetrics().elidedText(_record.passes[i], Qt::ElideRight, 100));
            painter.restore();
            painter.setPen(palette().color(QPalette::AlternateBase));
            painter.drawLine(QPointF(kNames + double(i) * wide, kHeader), QPointF(kNames + double(i) * wide, height()));
            painter.setPen(palette().color(QPalette::Text));
        }
        for (qsizetype row = 0; row < _record.rows.size(); ++row)
            paintRow(&painter, _record.rows[row], kHeader + int(row) * kLine, wide);
    }

    void paintRow(QPainter *painter, const ResourceRow &row, int top, double wide)
    {
        const QString name = u"%1  %2  ×%3"_s.arg(row.name, bytesText(row.bytes)).arg(row.takers);
        painter->setPen(palette().color(QPalette::Text));
        painter->drawText(QRect(4, top, kNames - 8, kLine), Qt::AlignVCenter,
                          fontMetrics().elidedText(name, Qt::ElideRight, kNames - 8));
        for (qsizetype i = 0; i < row.uses.size(); ++i) {
            const ResourceRow::Use &use = row.uses[i];
            if (use.references == 0 && !use.isTaken)
                continue;
            QColor color = palette().color(QPalette::Highlight);
            if (use.references == 0)
                color.setAlpha(110); // taken and given back within the pass
            const QRectF bar(kNames + double(i) * wide, top + 3, wide, kLine - 6);
            painter->fillRect(bar, color);
            if (use.isTaken)
                painter->fillRect(QRectF(bar.left(), bar.top(), 3, bar.height()), palette().color(QPalette::Text));
        }
    }

    bool event(QEvent *event) override
    {
        if (event->type() != QEvent::ToolTip)
            return QWidget::event(event);
        const auto *help = static_cast<QHelpEvent *>(event);
        const int row = (help->pos().y() - kHeader) / kLine;
        const auto pass = int(double(help->pos().x() - kNames) / column());
        if (help->pos().y() < kHeader || help->pos().x() < kNames || row >= _record.rows.size()
            || pass >= _record.passes.size())
            return true;
        const ResourceRow &one = _record.rows[row];
        const ResourceRow::Use &use = one.uses[pass];
        QToolTip::showText(help->globalPos(),
                           tr("%1, %2\nbehind '%3': %4 references%5")
                               .arg(one.name, bytesText(one.bytes), _record.passes[pass])
                               .arg(use.references)
                               .arg(use.taker.isEmpty() ? QString() : tr(", taken by '%1'").arg(use.taker)),
                           this);
        return true;
    }

private:
    ResourceRecord _record;
};

ResourceView::ResourceView(Session *session, FrameProbe *probe, QWidget *parent)
    : QWidget(parent), _session(session), _probe(probe), _bars(new Bars), _totals(new QLabel)
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    auto *area = new QScrollArea;
    area->setWidget(_bars);
    area->setWidgetResizable(true);
    layout->addWidget(area, 1);
    layout->addWidget(_totals);
    _totals->setWordWrap(true);
    _totals->setTextInteractionFlags(Qt::TextSelectableByMouse);
    connect(probe, &FrameProbe::looked, this, &ResourceView::take);
}

void ResourceView::showEvent(QShowEvent *)
{
    _probe->setRecording(true);
}

void ResourceView::hideEvent(QHideEvent *)
{
    _probe->setRecording(false);
}

QString ResourceView::imported() const
{
    QStringList names;
    Pipeline *pipeline = _session->pipeline();
    for (const QString &pass : pipeline->passNames())
        for (const PassInput &input : pipeline->inputs(pass)) {
            const QString type = SlotName::parse(input.slot).type;
            if (input.kind == PassInput::Kind::Host && type.endsWith(u'*') && !names.contains(input.source))
                names << input.source;
        }
    names.sort();
    return names.join(u", "_s);
}

void ResourceView::take()
{
    if (!isVisible() || !_session->pipeline())
        return;
    _bars->setRecord(_probe->record());
    _totals->setText(totals());
}

QString ResourceView::totals() const
{
    const ResourceRecord &record = _bars->record();
    qint64 shown = 0;
    for (const ResourceRow &row : record.rows)
        shown += row.bytes;
    return tr("%n texture(s) in this frame, %1; the pool holds %2, at most %3 at a time were in use, peak %4. "
              "From outside: %5",
              nullptr, int(record.rows.size()))
        .arg(bytesText(shown), bytesText(record.bytes), bytesText(record.peakBytesInUse), bytesText(record.peakBytes),
             imported());
}
