// What the pipelines of the tree hold in textures: of the pool, beside the least that the lifetimes of a frame
// allow (the most that has references at one time, so that a pool whose textures fitted every taker could do with
// it), and altogether. Sizes come from recorded calls and the pool's own counts; nothing is timed.
//
//   bench_memory [WIDTHxHEIGHT] [PIPELINE…]     1280x720, all of pipelines/
//   bench_memory --json FILE …                  the rows as JSON too

#include "support/glcontext.h"
#include "support/stage.h"
#include "support/texturememory.h"

#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

struct Row
{
    QString name;
    TexturePoolStatistics pool;
    qint64 textures = 0; ///< Bytes of all, the pool's included.
};

constexpr int kFrames = 6; // until the longest history is full
constexpr double kMegabyte = 1e6;

// A share group of its own, so that the pool is empty and its marks are of this pipeline.
bool measure(const QString &name, const QSize &size, Row &row)
{
    GLContext::Options options;
    options.major = 4;
    options.minor = 5;
    options.debug = false;
    GLContext context(options);
    if (!context.makeCurrent()) {
        std::fprintf(stderr, "no context: %s\n", qPrintable(context.error()));
        return false;
    }
    {
        TextureMemory memory;
        GlCalls calls;
        Stage stage(name, threeCubes(0.5f), size);
        for (int frame = 0; frame < kFrames; ++frame) {
            stage.render();
            memory.add(calls);
            calls.clear();
        }
        row = {name, TextureManager::Instance().statistics(), memory.bytes()};
    }
    OpenGLDeviceContext::releaseCurrent();
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    GlCalls::install();
    QSize size(1280, 720);
    QStringList names;
    QString json;
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        const QStringList sides = argument.split(QLatin1Char('x'));
        if (argument == QLatin1String("--json") && i + 1 < argc)
            json = QString::fromLocal8Bit(argv[++i]);
        else if (sides.size() == 2 && sides[0].toInt() > 0 && sides[1].toInt() > 0)
            size = {sides[0].toInt(), sides[1].toInt()};
        else
            names << argument;
    }
    if (names.isEmpty())
        names = pipelineNames();
    std::printf("%dx%d, MB            pool   in use   ratio  textures   all textures\n", size.width(), size.height());
    QJsonArray rows;
    for (const QString &name : std::as_const(names)) {
        Row row;
        if (!measure(name, size, row))
            return 1;
        const double ratio =
            row.pool.peakBytesInUse > 0 ? double(row.pool.peakBytes) / double(row.pool.peakBytesInUse) : 1;
        std::printf("%-18s %8.1f %8.1f %7.2f %9d %14.1f\n", qPrintable(name), double(row.pool.peakBytes) / kMegabyte,
                    double(row.pool.peakBytesInUse) / kMegabyte, ratio, row.pool.textures,
                    double(row.textures) / kMegabyte);
        rows.append(QJsonObject{{QStringLiteral("pipeline"), name},
                                {QStringLiteral("poolBytes"), row.pool.peakBytes},
                                {QStringLiteral("leastBytes"), row.pool.peakBytesInUse},
                                {QStringLiteral("textureBytes"), row.textures}});
    }
    if (!json.isEmpty()) {
        QFile file(json);
        if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(rows).toJson()) < 0) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(json));
            return 1;
        }
    }
    return 0;
}
