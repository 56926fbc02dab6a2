#include "report.h"

#include "core/renderpasshelper.h"
#include "host/passfactory.h"
#include "host/pipelinefile.h"
#include "host/slotname.h"
#include "host/slotvalue.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

using namespace Brevane::Kvo;

namespace {

void printPass(const QString &className)
{
    const std::unique_ptr<RenderPass> pass = passFactory().make(className);
    const auto *helper = dynamic_cast<const RenderPassHelper *>(pass.get());
    const PassInfo *info = helper ? helper->passInfo() : nullptr;
    std::printf("  %-38s %s\n", qPrintable(className), info ? info->meaning : "");
    for (int i = 0; i < pass->numInputs(); ++i) {
        const QVariant value = pass->defaultValue(i);
        const QString text = value.isValid() ? QStringLiteral(" = ") + describeSlotValue(value) : QString();
        std::printf("    in   %s%s\n", qPrintable(pass->inputName(i)), qPrintable(text));
    }
    for (int i = 0; i < pass->numOutputs(); ++i)
        std::printf("    out  %s\n", qPrintable(pass->outputName(i)));
    for (const PassOperation &operation : passFactory().operations(className))
        std::printf("    call %s(%s)\n", qPrintable(operation.name),
                    qPrintable(operation.argumentTypes.join(QLatin1StringView(", "))));
}

QString rangeText(const SlotInfo &info)
{
    QString text;
    if (std::isfinite(info.range.least))
        text = std::isfinite(info.range.most) ? QStringLiteral("%1 to %2").arg(info.range.least).arg(info.range.most)
                                              : QStringLiteral("from %1").arg(info.range.least);
    return (text + QLatin1Char(' ') + QLatin1StringView(info.unit)).trimmed();
}

// Columns as wide as what is in them; the last one ends where it ends.
void printTable(const QVector<QStringList> &rows)
{
    QVector<qsizetype> widths(rows.isEmpty() ? 0 : rows.first().size(), 0);
    for (const QStringList &row : rows)
        for (qsizetype i = 0; i + 1 < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    for (const QStringList &row : rows) {
        QString line;
        for (qsizetype i = 0; i < row.size(); ++i)
            line += QStringLiteral("  ") + row[i].leftJustified(widths[i]);
        while (line.endsWith(QLatin1Char(' ')))
            line.chop(1);
        std::puts(qPrintable(line));
    }
}

// "in   BlurRadius   float   none   0 to 511 texels   sigma ..."
QStringList slotRow(const char *way, const QString &slot, const QString &value, const SlotInfo *info)
{
    const SlotName name = SlotName::parse(slot);
    return {QLatin1StringView(way),
            slot,
            name.type.isEmpty() ? QStringLiteral("-") : name.type,
            value,
            info ? rangeText(*info) : QString(),
            info ? QString::fromLatin1(info->meaning)
                       + (*info->format ? QStringLiteral("; %1").arg(info->format) : QString())
                 : QString()};
}

const char *glText(GLenum name)
{
    const auto *text = reinterpret_cast<const char *>(glGetString(name));
    return text ? text : "unknown";
}

int glNumber(GLenum name)
{
    GLint value = 0;
    glGetIntegerv(name, &value);
    return value;
}

} // namespace

void printList(const QStringList &searchPath)
{
    std::puts("Pipelines");
    for (const PipelineFileInfo &info : listPipelines(searchPath))
        std::printf("  %-20s %s\n  %-20s %s\n", qPrintable(info.name), qPrintable(info.description), "",
                    qPrintable(info.path));
    std::puts("\nHost values");
    std::printf("  @%s, @paths.NAME\n", qPrintable(Pipeline::hostValueNames().join(QLatin1StringView(", @"))));
    std::puts("\nPasses");
    for (const QString &className : passFactory().classNames())
        printPass(className);
}

bool printPassTable(const QString &className, QString *error)
{
    const std::unique_ptr<RenderPass> pass = passFactory().make(className);
    if (!pass) {
        *error = QStringLiteral("there is no pass class '%1'%2")
                     .arg(className, nearestNameHint(className, passFactory().classNames()));
        return false;
    }
    const auto *helper = dynamic_cast<const RenderPassHelper *>(pass.get());
    if (const PassInfo *info = helper ? helper->passInfo() : nullptr)
        std::printf("%s: %s\n\n", qPrintable(className), info->meaning);
    QVector<QStringList> rows{{QString(), QStringLiteral("slot"), QStringLiteral("type"), QStringLiteral("default"),
                               QStringLiteral("range"), QStringLiteral("meaning")}};
    for (int i = 0; i < pass->numInputs(); ++i)
        rows << slotRow("in", pass->inputName(i), describeSlotValue(pass->defaultValue(i)),
                        helper ? helper->inputInfo(i) : nullptr);
    for (int i = 0; i < pass->numOutputs(); ++i)
        rows << slotRow("out", pass->outputName(i), QString(), helper ? helper->outputInfo(i) : nullptr);
    printTable(rows);
    for (int i = 0; helper && i < pass->numInputs(); ++i) {
        const SlotInfo *info = helper->inputInfo(i);
        if (!info || info->choices.empty())
            continue;
        std::printf("\n%s is one of\n", qPrintable(pass->inputName(i)));
        QVector<QStringList> choices;
        for (const SlotChoice &choice : info->choices)
            choices << QStringList{QString::number(choice.value), QLatin1StringView(choice.name),
                                   QLatin1StringView(choice.meaning)};
        printTable(choices);
    }
    const QVector<PassOperation> operations = passFactory().operations(className);
    if (!operations.isEmpty())
        std::puts("\ncalls");
    for (const PassOperation &operation : operations)
        std::printf("  %s(%s)\n", qPrintable(operation.name),
                    qPrintable(operation.argumentTypes.join(QLatin1StringView(", "))));
    return true;
}

void printGlInfo(const HeadlessContext &context)
{
    std::printf("context      %s\n", qPrintable(context.platform()));
    std::printf("vendor       %s\n", glText(GL_VENDOR));
    std::printf("renderer     %s\n", glText(GL_RENDERER));
    std::printf("OpenGL       %s\n", glText(GL_VERSION));
    std::printf("GLSL         %s\n", glText(GL_SHADING_LANGUAGE_VERSION));
    std::printf("texture side %d\n", glNumber(GL_MAX_TEXTURE_SIZE));
    std::printf("units        %d per stage, %d in all\n", glNumber(GL_MAX_TEXTURE_IMAGE_UNITS),
                glNumber(GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS));
    std::puts("extensions that passes and pipeline use where present");
    for (const char *extension :
         {"GL_KHR_debug", "GL_ARB_timer_query", "GL_ARB_multi_draw_indirect", "GL_ARB_base_instance",
          "GL_ARB_shader_image_load_store", "GL_ARB_shader_atomic_counters", "GL_ARB_shading_language_420pack",
          "GL_ARB_shader_viewport_layer_array"})
        std::printf("  %-36s %s\n", extension, epoxy_has_gl_extension(extension) ? "yes" : "no");
}

void printLists(const FragmentLists &lists, const QVector<QPoint> &pixels, const ModelData &model)
{
    for (const QString &line : lists.summary())
        std::puts(qPrintable(line));
    for (const QPoint &pixel : pixels) {
        const int row = lists.size().height() - 1 - pixel.y();
        const QVector<ListedFragment> list = lists.at(pixel.x(), row);
        const char *lost = "";
        if (lists.isCutAt(pixel.x(), row))
            lost = list.isEmpty() ? ", all are lost: the node buffer was full"
                                  : ", others are lost: the node buffer was full";
        std::printf("pixel %d,%d: %d fragments%s\n", pixel.x(), pixel.y(), int(list.size()), lost);
        if (!list.isEmpty())
            std::printf("  %4s  %-10s %6s %10s  %7s  %s\n", "#", "depth", "draw", "triangle", "opacity", "material");
        for (qsizetype i = 0; i < list.size(); ++i) {
            const ListedFragment &fragment = list[i];
            // Of a model of one draw it is that one.
            if (!lists.hasDraws() && model.items.size() != 1) {
                std::printf("  %4d  %-10.8f %6s %10u  %7s  %s\n", int(i), double(fragment.depth), "-",
                            fragment.primitive, "-",
                            "not recorded: this driver keeps the nearest fragment alone, without its draw");
                continue;
            }
            const bool known = fragment.draw < quint32(model.items.size());
            const int index = known ? model.items[qsizetype(fragment.draw)].material : -1;
            const ModelMaterial material = model.materials.value(index);
            std::printf("  %4d  %-10.8f %6u %10u  %7.3f  %s\n", int(i), double(fragment.depth), fragment.draw,
                        fragment.primitive, double(material.D), qPrintable(material.name));
        }
    }
}

void printComparison(const Comparison &comparison, const ImageComparison &result)
{
    std::printf("%s.%s and %s.%s: %s\n", qPrintable(comparison.pass[0]), qPrintable(comparison.slot[0]),
                qPrintable(comparison.pass[1]), qPrintable(comparison.slot[1]), qPrintable(result.summary()));
}

void printValue(const SlotArgument &output, const QVariant &value)
{
    std::printf("%s.%s = %s\n", qPrintable(output.pass), qPrintable(output.slot), qPrintable(describeSlotValue(value)));
}

void printTimings(const QVector<PassTiming> &timings, bool firstFrame)
{
    int width = 4;
    for (const PassTiming &timing : timings)
        width = std::max(width, int(timing.pass.size()));
    std::printf("%-*s  %10s %10s  %10s %10s  %6s\n", width, "pass", "GPU min", "median", "CPU min", "median", "frames");
    for (const PassTiming &t : timings) {
        std::printf("%-*s  ", width, qPrintable(t.pass));
        if (t.gpuSamples > 0)
            std::printf("%10.3f %10.3f", t.gpuMinimum, t.gpuMedian);
        else
            std::printf("%10s %10s", "-", "-");
        std::printf("  %10.3f %10.3f  %6d\n", t.cpuMinimum, t.cpuMedian, t.cpuSamples);
    }
    std::printf("milliseconds%s\n",
                firstFrame ? "; this is a first frame, which also compiles shaders: use --frames" : "");
}
