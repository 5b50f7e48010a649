// A process that edits a 2,000-event store is killed at random moments. After
// each kill the next load must give exactly a state the writer had reached
// or was writing, never a corrupt verdict, a failed load or a lost commit, and
// nothing left behind. TAVELO_KILLS sets the number of kills (scripts/kill-loop
// runs 300); TAVELO_KILL_SEED repeats a run.

#include "CrashLoopSteps.h"

#include "support/Async.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

using namespace tavelo;

namespace {

int envInt(const char* name, int fallback) {
    const char* value = std::getenv(name);
    return value ? std::atoi(value) : fallback;
}

bool startWriter(QProcess& writer, const QString& path, std::uint64_t step) {
    writer.setProgram(QStringLiteral(TAVELO_STORE_CRASH_WRITER));
    writer.setArguments({path, QString::number(step)});
    writer.start();
    return writer.waitForStarted(10000);
}

class StoreCrashLoopTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString path = dir.filePath("state.json");

    QStringList leftovers() const {
        QStringList names = QDir(dir.path()).entryList(QDir::Files | QDir::Hidden);
        names.removeAll("state.json");
        return names;
    }
};

TEST_F(StoreCrashLoopTest, AKillAtAnyMomentLeavesTheStateBeforeOrAfterTheWrite) {
    const int kills = envInt("TAVELO_KILLS", 24);
    const unsigned seed = static_cast<unsigned>(envInt("TAVELO_KILL_SEED", static_cast<int>(std::random_device{}())));
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> delay(15, 260);

    std::uint64_t step = 0; // the state the file is known to hold
    AppSnapshot expected = crashloop::initial();
    std::uint64_t stepsVerified = 0;

    for (int round = 0; round < kills; ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round << " seed " << seed);
        if (round % 10 == 9) {
            // Now and then a first save: the replacement path.
            QFile::remove(path);
            step = 0;
            expected = crashloop::initial();
        }
        QProcess writer;
        ASSERT_TRUE(startWriter(writer, path, step));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay(random)));
        if (writer.state() != QProcess::Running) {
            writer.waitForFinished();
            FAIL() << "the writer stopped by itself: " << writer.readAllStandardError().toStdString();
        }
        writer.kill(); // SIGKILL
        writer.waitForFinished(10000);

        LocalCalendarService service(path, [] { return crashloop::initial(); });
        CalendarLoadResult loaded;
        try {
            loaded = syncWait(service.load());
        } catch (const std::exception& error) {
            ADD_FAILURE() << "load failed: " << error.what();
            continue;
        }
        if (loaded.warning) {
            ADD_FAILURE() << loaded.warning->errorDescription()->toStdString();
            break;
        }
        // The writer may have gone any number of steps further.
        AppSnapshot candidate = expected;
        std::uint64_t reached = step;
        while (!(candidate == loaded.snapshot) && reached < step + 20000) crashloop::apply(candidate, ++reached);
        if (!(candidate == loaded.snapshot)) {
            ADD_FAILURE() << "the file holds no state the writer reached after step " << step;
            break;
        }
        stepsVerified += reached - step;
        step = reached;
        expected = std::move(candidate);
        EXPECT_TRUE(leftovers().isEmpty()) << leftovers().join(' ').toStdString();
    }

    EXPECT_GT(stepsVerified, 0u) << "the writer never got far enough to be killed inside a write";
}

} // namespace
