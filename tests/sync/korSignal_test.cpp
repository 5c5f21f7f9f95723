// korSignal_test.cpp - handlers of signals, and the monitor that turns two of them into the end of a wait. What raises
// signals runs in a process of its own.

#include "korutil/korPoller.h"
#include "korutil/korSignal.h"
#include "korutil/korSignalMonitor.h"
#include "korutil/korSocket.h"
#include "support/childProcess.h"
#include "support/failingHeap.h"
#include "support/systemObjects.h"

#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

std::vector<int32_t> calls; // of the callback, with its flag

void note(int32_t atStart)
{
    calls.push_back(atStart);
}

} // namespace

class KorSignal : public KorTest
{
protected:
    KorSignal() { _korSocket_Startup(ex, 0); }
    ~KorSignal() override
    {
        _korSignalMonitor_Stop(0, ex);
        _korSocket_Cleanup(0, ex);
    }

    void start(void (*callback)(int32_t) = note) { _korSignalMonitor_Start(ex, 0, callback); }
    void wait() { _korSignalMonitor_WaitForSignal(ex, 0); }
};

TEST_F(KorSignal, SavesAndRestoresAHandler)
{
    korSignalHandler first = nullptr, second = nullptr;
    _korSignal_SetHandler(ex, 0, SIGTERM, note, &first);
    _korSignal_SetHandler(ex, 0, SIGTERM, SIG_IGN, &second);
    EXPECT_TRUE(_korSignal_CompareHandler(note, &second));
    EXPECT_FALSE(_korSignal_CompareHandler(note, &first));
    _korSignal_RestoreHandler(ex, 0, SIGTERM, &first);
    EXPECT_EQ(std::signal(SIGTERM, first), first);
    _korSignal_SetHandler(ex, 0, 10000, note, &first);
    EXPECT_RAISED(KOR_ERROR_OS, "Failed to set signal handler.");
    _korSignal_RestoreHandler(ex, 0, 10000, &first);
    EXPECT_RAISED(KOR_ERROR_OS, "Failed to restore signal handler.");
    _korSetSignalSummaryHooks();
}

TEST_F(KorSignal, DISABLED_ChildBeforeAStart)
{
    wait();
    EXPECT_RAISED(KOR_ERROR_NOT_INITIALIZED, "Signal Monitor uninitialized.");
    EXPECT_FALSE(_korSignalMonitor_Signal(ex, 0));
    EXPECT_RAISED(KOR_ERROR_NOT_INITIALIZED, "Signal Monitor uninitialized.");
}

TEST_F(KorSignal, DISABLED_ChildWithEarlySignals)
{
    start();
    errno = 1234;
    EXPECT_EQ(std::raise(SIGTERM), 0);
    EXPECT_EQ(errno, 1234);
    EXPECT_TRUE(_korSignalMonitor_Signal(ex, 0)) << "there is one already";
    wait();
    wait(); // it stays signalled
    EXPECT_EQ(calls, (std::vector{0, 0}));
    _korSignalMonitor_Stop(0, ex);
    EXPECT_EQ(std::raise(SIGINT), 0); // the handlers stay, and do no harm
    start();                          // forgets
    EXPECT_TRUE(_korSignalMonitor_Signal(ex, 0));
    wait();
    EXPECT_EQ(calls.size(), 3u);
}

TEST_F(KorSignal, DISABLED_ChildThatWaits)
{
    start();
    std::atomic<bool> about = false;
    std::jthread sender([&] {
        while (!about) {
            std::this_thread::yield();
        }
        std::raise(SIGINT);
    });
    about = true;
    wait();
    EXPECT_EQ(calls, std::vector{0});
}

TEST_F(KorSignal, TheMonitorKeepsASignalAndEndsTheWait)
{
    for (const char* test : {"BeforeAStart", "WithEarlySignals", "ThatWaits", "ThatWaits"}) {
        ChildProcess child("KorSignal.DISABLED_Child" + std::string(test));
        EXPECT_EQ(child.wait(), 0) << child.output();
    }
}

TEST_F(KorSignal, AFailedStartLeavesNothing)
{
    int before = openDescriptors();
    korSignalHandler interrupted, terminated;
    _korSignal_SetHandler(ex, 0, SIGINT, SIG_DFL, &interrupted);
    _korSignal_SetHandler(ex, 0, SIGTERM, SIG_DFL, &terminated);
    start(nullptr); // the process's very first request fails without an error
    sweepFailures(ex, [&] {
        start(nullptr);
        _korSignalMonitor_Stop(0, ex);
    });
    for (int more = 0; more < 4 && DescriptorLimit::exists; more++) {
        DescriptorLimit limit(more);
        start(nullptr);
        EXPECT_EQ(ex->code == 0, more == 3);
        korEx_Clear(ex);
    }
    start(nullptr); // over one that runs
    EXPECT_CLEAN();
    _korSignalMonitor_Stop(0, ex);
    EXPECT_EQ(openDescriptors(), before);
    _korSignal_RestoreHandler(ex, 0, SIGINT, &interrupted);
    _korSignal_RestoreHandler(ex, 0, SIGTERM, &terminated);
}
