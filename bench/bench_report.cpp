// One table of all passes out of the JSON files that the benchmarks write: time of start over bare GL at
// 1280 x 720, the CPU time of the issuing thread where next to nothing is drawn, how much of it is the pass's
// own and how much is over bare GL, GL calls, and what a steady frame allocates. Text to stdout, JSON and a plot to files.
//
//   bench_report OUT.json OUT.svg BENCHMARK.json…

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QString>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <initializer_list>

namespace {

constexpr double kGoalRatio = 1.05;
constexpr double kGoalOverhead = 2; // microseconds, of a pass that draws once

struct Row
{
    double ratio = 0; ///< At 1280 x 720.
    double milliseconds = 0;
    double issuing = 0; ///< Microseconds of CPU at 1 x 1.
    double own = 0; ///< What the pass takes of these without GL.
    double overBare = 0; ///< Of these over the GL calls that the picture needs.
    int draws = 0;
    int calls = 0;
    int bareCalls = 0;
    int objects = 0;
    int textures = 0;
    int heap = 0;
    bool isLarge = false;
    bool isSmall = false;
};

bool read(const QString &path, QMap<QString, Row> *rows)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "bench_report: cannot read %s\n", qPrintable(path));
        return false;
    }
    const QJsonArray benchmarks =
        QJsonDocument::fromJson(file.readAll()).object().value(QLatin1String("benchmarks")).toArray();
    for (const auto &value : benchmarks) {
        const QJsonObject b = value.toObject();
        // "Pass/1280x720/iterations:120/manual_time"
        const QString name = b.value(QLatin1String("name")).toString();
        const QString pass = name.section(QLatin1Char('/'), 0, 0);
        const QStringList size = name.section(QLatin1Char('/'), 1, 1).split(QLatin1Char('x'));
        const auto number = [&b](const char *key) { return b.value(QLatin1String(key)).toDouble(); };
        if (size.size() != 2 || !b.contains(QLatin1String("gl_calls")))
            continue;
        Row &row = (*rows)[pass];
        row.calls = int(number("gl_calls"));
        row.bareCalls = int(number("bare_calls"));
        row.objects = int(number("gl_objects"));
        row.textures = int(number("texture_allocations"));
        row.heap = int(number("heap_allocations"));
        row.draws = int(number("draws"));
        if (b.contains(QLatin1String("ratio"))) {
            row.isLarge = true;
            row.ratio = number("ratio");
            row.milliseconds = number("kvo_us") / 1e3;
        } else {
            row.isSmall = true;
            row.issuing = number("cpu_us");
            row.own = number("own_us");
            row.overBare = number("over_bare_us");
        }
    }
    return true;
}

void print(const QMap<QString, Row> &rows)
{
    const auto text = [](bool isKnown, double value, int digits) {
        return isKnown ? QByteArray::number(value, 'f', digits) : QByteArray("-");
    };
    std::printf("%-48s %8s %7s %8s %7s %7s %6s %6s %8s %9s %5s\n", "pass", "ms", "ratio", "us at 1", "own us", "> bare",
                "calls", "bare", "objects", "tex alloc", "heap");
    int large = 0;
    int fast = 0;
    int single = 0;
    int light = 0;
    for (auto row = rows.cbegin(); row != rows.cend(); ++row) {
        std::printf("%-48s %8s %7s %8s %7s %7s %6d %6d %8d %9d %5d\n", qPrintable(row.key()),
                    text(row->isLarge, row->milliseconds, 2).constData(), text(row->isLarge, row->ratio, 3).constData(),
                    text(row->isSmall, row->issuing, 1).constData(), text(row->isSmall, row->own, 2).constData(),
                    text(row->isSmall, row->overBare, 2).constData(), row->calls, row->bareCalls, row->objects,
                    row->textures, row->heap);
        large += row->isLarge;
        fast += row->isLarge && row->ratio <= kGoalRatio;
        const bool drawsOnce = row->isSmall && row->draws == 1;
        single += drawsOnce;
        light += drawsOnce && row->own <= kGoalOverhead;
    }
    std::printf("%d rows; %d of %d within %.2f x of bare GL;\n"
                "%d of %d that draw once within %.0f us of CPU of their own\n",
                int(rows.size()), fast, large, kGoalRatio, light, single, kGoalOverhead);
}

bool write(const QString &path, const QByteArray &data)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(data) == data.size())
        return true;
    std::fprintf(stderr, "bench_report: cannot write %s\n", qPrintable(path));
    return false;
}

QByteArray json(const QMap<QString, Row> &rows)
{
    QJsonArray passes;
    for (auto row = rows.cbegin(); row != rows.cend(); ++row) {
        QJsonObject pass{{QStringLiteral("pass"), row.key()},
                         {QStringLiteral("gl_calls"), row->calls},
                         {QStringLiteral("bare_calls"), row->bareCalls},
                         {QStringLiteral("draws"), row->draws},
                         {QStringLiteral("gl_objects"), row->objects},
                         {QStringLiteral("texture_allocations"), row->textures},
                         {QStringLiteral("heap_allocations"), row->heap}};
        if (row->isLarge) {
            pass.insert(QStringLiteral("ratio"), row->ratio);
            pass.insert(QStringLiteral("milliseconds"), row->milliseconds);
        }
        if (row->isSmall) {
            pass.insert(QStringLiteral("cpu_us"), row->issuing);
            pass.insert(QStringLiteral("own_us"), row->own);
            pass.insert(QStringLiteral("over_bare_us"), row->overBare);
        }
        passes.append(pass);
    }
    return QJsonDocument(passes).toJson();
}

// One side of the plot: a bar for each row that has a value, and lines at some values, the goal among them.
class Chart
{
public:
    Chart(int left, double from, double to) : _left(left), _from(from), _to(to) {}

    QString lines(std::initializer_list<double> values, double goal, int bottom) const
    {
        QString out;
        for (double value : values)
            out += QStringLiteral("<line x1='%1' x2='%1' y1='40' y2='%2' stroke='%3'/><text x='%1' y='34' "
                                  "text-anchor='middle'>%4</text>\n")
                       .arg(_x(value))
                       .arg(bottom)
                       .arg(value == goal ? QLatin1String(kOver) : QLatin1String("#ccc"))
                       .arg(value);
        return out;
    }
    QString bar(double value, double goal, int digits, int y) const
    {
        return QStringLiteral("<rect x='%1' y='%2' width='%3' height='12' fill='%4'/><text x='%5' y='%6'>%7</text>\n")
            .arg(_left)
            .arg(y)
            .arg(_x(value) - _left)
            .arg(value <= goal ? QLatin1String("#2b6cb0") : QLatin1String(kOver))
            .arg(_x(value) + 6)
            .arg(y + 10)
            .arg(QString::number(value, 'f', digits));
    }

    static constexpr int kWide = 260;
    static constexpr char kOver[] = "#c05621";

private:
    double _x(double value) const { return _left + kWide * (std::clamp(value, _from, _to) - _from) / (_to - _from); }

    int _left;
    double _from;
    double _to;
};

// Left the time over bare GL, right the microseconds of a pass's own code; orange is what is over a goal.
QByteArray plot(const QMap<QString, Row> &rows)
{
    constexpr int kNames = 400;
    constexpr int kLine = 18;
    constexpr int kRight = kNames + Chart::kWide + 80;
    const Chart ratios(kNames, 0.9, 1.1);
    const Chart overheads(kRight, 0, 8);
    QString bars;
    int y = 46;
    for (auto row = rows.cbegin(); row != rows.cend(); ++row) {
        bars += QStringLiteral("<text x='%1' y='%2' text-anchor='end'>%3</text>\n")
                    .arg(kNames - 8)
                    .arg(y + 10)
                    .arg(row.key().toHtmlEscaped());
        if (row->isLarge)
            bars += ratios.bar(row->ratio, kGoalRatio, 3, y);
        // The goal is for passes that draw once.
        if (row->isSmall)
            bars += overheads.bar(row->own, row->draws > 1 ? row->own : kGoalOverhead, 1, y);
        y += kLine;
    }
    const QString head = QStringLiteral("<svg xmlns='http://www.w3.org/2000/svg' width='%1' height='%2' "
                                        "font-family='sans-serif' font-size='12'>"
                                        "<rect width='100%' height='100%' fill='white'/>\n"
                                        "<text x='%3' y='16'>time over bare GL, 1280 x 720</text>"
                                        "<text x='%4' y='16'>own CPU time in microseconds, 1 x 1</text>\n")
                             .arg(kRight + Chart::kWide + 60)
                             .arg(y + 12)
                             .arg(kNames)
                             .arg(kRight);
    return (head + ratios.lines({0.9, 1.0, kGoalRatio, 1.1}, kGoalRatio, y)
            + overheads.lines({0, kGoalOverhead, 4, 6, 8}, kGoalOverhead, y) + bars + QStringLiteral("</svg>\n"))
        .toUtf8();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: bench_report OUT.json OUT.svg BENCHMARK.json...\n");
        return 2;
    }
    QMap<QString, Row> rows;
    bool ok = true;
    for (int i = 3; i < argc; ++i)
        ok = read(QString::fromLocal8Bit(argv[i]), &rows) && ok;
    print(rows);
    ok = write(QString::fromLocal8Bit(argv[1]), json(rows)) && ok;
    ok = write(QString::fromLocal8Bit(argv[2]), plot(rows)) && ok;
    return ok ? 0 : 1;
}
