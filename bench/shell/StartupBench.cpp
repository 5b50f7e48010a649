// Process start to the first frame of the week view, with 50,000 events in
// the calendar file: each iteration starts the probe and stops the clock at
// its "frame" line.

#include "SnapshotGenerator.h"
#include "services/LocalCalendarService.h"
#include "support/Async.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <memory>

using namespace tavelo;

namespace {

QString probePath;

// The calendar file, written once per run.
const QString& stateFile() {
    static QTemporaryDir directory;
    static const QString path = [] {
        const QString file = directory.filePath(QStringLiteral("state.json"));
        LocalCalendarService service(file);
        syncWait(service.save(bench::generateSnapshot(50000)));
        return file;
    }();
    return path;
}

void BM_ProcessStartToFirstWeekFrame(benchmark::State& state) {
    const QString file = stateFile();
    for (auto _ : state) {
        QProcess probe;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        probe.setProcessEnvironment(environment);
        QElapsedTimer timer;
        timer.start();
        probe.start(probePath, {file});
        QByteArray line;
        while (!line.contains('\n') && probe.waitForReadyRead(10000)) line += probe.readAllStandardOutput();
        const double seconds = static_cast<double>(timer.nsecsElapsed()) / 1e9;
        probe.waitForFinished(5000);
        if (!line.startsWith("frame ")) {
            state.SkipWithError(("the probe showed no frame: " + probe.readAllStandardError().left(400)).constData());
            return;
        }
        state.SetIterationTime(seconds);
    }
}
BENCHMARK(BM_ProcessStartToFirstWeekFrame)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    // "--write <file>": only writes the calendar file, for running the probe by hand.
    if (argc == 3 && QByteArray(argv[1]) == "--write") {
        LocalCalendarService service(QString::fromLocal8Bit(argv[2]));
        syncWait(service.save(bench::generateSnapshot(50000)));
        return 0;
    }
    probePath = QCoreApplication::applicationDirPath() + QStringLiteral("/tavelo_shell_startup_probe");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
