#include "services/Logger.h"

#include <time.h>

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <stdexcept>
#include <system_error>

#include "core/FileSizeString.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

constexpr unsigned kBarWidth = 50;

std::vector<uint32_t> stepPlan(bool shortPlan, bool shortPlanWithTail)
{
    if (!shortPlan)
        return {1, 16, 14, 28, 25, 16, 0};
    if (!shortPlanWithTail)
        return {1, 38, 45, 16, 0};
    return {1, 10, 59, 30, 0, 0};
}

std::wstring percentagePathOf(const std::wstring& logPath)
{
    return toWide(toPath(logPath).replace_extension(".pct"));
}

// The 24-character form of ctime, e.g. "Wed Jun 30 21:49:08 1993", in local time.
std::string localTimeText()
{
    const time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    char text[32] = {};
    if (ctime_r(&now, text) == nullptr)
        return "(unknown time)";
    std::string result(text);
    if (!result.empty() && result.back() == '\n')
        result.pop_back();
    return result;
}

// A bare file name has the working folder as its parent.
std::filesystem::path parentFolder(const std::wstring& logPath)
{
    std::filesystem::path folder = toPath(logPath).parent_path();
    return folder.empty() ? std::filesystem::path(".") : folder;
}

void requireExistingFolder(const std::filesystem::path& folder)
{
    std::error_code statusError;
    const auto status = std::filesystem::status(folder, statusError);
    if (statusError || !std::filesystem::exists(status))
        throw std::runtime_error("Logger: Path " + folder.string() + " does not exist.\n");
}

std::string progressBar(uint32_t jobPercentage)
{
    const unsigned filled = jobPercentage / 2;
    return "        [" + std::string(filled, '=') + std::string(kBarWidth - filled, ' ') + "]";
}

}  // namespace

Logger::Logger(const std::wstring& logPath, bool shortPlan, bool shortPlanWithTail)
    : logPath(logPath),
      percentagePath(percentagePathOf(logPath)),
      stepPercentages(stepPlan(shortPlan, shortPlanWithTail))
{
    requireExistingFolder(parentFolder(logPath));
    writePercentage();
    writeString(header("Start"), true, false);
    lastWrite = std::chrono::system_clock::now();
}

Logger::~Logger()
{
    // A destructor that throws would end the host; whatever fails here is lost with the logger.
    try
    {
        bool reachedEnd;
        {
            std::lock_guard lock(mutex);
            reachedEnd = totalPercentage >= 100;
        }
        if (!reachedEnd)
            cancel();
    }
    catch (...)
    {
    }
}

std::string Logger::header(const std::string& title)
{
    const std::string text = title + " : " + localTimeText();
    const std::string stars(text.size() + 8, '*');
    return stars + "\n*   " + text + "   *\n" + stars;
}

void Logger::setCacheFolder(const std::wstring& folder)
{
    cacheFolder = folder;
    message(ws2s(L"cacheFolder: " + folder));
}

void Logger::message(const std::string& text)
{
    std::lock_guard lock(mutex);
    if (failed)
        return;
    writeString(onLastStep() ? text : linePrefix() + text, false, false);
    lastWrite = std::chrono::system_clock::now();
}

void Logger::error(const std::string& text)
{
    std::lock_guard lock(mutex);
    failed = true;
    writePercentage();
    writeString(text, false, true);
    lastWrite = std::chrono::system_clock::now();
}

void Logger::cancel()
{
    std::lock_guard lock(mutex);
    cancelled = true;
    writePercentage();
    writeString("Preprocessing cancelled.", false, true);
    lastWrite = std::chrono::system_clock::now();
}

bool Logger::errorHasOccurred()
{
    std::lock_guard lock(mutex);
    return failed || !pendingErrors.empty();
}

bool Logger::outputErrors(const std::string& extra)
{
    std::lock_guard lock(mutex);
    if (pendingErrors.empty() && extra.empty())
        return true;
    logStream.open(toPath(logPath), std::ios::out | std::ios::app);
    logStream << "After ERROR flag was raised:\n";
    if (!pendingErrors.empty())
        logStream << pendingErrors << '\n';
    if (!extra.empty())
        logStream << extra << '\n';
    logStream.close();
    const bool written = !logStream.fail();
    logStream.clear();
    if (written)
        pendingErrors.clear();
    return written;
}

void Logger::increaseStep(const std::string& name)
{
    std::lock_guard lock(mutex);
    ++stepIndex;
    stepName = name;
    if (stepIndex >= stepPercentages.size())
        throw std::runtime_error("Logger: Cannot increase to next step since no steps left");
    const uint32_t total = totalBeforeStep();
    const uint32_t previous = totalPercentage;
    totalPercentage = total;
    if (total < previous)
        throw std::runtime_error("Logger: Total percentage may not decrease.");
    if (total > previous)
        writePercentage();
}

void Logger::startProgress(const std::string& job)
{
    std::lock_guard lock(mutex);
    jobName = job;
    jobPercentage = 0;
    writeProgress();
}

void Logger::updateProgress(unsigned int percent)
{
    std::lock_guard lock(mutex);
    if (percent > 100)
        throw std::runtime_error("Logger: percentage out of bound.\n");
    if (percent < jobPercentage)
        throw std::runtime_error("Logger: updateJobs may not decrease percentage.\n");
    jobPercentage = percent;
    // A host that stepped past the plan has no step worth anything left.
    const uint32_t stepWorth = stepIndex < stepPercentages.size() ? stepPercentages[stepIndex] : 0;
    const auto total = static_cast<uint32_t>(totalBeforeStep() + percent * 0.01 * stepWorth);
    if (total < totalPercentage)
        throw std::runtime_error("Logger: Total percentage may not decrease.");
    if (total > totalPercentage)
    {
        totalPercentage = total;
        writePercentage();
    }
}

void Logger::outputProgress()
{
    std::lock_guard lock(mutex);
    writeProgress();
}

std::chrono::system_clock::time_point Logger::lastWriteTime()
{
    std::lock_guard lock(mutex);
    return lastWrite;
}

bool Logger::running()
{
    std::lock_guard lock(mutex);
    return !failed && !cancelled && !onLastStep();
}

void Logger::writeString(const std::string& text, bool truncate, bool force)
{
    if (failed && !force)
        return;
    if (failed)
    {
        // The log can no longer be trusted; outputErrors makes one last attempt with everything held here.
        pendingErrors += text + '\n';
        return;
    }
    logStream.open(toPath(logPath), std::ios::out | (truncate ? std::ios::trunc : std::ios::app));
    logStream << text << '\n';
    logStream.flush();
    logStream.close();
    recordWriteFailure(logStream, logPath);
}

void Logger::writePercentage()
{
    // The token goes to a scratch file that is then renamed over the percentage file: a host polling at any
    // moment reads one whole token, never a file caught empty between truncation and write. Written even
    // after a failure: that is how "FAIL" reaches the host.
    const std::filesystem::path target = toPath(percentagePath);
    std::filesystem::path scratch = target;
    scratch += ".tmp";
    percentageStream.open(scratch, std::ios::out | std::ios::trunc);
    if (failed)
        percentageStream << "FAIL";
    else if (cancelled)
        percentageStream << "CANCEL";
    else
        percentageStream << totalPercentage;
    percentageStream.close();
    std::error_code renameError;
    if (!percentageStream.fail())
        std::filesystem::rename(scratch, target, renameError);
    if (percentageStream.fail() || renameError)
    {
        percentageStream.setstate(std::ios::failbit);
        std::filesystem::remove(scratch, renameError);
    }
    recordWriteFailure(percentageStream, percentagePath);
}

void Logger::writeProgress()
{
    lastWrite = std::chrono::system_clock::now();
    if (failed)
        return;
    writeString(linePrefix() + "Status " + jobName + "\n" + progressBar(jobPercentage), false, false);
}

std::string Logger::diskSpaceInfo()
{
    if (cacheFolder.empty())
        return {};
    const std::filesystem::path folder = toPath(cacheFolder);
    std::error_code spaceError;
    const std::filesystem::space_info space = std::filesystem::space(folder, spaceError);
    if (spaceError)
        throw std::filesystem::filesystem_error("space", folder, spaceError);
    return "Mem(" + getFileSizePrettyString(space.capacity) + " total, " +
           getFileSizePrettyString(space.available) + " free)";
}

void Logger::recordWriteFailure(std::ofstream& stream, const std::wstring& path)
{
    // A failed open, write, flush or close all leave the stream failed; clear it for the next open.
    const bool broken = stream.fail();
    stream.clear();
    if (!broken)
        return;
    failed = true;
    pendingErrors += "Logger: Could not write to " + ws2s(path) + "\nDisk full?\n";
}

bool Logger::onLastStep() const
{
    return stepIndex == stepPercentages.size() - 1;
}

uint32_t Logger::totalBeforeStep() const
{
    const auto end = stepPercentages.begin() + std::min<uint64_t>(stepIndex, stepPercentages.size());
    return std::accumulate(stepPercentages.begin(), end, uint32_t{0});
}

std::string Logger::linePrefix()
{
    return localTimeText() + " - " + diskSpaceInfo() + " - " + stepName + " - ";
}

}  // namespace pc_preprocess
