// Memory that there is not while files are read: a message and nothing read, and no end of the process.

#include "support/failingmalloc.h"

#include <gl/imagefile.h>
#include <host/imageinput.h>
#include <host/isolatedimport.h>
#include <host/modeltransport.h>
#include <host/sceneimport.h>

#include <QBuffer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

// What a reader says of itself: read, or refused with a reason.
enum Outcome { Read = 0, Refused, Silent, Thrown };

using Reader = std::function<Outcome()>;

// How many allocations are tried: all of them on demand, see scripts/trust.
long most()
{
    const char *all = std::getenv("KVO_TRUST_FAULTS");
    return all ? std::atol(all) : 40;
}

Outcome outcomeOf(bool isRead, const QString &error)
{
    return isRead ? Read : error.isEmpty() ? Silent : Refused;
}

// In a process of its own, so that one that ends is told from one that does not.
std::string endOf(const Reader &reader, long nth)
{
    const pid_t child = fork();
    if (child == 0) {
        Outcome outcome = Thrown;
        alarm(60);
        try {
            FailingMalloc::begin(nth);
            outcome = reader();
        } catch (...) {
        }
        FailingMalloc::end();
        _exit(outcome);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    if (WIFSIGNALED(status))
        return "ended by signal " + std::to_string(WTERMSIG(status));
    const char *const names[] = {"read", "refused", "refused without a word", "an exception"};
    return names[std::min(WEXITSTATUS(status), int(Thrown))];
}

/// \a known: how many allocations are not ours and end the process.
void expectNoEnd(const Reader &reader, long known = 0)
{
    if (!FailingMalloc::isPossible())
        GTEST_SKIP() << "a sanitizer has its own malloc";
    ASSERT_EQ(reader(), Read); // and what is made once is there
    FailingMalloc::begin(-1);
    reader();
    const long count = FailingMalloc::end();
    ASSERT_GT(count, 0);
    std::map<std::string, long> ends;
    for (long nth = 0; nth < count; nth += std::max(1L, count / most())) {
        const std::string end = endOf(reader, nth);
        ++ends[end];
        if (end.starts_with("ended") && known-- > 0)
            continue;
        EXPECT_TRUE(end == "read" || end == "refused") << "allocation " << nth << " of " << count << ": " << end;
    }
    for (const auto &[end, times] : ends)
        std::printf("[ memory   ] %s: %ld\n", end.c_str(), times);
}

class FailingMemory : public ::testing::Test
{
protected:
    static QString corpus(const char *name)
    {
        return QStringLiteral(KVO_SOURCE_DIR "/fuzz/corpus/image/%1").arg(QString::fromLatin1(name));
    }

    static Reader imageReader(const char *name)
    {
        return [path = corpus(name)] {
            QString error;
            const bool isRead = !readImage(path, &error).isNull();
            return outcomeOf(isRead, error);
        };
    }

    QString model() const
    {
        const QString path = folder.filePath(QStringLiteral("model.obj"));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 1\nf 1//1 2//1 3//1\n");
        return path;
    }

    QTemporaryDir folder;
};

} // namespace

TEST_F(FailingMemory, OfAPngIsSaid)
{
    expectNoEnd(imageReader("gradient.png"));
}

// The first allocation of libjpeg ends the process in Qt's plugin, which has not said by then where errors go.
TEST_F(FailingMemory, OfAJpegIsSaid)
{
    expectNoEnd(imageReader("gradient.jpg"), 1);
}

TEST_F(FailingMemory, OfARadiancePictureIsSaid)
{
    expectNoEnd(imageReader("rgbe-rle.hdr"));
}

TEST_F(FailingMemory, OfAnOpenExrPictureIsSaid)
{
    expectNoEnd(imageReader("zip.exr"));
}

TEST_F(FailingMemory, OfAnImageForAPassIsSaid)
{
    expectNoEnd([path = corpus("gradient.png")] {
        QString error;
        const bool isRead = !readImageFile(path, ImageTurn::AsStored, &error).isNull();
        return outcomeOf(isRead, error);
    });
}

// Three allocations of its 331 end the process in Assimp 5.2, two of them by freeing a scene twice: importSceneIsolated
// is for that.
TEST_F(FailingMemory, OfAModelIsSaid)
{
    const QString path = model();
    const Reader reader = [path] {
        ImportReport report;
        const bool isRead = !importScene(path, ImportOptions(), &report).items.isEmpty();
        return outcomeOf(isRead, report.error);
    };
    expectNoEnd(reader, 3);
}

TEST_F(FailingMemory, OfAModelThatIsHandedOverIsSaid)
{
    QBuffer buffer;
    ASSERT_TRUE(buffer.open(QIODevice::WriteOnly));
    const ModelData data = importScene(model());
    QString failure;
    ASSERT_TRUE(writeModel(&buffer, data, ImportReport(), &failure)) << qPrintable(failure);
    const QByteArray bytes = buffer.data();
    expectNoEnd([bytes] {
        ModelData read;
        ImportReport report;
        QString error;
        const bool isRead = readModel(bytes, &read, &report, &error);
        return outcomeOf(isRead, error);
    });
}

#ifdef KVO_FAILING_MALLOC_LIBRARY
// Wherever that process ends, this one has a model or a reason.
TEST_F(FailingMemory, OfTheProcessThatImportsIsSaid)
{
    const QString path = model();
    qputenv("LD_PRELOAD", KVO_FAILING_MALLOC_LIBRARY);
    int refused = 0;
    for (const int nth : {0, 1, 10, 30, 100, 300, 1000, 3000, 10000, 1000000000}) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        qputenv("KVO_FAILING_MALLOC", QByteArray::number(nth));
        ImportReport report;
        const bool isRead = !importSceneIsolated(path, ImportOptions(), ImportLimits(), &report).items.isEmpty();
        EXPECT_NE(isRead, report.error.contains(path)) << qPrintable(report.error);
        refused += !isRead;
        if (nth == 1000000000) {
            EXPECT_TRUE(isRead) << qPrintable(report.error);
        }
    }
    EXPECT_GT(refused, 0);
    qunsetenv("LD_PRELOAD");
    qunsetenv("KVO_FAILING_MALLOC");
}
#endif
