// The run's log and percentage file, read back as a host and a person see them, and the thread that repeats
// the progress bar while a stage is silent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/FileSizeString.h"
#include "core/StringConversion.h"
#include "services/IntervalWriter.h"
#include "services/Logger.h"
#include "support/FileText.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;

using pcp_test::readText;

namespace
{

const std::string kEmptyBar = "        [" + std::string(50, ' ') + "]";

void writeFile(const std::wstring& path, const std::string& text)
{
    std::ofstream(toPath(path)) << text;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        result.push_back(line);
    return result;
}

// The line after its leading 24-character local time (as ctime prints it), or a marker when it has none.
std::string afterTime(const std::string& line)
{
    std::istringstream in(line.substr(0, 24));
    std::tm time{};
    in >> std::get_time(&time, "%a %b %d %H:%M:%S %Y");
    const bool isTime = line.size() >= 24 && !in.fail() && in.get() == EOF;
    return isTime ? line.substr(24) : "(no time) " + line;
}

bool isPercentToken(const std::string& text)
{
    return !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == std::string::npos &&
           std::to_string(std::stoi(text)) == text && std::stoi(text) <= 100;
}

// Runtime errors carry the whole message a user reads, so the texts are compared in full.
auto throwsText(const std::string& text)
{
    return testing::ThrowsMessage<std::runtime_error>(testing::StrEq(text));
}

size_t count(const std::string& text, const std::string& part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

// Waits for a background thread's effect; the generous limit only keeps a broken build from hanging.
template <typename Condition>
bool eventually(Condition&& condition)
{
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition() && std::chrono::steady_clock::now() < giveUp)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return condition();
}

}  // namespace

TEST(Logger, BannerMessageAndProgressLines)
{
    pcp_test::TempFolder folder;
    const std::wstring log = folder.file(L"run.log");
    writeFile(log, "earlier run\n");
    Logger logger(log, false, false);
    EXPECT_EQ(readText(folder.file(L"run.pct")), "0");

    logger.message("hello");
    logger.startProgress("reading");
    logger.updateProgress(1);
    logger.outputProgress();
    logger.updateProgress(100);
    logger.outputProgress();
    logger.increaseStep("Read");
    logger.setCacheFolder(toWide(folder.path()));

    const auto text = lines(readText(log));
    ASSERT_EQ(text.size(), 11u);
    const std::string stars(std::string("Start : ").size() + 24 + 8, '*');
    EXPECT_EQ(text[0], stars);
    EXPECT_TRUE(text[1].starts_with("*   Start : ") && text[1].ends_with("   *")) << text[1];
    EXPECT_EQ(afterTime(text[1].substr(12)), "   *");
    EXPECT_EQ(text[2], stars);
    EXPECT_EQ(afterTime(text[3]), " -  - INIT - hello");
    EXPECT_EQ(afterTime(text[4]), " -  - INIT - Status reading");
    EXPECT_EQ(text[5], kEmptyBar);
    EXPECT_EQ(text[7], kEmptyBar);  // 1 % is half an equal sign
    EXPECT_EQ(text[9], "        [" + std::string(50, '=') + "]");
    // The free space may change under other processes; the capacity does not.
    const std::string capacity = getFileSizePrettyString(std::filesystem::space(folder.path()).capacity);
    const std::string disk = afterTime(text[10]);
    EXPECT_TRUE(disk.starts_with(" - Mem(" + capacity + " total, ")) << disk;
    EXPECT_TRUE(disk.ends_with("B free) - Read - cacheFolder: " + folder.path().string())) << disk;

    for (const char* step : {"Split Root", "Split Rest", "Merge", "Finish", "Done"})
        logger.increaseStep(step);
    logger.message("x\ny");
    EXPECT_TRUE(readText(log).ends_with("\nx\ny\n"));
    EXPECT_EQ(readText(log).find("earlier run"), std::string::npos);
}

TEST(Logger, StepPlansAndPercentageArithmetic)
{
    pcp_test::TempFolder folder;
    const std::wstring pct = folder.file(L"run.pct");
    const std::vector<std::pair<std::pair<bool, bool>, std::vector<std::string>>> plans = {
        {{false, false}, {"1", "17", "31", "59", "84", "100"}},
        {{false, true}, {"1", "17", "31", "59", "84", "100"}},
        {{true, false}, {"1", "39", "84", "100"}},
        {{true, true}, {"1", "11", "70", "100", "100"}}};
    for (const auto& [flags, totals] : plans)
    {
        Logger logger(folder.file(L"run.log"), flags.first, flags.second);
        for (const std::string& total : totals)
        {
            EXPECT_TRUE(logger.running());
            logger.increaseStep("step");
            EXPECT_EQ(readText(pct), total);
        }
        EXPECT_FALSE(logger.running());
        EXPECT_THAT([&] { logger.increaseStep("beyond"); },
                    throwsText("Logger: Cannot increase to next step since no steps left"));
    }

    Logger logger(folder.file(L"run.log"), false, false);
    logger.increaseStep("Read");  // worth 16, starting at 1
    logger.updateProgress(50);
    EXPECT_EQ(readText(pct), "9");
    writeFile(pct, "untouched");
    logger.updateProgress(50);
    EXPECT_EQ(readText(pct), "untouched");
    logger.updateProgress(99);
    EXPECT_EQ(readText(pct), "16");
    logger.updateProgress(100);
    EXPECT_EQ(readText(pct), "17");
    EXPECT_THAT([&] { logger.updateProgress(101); }, throwsText("Logger: percentage out of bound.\n"));
    EXPECT_THAT([&] { logger.updateProgress(99); },
                throwsText("Logger: updateJobs may not decrease percentage.\n"));
    logger.startProgress("again");
    EXPECT_THAT([&] { logger.updateProgress(10); }, throwsText("Logger: Total percentage may not decrease."));
    EXPECT_EQ(readText(pct), "17");
}

TEST(Logger, ErrorsAreHeldUntilOutputAndFailOutranksCancel)
{
    pcp_test::TempFolder folder;
    const std::wstring log = folder.file(L"run.log");
    {
        Logger logger(log, false, false);
        logger.error("x");
        logger.message("y");
        logger.cancel();
        EXPECT_EQ(readText(folder.file(L"run.pct")), "FAIL");
        EXPECT_TRUE(logger.errorHasOccurred());
        EXPECT_FALSE(logger.running());
        EXPECT_EQ(lines(readText(log)).size(), 3u);  // the banner alone

        EXPECT_TRUE(logger.outputErrors("extra"));
        const std::string flushed = readText(log);
        EXPECT_TRUE(
            flushed.ends_with("\nAfter ERROR flag was raised:\nx\nPreprocessing cancelled.\n\nextra\n"));
        EXPECT_TRUE(logger.outputErrors(""));
        EXPECT_EQ(readText(log), flushed);
        EXPECT_TRUE(logger.errorHasOccurred());
    }
    Logger logger(log, true, true);
    logger.cancel();
    EXPECT_EQ(readText(folder.file(L"run.pct")), "CANCEL");
    EXPECT_TRUE(readText(log).ends_with("*\nPreprocessing cancelled.\n"));
    EXPECT_FALSE(logger.errorHasOccurred());
}

TEST(Logger, LifetimeDecidesTheFinalWord)
{
    pcp_test::TempFolder folder;
    const std::wstring log = folder.file(L"run.log");
    const std::wstring pct = folder.file(L"run.pct");
    for (unsigned percent : {99u, 100u})
    {
        {
            Logger logger(log, false, false);
            for (const char* step : {"Read", "Split Root", "Split Rest", "Merge", "Last work"})
                logger.increaseStep(step);
            logger.updateProgress(percent);
            EXPECT_EQ(readText(pct), std::to_string(percent));
        }
        EXPECT_EQ(readText(pct), percent == 100 ? "100" : "CANCEL");
        EXPECT_EQ(readText(log).ends_with("Preprocessing cancelled.\n"), percent != 100);
    }

    const std::wstring missing = folder.file(L"missing");
    EXPECT_THAT([&] { Logger(missing + L"/run.log", false, false); },
                throwsText("Logger: Path " + ws2s(missing) + " does not exist.\n"));
    EXPECT_FALSE(std::filesystem::exists(toPath(missing)));
    EXPECT_FALSE(std::filesystem::exists(toPath(missing + L"/run.pct")));
}

TEST(Logger, FailedWritesRaiseTheErrorFlag)
{
    pcp_test::TempFolder folder;
    const std::wstring log = folder.file(L"run.log");
    const std::string heldWriteError = "Logger: Could not write to " + ws2s(log) + "\nDisk full?\n";

    // A log that lost its place: the write fails at the open.
    Logger logger(log, false, false);
    std::filesystem::remove(toPath(log));
    std::filesystem::create_directory(toPath(log));
    logger.message("lost");
    EXPECT_TRUE(logger.errorHasOccurred());
    EXPECT_FALSE(logger.running());
    EXPECT_FALSE(logger.outputErrors(""));
    std::filesystem::remove(toPath(log));
    EXPECT_TRUE(logger.outputErrors(""));
    EXPECT_EQ(readText(log), "After ERROR flag was raised:\n" + heldWriteError + "\n");

    // A full disk: the open succeeds, the flush fails.
    std::filesystem::remove(toPath(log));
    std::filesystem::create_symlink("/dev/full", toPath(log));
    Logger full(log, false, false);
    EXPECT_TRUE(full.errorHasOccurred());
    full.error("boom");
    EXPECT_EQ(readText(folder.file(L"run.pct")), "FAIL");
    std::filesystem::remove(toPath(log));
    EXPECT_TRUE(full.outputErrors(""));
    EXPECT_EQ(readText(log), "After ERROR flag was raised:\n" + heldWriteError + "boom\n\n");
}

TEST(Logger, ConcurrentWritersKeepBothFilesWhole)
{
    pcp_test::TempFolder folder;
    const std::wstring log = folder.file(L"run.log");
    auto logger = std::make_shared<Logger>(log, false, false);
    logger->increaseStep("Read");

    std::atomic<bool> writing = true;
    std::vector<std::string> badReads;
    size_t tokensRead = 0;
    std::thread reader(
        [&]
        {
            // Every read must find one whole token (never an empty file), the numbers never falling and
            // nothing following "FAIL".
            int lastNumber = 0;
            bool sawFail = false;
            while (writing)
            {
                const std::string token = readText(folder.file(L"run.pct"));
                const bool number = isPercentToken(token);
                ++tokensRead;
                if ((!number && token != "FAIL") || (sawFail && token != "FAIL") ||
                    (number && std::stoi(token) < lastNumber))
                    badReads.push_back(token);
                sawFail = sawFail || token == "FAIL";
                lastNumber = number ? std::stoi(token) : lastNumber;
            }
        });

    constexpr int kThreads = 4, kLines = 200;
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t)
        writers.emplace_back(
            [&, t]
            {
                for (int i = 0; i < kLines; ++i)
                {
                    logger->message("writer " + std::to_string(t) + " line " + std::to_string(i));
                    try
                    {
                        logger->updateProgress(unsigned(i / 2));
                    }
                    catch (const std::runtime_error&)
                    {
                        // Another writer went further; the total may not fall.
                    }
                    if (i % 50 == 49)
                        t == 0 ? logger->startProgress("job " + std::to_string(i)) : logger->outputProgress();
                }
                if (t == 0)
                    logger->error("writer 0 failed");
            });
    for (auto& writer : writers)
        writer.join();
    writing = false;
    reader.join();

    EXPECT_GT(tokensRead, 0u);
    EXPECT_EQ(badReads, std::vector<std::string>{});
    EXPECT_EQ(readText(folder.file(L"run.pct")), "FAIL");
    const std::string text = readText(log);
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kLines; ++i)
        {
            const std::string line =
                " - Read - writer " + std::to_string(t) + " line " + std::to_string(i) + "\n";
            // Lines after the error are dropped; a line torn by another writer would not be found whole, and
            // the first writer's lines all came before the error.
            const size_t found = count(text, line);
            ASSERT_LE(found, 1u) << line;
            ASSERT_TRUE(t != 0 || found == 1) << line;
        }
}

TEST(IntervalWriter, RepeatsProgressAfterSilenceAndStopsWhenDestroyed)
{
    pcp_test::TempFolder folder;
    const std::wstring log = folder.file(L"run.log");
    auto logger = std::make_shared<Logger>(log, false, false);
    logger->increaseStep("Read");
    logger->startProgress("reading");
    {
        IntervalWriter writer(logger, std::chrono::milliseconds(5));
        EXPECT_TRUE(eventually([&] { return count(readText(log), "Status reading\n") >= 3; }));
    }
    // Stopping before the thread ever waits must not be lost, or the join would last the whole interval.
    for (int i = 0; i < 20; ++i)
        IntervalWriter writer(logger);

    // A progress entry that cannot read the disk ends the run instead of escaping the thread.
    const std::wstring cache = folder.file(L"cache");
    std::filesystem::create_directory(toPath(cache));
    logger->setCacheFolder(cache);
    std::filesystem::remove(toPath(cache));
    {
        IntervalWriter writer(logger, std::chrono::milliseconds(5));
        EXPECT_TRUE(eventually([&] { return logger->errorHasOccurred(); }));
    }
    EXPECT_TRUE(logger->outputErrors(""));
    EXPECT_NE(readText(log).find("Progress writer: filesystem error: space"), std::string::npos);
}

TEST(IntervalWriter, WriteAtIntervalsEndsOnNotifyWithoutWriting)
{
    pcp_test::TempFolder folder;
    const std::wstring log = folder.file(L"run.log");
    auto logger = std::make_shared<Logger>(log, false, false);
    std::condition_variable wake;
    std::atomic<bool> done = false;
    std::thread thread(
        [&]
        {
            writeAtIntervals(logger, wake);
            done = true;
        });
    // A notification before the thread waits is lost, so keep notifying until it has ended.
    while (!done)
    {
        wake.notify_all();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    thread.join();
    EXPECT_EQ(readText(log).find("Status"), std::string::npos);

    logger->cancel();
    writeAtIntervals(logger, wake);  // returns at once: the run is over
    EXPECT_EQ(readText(log).find("Status"), std::string::npos);
}
