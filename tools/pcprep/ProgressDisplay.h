#pragma once

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>

namespace pcprep
{

// Shows a run's progress as a host does: by polling the percentage file. On a terminal it draws one bar that
// it redraws in place; otherwise it prints a plain line at every tenth of the way, so logs of piped output
// stay short. Notes from other threads are printed above the bar.
class ProgressDisplay
{
public:
    explicit ProgressDisplay(std::filesystem::path percentageFile);

    // Reads the percentage file and redraws if anything changed.
    void poll();
    // Shows `token` as if the percentage file held it: for jobs that know their progress without a file.
    void update(const std::string& token);
    void note(const std::string& text);
    // Ends the bar's line; the last state stays visible.
    void finish();

private:
    void draw(const std::string& token);
    void clearLine();

    std::mutex m_mutex;
    const std::filesystem::path m_file;
    const bool m_terminal;
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    std::string m_token;
    int m_lastTenth = -1;
    long m_lastSecond = -1;
    bool m_barShown = false;
};

}  // namespace pcprep
