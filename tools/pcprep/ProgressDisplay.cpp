#include "pcprep/ProgressDisplay.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace pcprep
{

namespace
{

constexpr int kBarWidth = 40;

std::string readToken(const std::filesystem::path& file)
{
    std::ifstream in(file);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool isNumber(const std::string& token)
{
    return !token.empty() && token.find_first_not_of("0123456789") == std::string::npos && token.size() <= 3;
}

}  // namespace

ProgressDisplay::ProgressDisplay(std::filesystem::path percentageFile)
    : m_file(std::move(percentageFile)), m_terminal(isatty(fileno(stderr)) != 0)
{
}

void ProgressDisplay::poll()
{
    update(readToken(m_file));
}

void ProgressDisplay::update(const std::string& token)
{
    std::lock_guard lock(m_mutex);
    const long second = long(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - m_start).count());
    // The file is missing for a moment while a failed run is cleaned up; keep what was shown.
    if (token.empty() || (token == m_token && (!m_terminal || second == m_lastSecond)))
        return;
    m_token = token;
    m_lastSecond = second;
    draw(token);
}

void ProgressDisplay::draw(const std::string& token)
{
    const long seconds = m_lastSecond;
    if (m_terminal)
    {
        const int percent = isNumber(token) ? std::stoi(token) : 0;
        const int filled = percent * kBarWidth / 100;
        std::fprintf(stderr, "\r  [%s%s] %s %02ld:%02ld ", std::string(filled, '#').c_str(),
                     std::string(kBarWidth - filled, '.').c_str(),
                     isNumber(token) ? (token + "%").c_str() : token.c_str(), seconds / 60, seconds % 60);
        std::fflush(stderr);
        m_barShown = true;
        return;
    }
    if (!isNumber(token))
    {
        std::fprintf(stderr, "  progress: %s after %ld s\n", token.c_str(), seconds);
        return;
    }
    const int tenth = std::stoi(token) / 10;
    if (tenth > m_lastTenth)
    {
        m_lastTenth = tenth;
        std::fprintf(stderr, "  progress: %s%% after %ld s\n", token.c_str(), seconds);
    }
}

void ProgressDisplay::clearLine()
{
    if (m_terminal && m_barShown)
        std::fprintf(stderr, "\r%*s\r", kBarWidth + 24, "");
}

void ProgressDisplay::note(const std::string& text)
{
    std::lock_guard lock(m_mutex);
    clearLine();
    std::fprintf(stderr, "%s\n", text.c_str());
    if (m_terminal && m_barShown)
        draw(m_token);
}

void ProgressDisplay::finish()
{
    std::lock_guard lock(m_mutex);
    if (m_terminal && m_barShown)
        std::fprintf(stderr, "\n");
    m_barShown = false;
}

}  // namespace pcprep
