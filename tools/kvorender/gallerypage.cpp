#include "gallerypage.h"

#include "host/slotname.h"
#include "host/slotvalue.h"

#include <algorithm>

using namespace Brevane::Kvo;

namespace {

constexpr qsizetype kLongestValue = 160;

const char kStyle[] = R"(
body { font: 15px/1.45 sans-serif; color: #222a35; background: #fff; margin: 0 auto; max-width: 1320px; padding: 0 20px 60px; }
h1 { margin: 28px 0 4px; } h2 { margin: 0; } h3 { font-size: 15px; margin: 18px 0 6px; }
p { margin: 4px 0; } .quiet { color: #5d6673; }
nav { columns: 5 170px; margin: 14px 0 20px; } nav a { display: block; }
a { color: #22588f; text-decoration: none; } a:hover { text-decoration: underline; }
section { border-top: 1px solid #d5dae1; padding: 22px 0 18px; }
.pictures { display: flex; flex-wrap: wrap; gap: 14px; margin-top: 10px; }
figure { margin: 0; flex: 1 1 300px; max-width: 640px; }
figure img { width: 100%; background: #e8ebf0; display: block; }
figcaption { font-size: 13px; color: #5d6673; }
.graph { overflow: auto; max-height: 640px; border: 1px solid #e2e6ec; padding: 4px; }
table { border-collapse: collapse; font-size: 13px; }
td, th { padding: 2px 14px 2px 0; text-align: left; vertical-align: top; } td.n, th.n { text-align: right; }
th { border-bottom: 1px solid #d5dae1; font-weight: 600; }
td.value { white-space: pre-wrap; overflow-wrap: anywhere; max-width: 640px; }
tr.default td { color: #8a94a3; }
.failure { color: #8d1212; background: #fbeaea; padding: 6px 10px; white-space: pre-wrap; }
.message { color: #6b5310; background: #fbf5e2; padding: 6px 10px; white-space: pre-wrap; }
summary { cursor: pointer; margin-top: 10px; }
)";

QString escaped(const QString &text)
{
    return text.toHtmlEscaped();
}

// The text has no '%' that arg could take for a place.
QString tag(const char *name, const QString &content, const char *cssClass = nullptr)
{
    const QLatin1StringView element(name);
    return QLatin1Char('<') + element
           + (cssClass ? QStringLiteral(" class=\"") + QLatin1StringView(cssClass) + QLatin1Char('"') : QString())
           + QLatin1Char('>') + content + QStringLiteral("</") + element + QLatin1Char('>');
}

QString paragraphs(const QStringList &lines, const char *cssClass)
{
    QString html;
    for (const QString &line : lines)
        html += tag("p", escaped(line), cssClass) + QLatin1Char('\n');
    return html;
}

QString milliseconds(int samples, double median)
{
    return tag("td", samples > 0 ? QString::number(median, 'f', 2) : QStringLiteral("-"), "n");
}

QString pictures(const QVector<GalleryRun> &runs)
{
    QString html;
    for (const GalleryRun &run : runs) {
        QString figure;
        if (!run.picture.isEmpty()) {
            const QString file = escaped(run.picture);
            figure += QStringLiteral("<a href=\"") + file + QStringLiteral("\"><img loading=\"lazy\" src=\"") + file
                      + QStringLiteral("\" alt=\"") + escaped(run.model) + QStringLiteral("\"></a>");
        }
        const QStringList parts{run.model, run.settings};
        figure += tag("figcaption",
                      escaped(QStringList(parts.mid(0, run.settings.isEmpty() ? 1 : 2)).join(QLatin1StringView(", "))));
        figure += paragraphs(run.failures, "failure") + paragraphs(run.messages, "message");
        html += tag("figure", figure) + QLatin1Char('\n');
    }
    return QStringLiteral("<div class=\"pictures\">\n") + html + QStringLiteral("</div>\n");
}

QString times(const GalleryEntry &entry)
{
    QString head = tag("th", QString()) + tag("th", QStringLiteral("pass")) + tag("th", QStringLiteral("class"));
    QVector<const GalleryRun *> timed;
    for (const GalleryRun &run : entry.runs)
        if (run.timings.size() == entry.passes.size())
            timed << &run;
    if (timed.isEmpty())
        return QString();
    for (const GalleryRun *run : std::as_const(timed)) {
        const QString prefix = run->model.isEmpty() ? QString() : escaped(run->model) + QStringLiteral("<br>");
        head += tag("th", prefix + QStringLiteral("GPU ms"), "n") + tag("th", prefix + QStringLiteral("CPU ms"), "n");
    }
    QString html = tag("tr", head) + QLatin1Char('\n');
    for (qsizetype i = 0; i < entry.passes.size(); ++i) {
        QString row = tag("td", QString::number(i + 1), "n") + tag("td", escaped(entry.passes[i].name))
                      + tag("td", escaped(entry.passes[i].className));
        for (const GalleryRun *run : std::as_const(timed)) {
            const PassTiming &timing = run->timings[i];
            row +=
                milliseconds(timing.gpuSamples, timing.gpuMedian) + milliseconds(timing.cpuSamples, timing.cpuMedian);
        }
        html += tag("tr", row) + QLatin1Char('\n');
    }
    QString sums = tag("td", QString()) + tag("td", QStringLiteral("in all")) + tag("td", QString());
    for (const GalleryRun *run : std::as_const(timed)) {
        double gpu = 0, cpu = 0;
        int gpuSamples = 0;
        for (const PassTiming &timing : run->timings) {
            gpu += timing.gpuMedian;
            cpu += timing.cpuMedian;
            gpuSamples += timing.gpuSamples;
        }
        sums += milliseconds(gpuSamples, gpu) + milliseconds(1, cpu);
    }
    return tag("h3", QStringLiteral("Times")) + tag("table", html + tag("tr", sums)) + QLatin1Char('\n');
}

QString valueText(const PassInput &input)
{
    switch (input.kind) {
    case PassInput::Kind::Host: return input.source;
    case PassInput::Kind::Link: return QStringLiteral("from ") + input.sourcePass + QLatin1Char('.') + input.source;
    default: break;
    }
    const QString text = describeSlotValue(input.value);
    return text.size() > kLongestValue ? text.left(kLongestValue) + QStringLiteral(" ...") : text;
}

QString slotRow(const char *direction, const QString &slot, const QString &value, bool isDefault)
{
    const SlotName name = SlotName::parse(slot);
    const QString cells = tag("td", QLatin1StringView(direction)) + tag("td", escaped(name.name))
                          + tag("td", escaped(name.type)) + tag("td", escaped(value), "value");
    return tag("tr", cells, isDefault ? "default" : nullptr) + QLatin1Char('\n');
}

QString slotTables(const QVector<GalleryPass> &passes)
{
    QString html;
    for (qsizetype i = 0; i < passes.size(); ++i) {
        const GalleryPass &pass = passes[i];
        QString rows = tag("tr", tag("th", QString()) + tag("th", QStringLiteral("slot"))
                                     + tag("th", QStringLiteral("type")) + tag("th", QStringLiteral("value")));
        for (const PassInput &input : pass.inputs)
            rows += slotRow("in", input.slot, valueText(input), input.kind == PassInput::Kind::Default);
        for (qsizetype j = 0; j < pass.outputs.size(); ++j)
            rows +=
                slotRow("out", pass.outputs[j], QStringLiteral("%1 reader(s)").arg(pass.users[j]), pass.users[j] == 0);
        html += tag("h3", QString::number(i + 1) + QLatin1Char(' ') + escaped(pass.name) + QLatin1Char(' ')
                              + tag("span", escaped(pass.className), "quiet"))
                + tag("table", rows) + QLatin1Char('\n');
    }
    return QStringLiteral("<details><summary>Slots of ") + QString::number(passes.size())
           + QStringLiteral(" passes (grey: defaults)</summary>\n") + html + QStringLiteral("</details>\n");
}

QString section(const GalleryEntry &entry)
{
    const QString name = escaped(entry.file.name);
    QString html = QStringLiteral("<section id=\"") + name + QStringLiteral("\">\n") + tag("h2", name)
                   + tag("p", escaped(entry.file.description)) + QLatin1Char('\n')
                   + paragraphs(entry.failures, "failure");
    if (!entry.runs.isEmpty())
        html += pictures(entry.runs);
    if (!entry.graph.isEmpty())
        html += tag("h3", QStringLiteral("Passes in the order of running")) + QStringLiteral("<div class=\"graph\">\n")
                + entry.graph + QStringLiteral("</div>\n") + times(entry) + slotTables(entry.passes);
    return html + QStringLiteral("</section>\n");
}

} // namespace

bool GalleryEntry::ok() const
{
    return failures.isEmpty()
           && std::all_of(runs.begin(), runs.end(), [](const GalleryRun &run) { return run.failures.isEmpty(); });
}

QString GalleryPage::html() const
{
    QString links;
    qsizetype failed = 0;
    for (const GalleryEntry &entry : entries) {
        const QString name = escaped(entry.file.name);
        links += QStringLiteral("<a href=\"#") + name + QStringLiteral("\">") + name + QStringLiteral("</a>");
        if (!entry.ok()) {
            links += tag("span", QStringLiteral("failed"), "failure");
            ++failed;
        }
        links += QLatin1Char('\n');
    }
    QString text = QStringLiteral("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                                  "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                                  "<title>Kvo gallery</title>\n<style>")
                   + QLatin1StringView(kStyle) + QStringLiteral("</style>\n</head>\n<body>\n")
                   + tag("h1", QStringLiteral("Kvo gallery")) + QLatin1Char('\n');
    text += tag("p",
                escaped(QStringLiteral("%1 pipelines at %2x%3, frame %4; times are medians over %5. %6")
                            .arg(entries.size())
                            .arg(size.width())
                            .arg(size.height())
                            .arg(frames)
                            .arg(frames == 1 ? QStringLiteral("the first frame, which also compiles shaders")
                                             : QStringLiteral("the frames after the first"),
                                 renderer)),
                "quiet");
    text += failed == 0 ? tag("p", QStringLiteral("All of them ran without a fault."))
                        : tag("p", QStringLiteral("%1 failed.").arg(failed), "failure");
    text += QStringLiteral("\n<nav>\n") + links + QStringLiteral("</nav>\n");
    for (const GalleryEntry &entry : entries)
        text += section(entry);
    return text + QStringLiteral("</body>\n</html>\n");
}
