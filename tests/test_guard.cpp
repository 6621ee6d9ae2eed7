// The disk watchdog, fed with disk figures by a test double and run on a thread of its own, as a host runs it
// beside a preprocessing run.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <iomanip>
#include <sstream>

#include "core/StringConversion.h"
#include "services/Logger.h"
#include "services/PreprocessGuard.h"
#include "support/FileText.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
namespace fs = std::filesystem;

using pcp_test::readText;

namespace
{

constexpr uint64_t kGiB = uint64_t(1) << 30;
constexpr uint64_t kTiB = kGiB << 10;

// One disk figure per poll, the last one repeated; onPoll runs first on each poll, on the guard's thread, and
// may change the folder as a run or a host would.
class FakeDisk : public PreprocessGuard
{
public:
    FakeDisk(const PreprocessGuardParams& params, std::vector<diskSpaceInfo> figures,
             std::function<void(size_t)> onPoll = {})
        : PreprocessGuard(params), m_figures(std::move(figures)), m_onPoll(std::move(onPoll))
    {
    }

    diskSpaceInfo getDiskSpaceInfo() override
    {
        const size_t poll = m_polls++;
        if (m_onPoll)
            m_onPoll(poll);
        return m_figures[std::min(poll, m_figures.size() - 1)];
    }

    size_t polls() const { return m_polls; }

private:
    std::vector<diskSpaceInfo> m_figures;
    std::function<void(size_t)> m_onPoll;
    std::atomic<size_t> m_polls{0};
};

void touch(const std::wstring& path)
{
    std::ofstream(toPath(path)).put('x');
}

size_t occurrences(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

class Guard : public ::testing::Test
{
protected:
    Guard()
        : cache(root.file(L"cache")),
          finished(root.file(L"finished")),
          cancelFile(cache + L"/cancel"),
          logger(std::make_shared<Logger>(root.file(L"run.log"), false, false))
    {
        fs::create_directory(toPath(cache));
    }

    // 20 GiB or a tenth of the disk to warn, 10 GiB or a twentieth to cancel.
    PreprocessGuardParams params(uint64_t intervalMs = 1) const
    {
        return {cache, finished, 0.1, 20, 0.05, 10, intervalMs};
    }

    // Starts the watch on a thread of its own; the callbacks record what they are told.
    std::future<bool> start(PreprocessGuard& guard)
    {
        guard.memoryWarningCallBack([this](const std::wstring& text) { warnings.push_back(text); });
        guard.memoryAlertCallBack([this](const std::wstring& text) { alerts.push_back(text); });
        return std::async(std::launch::async, [&guard, this] { return guard.run(logger); });
    }

    bool watch(PreprocessGuard& guard) { return start(guard).get(); }

    std::string log() const { return readText(logger->logPath); }

    pcp_test::TempFolder root;
    const std::wstring cache;
    const std::wstring finished;
    const std::wstring cancelFile;
    std::shared_ptr<Logger> logger;
    std::vector<std::wstring> warnings;
    std::vector<std::wstring> alerts;
};

}  // namespace

TEST_F(Guard, InvalidParametersEndTheWatchAtOnce)
{
    std::vector<PreprocessGuardParams> invalid(8, params());
    invalid[0].warningFraction = 0.1;
    invalid[0].alertFraction = 0.2;
    invalid[1].alertGB = 1;
    invalid[2].warningGB = invalid[2].alertGB;
    invalid[3].alertFraction = 0.0;
    invalid[4].warningFraction = 1.0;
    invalid[5].finishedFile.clear();
    invalid[6].cacheFolder = root.file(L"no-such-cache");
    invalid[7].warningGB = 1;
    invalid[7].alertGB = 0;
    touch(finished);
    for (size_t i = 0; i < invalid.size(); ++i)
    {
        FakeDisk guard(invalid[i], {{kTiB, kTiB}});
        EXPECT_FALSE(watch(guard)) << i;
        EXPECT_EQ(guard.state(), PreprocessGuard::kInitial) << i;
        EXPECT_EQ(guard.polls(), 0u) << i;
    }
    EXPECT_TRUE(warnings.empty() && alerts.empty());
}

TEST_F(Guard, WarnsOnceBelowTheSmallerLevelAndLogsEveryPoll)
{
    const std::vector<diskSpaceInfo> figures = {
        {kTiB, 25 * kGiB},        // below a tenth of the disk, but above 20 GiB
        {100 * kGiB, 15 * kGiB},  // below 20 GiB, but above a tenth of this smaller disk
        {kTiB, 19 * kGiB + kGiB / 2},
        {kTiB, 15 * kGiB},
    };
    FakeDisk guard(params(), figures,
                   [&](size_t poll)
                   {
                       if (poll == 3)
                           touch(finished);
                   });
    EXPECT_TRUE(watch(guard));
    EXPECT_EQ(guard.polls(), 4u);
    EXPECT_EQ(guard.state(), PreprocessGuard::kWarned) << "a finished run keeps the warning";
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_TRUE(alerts.empty());
    EXPECT_EQ(occurrences(log(), "WARNING: available disk space lower than 20 GB"), 2u);
    EXPECT_FALSE(fs::exists(toPath(cancelFile)));

    const std::string report = ws2s(warnings[0]);
    EXPECT_EQ(
        report.rfind("\n\nAvailable disk space is 19.5 GB or 2% of total capacity\nWARNING: available disk "
                     "space lower than 20 GB \nPreprocessing might fail. Consider freeing up more disk "
                     "space.\n\tTime stamp : ",
                     0),
        0u)
        << report;
    const std::string tail = "\n\tDisk capacity : 1 TB \t available: 19.5 GB \n\tPercent available : 2%\n\n";
    ASSERT_GE(report.size(), tail.size());
    EXPECT_EQ(report.substr(report.size() - tail.size()), tail);
    std::tm stamp{};
    std::istringstream(report.substr(report.find("Time stamp : ") + 13)) >>
        std::get_time(&stamp, "%Y-%m-%d %H:%M:%S");
    EXPECT_GE(stamp.tm_year, 120) << report;
}

TEST_F(Guard, AlertCreatesTheCancelFileAndRaisesAnErrorUnlessACancelIsUnderway)
{
    FakeDisk guard(params(), {{kTiB, kTiB}, {kTiB, 5 * kGiB}});
    EXPECT_FALSE(watch(guard));
    EXPECT_EQ(guard.state(), PreprocessGuard::kCancelledForDisk);
    EXPECT_TRUE(fs::exists(toPath(cancelFile)));
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_NE(ws2s(alerts[0]).find("\nALERT: available disk space lower than 10 GB \nPreprocessing will be "
                                   "cancelled now!\n\n\tTime stamp : "),
              std::string::npos)
        << ws2s(alerts[0]);
    EXPECT_TRUE(warnings.empty());
    EXPECT_TRUE(logger->errorHasOccurred());
    EXPECT_EQ(readText(logger->percentagePath), "FAIL");

    // Someone cancels between the guard's look at the cancel file and its disk poll.
    fs::remove(toPath(cancelFile));
    alerts.clear();
    logger = std::make_shared<Logger>(root.file(L"second.log"), false, false);
    FakeDisk late(params(), {{kTiB, 5 * kGiB}}, [&](size_t) { touch(cancelFile); });
    EXPECT_FALSE(watch(late));
    EXPECT_EQ(late.state(), PreprocessGuard::kCancelledForDisk);
    EXPECT_EQ(alerts.size(), 1u);
    EXPECT_FALSE(logger->errorHasOccurred());
}

TEST_F(Guard, NothingLeavesTheWatchAndNothingKeepsTheAlertFromCancelling)
{
    // Disk figures that cannot be read: the watch stops with the reason in the log instead of throwing out of
    // the host's thread.
    FakeDisk unreadable(params(), {{kTiB, kTiB}},
                        [](size_t) { throw std::runtime_error("no disk figures today"); });
    EXPECT_FALSE(unreadable.run(logger));
    EXPECT_EQ(unreadable.state(), PreprocessGuard::kStopped);
    EXPECT_NE(log().find("Disk watchdog stopped: no disk figures today"), std::string::npos) << log();
    EXPECT_FALSE(logger->errorHasOccurred());

    // A host's alert callback that throws does not keep the guard from cancelling the run.
    FakeDisk full(params(), {{kTiB, 5 * kGiB}});
    full.memoryAlertCallBack([](const std::wstring&) { throw std::runtime_error("host is busy"); });
    EXPECT_FALSE(full.run(logger));
    EXPECT_EQ(full.state(), PreprocessGuard::kCancelledForDisk);
    EXPECT_TRUE(fs::exists(toPath(cancelFile)));
    EXPECT_TRUE(logger->errorHasOccurred());
}

TEST_F(Guard, CancelFileOrVanishedFolderStopsTheWatch)
{
    touch(cancelFile);
    FakeDisk cancelled(params(), {{kTiB, kTiB}});
    EXPECT_FALSE(watch(cancelled));
    EXPECT_EQ(cancelled.state(), PreprocessGuard::kStopped);
    EXPECT_EQ(cancelled.polls(), 0u);
    EXPECT_EQ(alerts, std::vector<std::wstring>{L"Preprocessing will be cancelled..."});

    fs::remove(toPath(cancelFile));
    alerts.clear();
    FakeDisk vanished(params(), {{kTiB, kTiB}}, [&](size_t) { fs::remove_all(toPath(cache)); });
    EXPECT_FALSE(watch(vanished));
    EXPECT_EQ(vanished.state(), PreprocessGuard::kStopped);
    EXPECT_EQ(vanished.polls(), 1u);
    EXPECT_EQ(alerts,
              std::vector<std::wstring>{L"Cache folder does not exist; preprocessing will be cancelled..."});
    EXPECT_FALSE(logger->errorHasOccurred());
}

TEST_F(Guard, StopFromAnotherThreadEndsTheMinuteLongPauseAtOnce)
{
    for (const bool runFinished : {false, true})
    {
        std::promise<void> polled;
        FakeDisk guard(params(60000), {{kTiB, kTiB}},
                       [&](size_t poll)
                       {
                           if (poll == 0)
                               polled.set_value();
                       });
        std::future<bool> result = start(guard);
        polled.get_future().wait();
        if (runFinished)
            touch(finished);
        guard.stop();
        ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(result.get(), runFinished);
        EXPECT_EQ(guard.state(), runFinished ? PreprocessGuard::kFinished : PreprocessGuard::kStopped);
        EXPECT_EQ(guard.polls(), 1u);
    }
}
