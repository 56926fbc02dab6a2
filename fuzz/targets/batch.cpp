#include "fuzz/targets.h"

#include "batchjobs.h"
#include "commandline.h"

#include <algorithm>

// Job files of both kinds, and what becomes of each job.

void Fuzz::batch(const QByteArray &bytes)
{
    static const QVector<Option> kOptions = CommandLine::options();
    for (const bool table : {false, true}) {
        BatchJobs jobs(kOptions, {});
        // A million of them say nothing that a thousand do not.
        jobs.setMost(1000);
        QString error;
        const bool read = table ? jobs.readTable(bytes, &error) : jobs.readLines(bytes, &error);
        promise(read || !error.isEmpty(), "a job file that is not read has a reason");
        qsizetype shared = 0;
        for (int i = 1; i <= 3; ++i)
            shared += jobs.jobsOf({i, 3}).size();
        promise(shared == jobs.jobs().size(), "every job is in one shard");
        const qsizetype most = std::min<qsizetype>(jobs.jobs().size(), 20);
        for (const BatchJob &job : jobs.jobs().first(most)) {
            CommandLine line;
            promise(!job.error.isEmpty() || line.read(job, &error) || !error.isEmpty(),
                    "a job that cannot be done has a reason");
            promise(!job.place.isEmpty(), "a job has a place");
        }
    }
}
