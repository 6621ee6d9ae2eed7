// The example host as a user meets it: a process with arguments, output and an exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "core/StringConversion.h"
#include "support/FileText.h"
#include "support/PtsSamples.h"
#include "support/TempFolder.h"

extern char** environ;

namespace fs = std::filesystem;

using pcp_test::entriesOf;
using pcp_test::readText;

namespace
{

// pcprep with its output captured in files of the test's folder.
class Pcprep
{
public:
    Pcprep(const pcp_test::TempFolder& folder, std::vector<std::string> arguments)
        : m_out(folder.path() / "out.txt"), m_err(folder.path() / "err.txt")
    {
        arguments.insert(arguments.begin(), PCPREP_PATH);
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int spawned = posix_spawn(&m_pid, PCPREP_PATH, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0)
            throw std::runtime_error("cannot start " PCPREP_PATH);
    }

    void interrupt() const { kill(m_pid, SIGINT); }

    bool finished()
    {
        if (!m_ended && waitpid(m_pid, &m_status, WNOHANG) == m_pid)
            m_ended = true;
        return m_ended;
    }

    // The exit status, or 1000 + the signal that ended the process.
    int wait()
    {
        if (!m_ended)
            waitpid(m_pid, &m_status, 0);
        m_ended = true;
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 1000 + WTERMSIG(m_status);
    }

    std::string out() const { return readText(m_out); }
    std::string err() const { return readText(m_err); }

private:
    fs::path m_out;
    fs::path m_err;
    pid_t m_pid = -1;
    int m_status = 0;
    bool m_ended = false;
};

int runPcprep(const pcp_test::TempFolder& folder, const std::vector<std::string>& arguments,
              std::string* out = nullptr, std::string* err = nullptr)
{
    Pcprep process(folder, arguments);
    const int status = process.wait();
    if (out)
        *out = process.out();
    if (err)
        *err = process.err();
    return status;
}

}  // namespace

TEST(Pcprep, RunConvertsAndReportsLikeAHost)
{
    pcp_test::TempFolder temp;
    const fs::path input = temp.path() / "scän.pts";
    pcp_test::writePtsFile(pc_preprocess::toWide(input), 5000);
    const fs::path cache = temp.path() / "cache";

    std::string out, err;
    ASSERT_EQ(
        runPcprep(temp,
                  {"run", "--cache", cache.string(), "--convert-only", "--threads", "2", input.string()},
                  &out, &err),
        0)
        << err;
    EXPECT_NE(out.find("points   5000"), std::string::npos) << out;
    EXPECT_NE(out.find("key file complete"), std::string::npos) << out;
    // Like a host, pcprep completes the step plan after a successful run.
    EXPECT_EQ(readText(cache / "cache.pct"), "100");

    ASSERT_EQ(runPcprep(temp, {"info", cache.string()}, &out), 0);
    EXPECT_NE(out.find("complete"), std::string::npos) << out;
    EXPECT_NE(out.find("1 scan file with 5000 points"), std::string::npos) << out;
}

TEST(Pcprep, PtxRunListsThePanoramasItWrote)
{
    pcp_test::TempFolder temp;
    const fs::path sample = temp.path() / "s";
    ASSERT_EQ(runPcprep(temp, {"sample", sample.string(), "--parts", "ptx", "--ptx-points", "40000"}), 0);
    const fs::path cache = temp.path() / "cache";
    std::string out, err;
    ASSERT_EQ(runPcprep(temp,
                        {"run", "--cache", cache.string(), "--convert-only",
                         (sample / "ptx" / "room-scans.ptx").string()},
                        &out, &err),
              0)
        << err;
    EXPECT_NE(out.find("scans    2\n"), std::string::npos) << out;
    EXPECT_NE(out.find("pictures 4\n"), std::string::npos) << out;
    for (const char* picture : {"room-scans-0000-view.png", "room-scans-0000-norm.png",
                                "room-scans-0001-view.png", "room-scans-0001-norm.png"})
    {
        const fs::path path = cache / "Bubbles" / picture;
        EXPECT_NE(out.find(path.string()), std::string::npos) << out;
        EXPECT_GT(fs::file_size(path), 0u) << path;
    }

    ASSERT_EQ(runPcprep(temp, {"info", cache.string()}, &out), 0);
    EXPECT_NE(out.find("room-scans-0001-temp.pnt  at (4.400, 2.600, 1.450)  panorama"), std::string::npos)
        << out;
}

TEST(Pcprep, ExitStatusTellsUsageFailureAndCancel)
{
    pcp_test::TempFolder temp;
    std::string out, err;
    EXPECT_EQ(
        runPcprep(temp, {"run", "--cache", (temp.path() / "c").string(), "--bogus", "x.pts"}, &out, &err), 2);
    EXPECT_NE(err.find("unknown option --bogus"), std::string::npos) << err;
    EXPECT_EQ(runPcprep(temp, {"run", "--cache", (temp.path() / "c").string(), "missing.pts"}, &out, &err),
              2);
    EXPECT_NE(err.find("is not an existing regular file!"), std::string::npos) << err;

    // A file that holds no point: the run fails and says where the log is.
    const fs::path words = temp.path() / "words.pts";
    std::ofstream(words) << "a b c\n";
    const fs::path failed = temp.path() / "failed";
    EXPECT_EQ(runPcprep(temp, {"run", "--cache", failed.string(), words.string()}, &out, &err), 1);
    EXPECT_NE(err.find("ERROR: no valid points in input file(s)"), std::string::npos) << err;
    EXPECT_EQ(entriesOf(failed), (std::set<std::string>{"cache.log", "cache.pct"}));
    EXPECT_EQ(readText(failed / "cache.pct"), "FAIL");

    // Ctrl-C while the run reads: the cancel file stops it, and only the log is left.
    std::vector<std::string> arguments = {"run",       "--cache", (temp.path() / "cancelled").string(),
                                          "--threads", "1",       "--convert-only"};
    for (int i = 0; i < 300; ++i)
    {
        const fs::path part = temp.path() / ("part-" + std::to_string(i) + ".pts");
        pcp_test::writePtsFile(pc_preprocess::toWide(part), 3000, {}, uint64_t(i) * 3000);
        arguments.push_back(part.string());
    }
    Pcprep run(temp, arguments);
    // Interrupt as soon as the first scan file is written: the run is then reading.
    const fs::path data = temp.path() / "cancelled" / "Data";
    std::error_code error;
    while (!run.finished() && (!fs::exists(data, error) || fs::is_empty(data, error)))
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    run.interrupt();
    EXPECT_EQ(run.wait(), 130) << run.err();
    EXPECT_EQ(entriesOf(temp.path() / "cancelled"), (std::set<std::string>{"cache.log", "cache.pct"}));
    EXPECT_EQ(readText(temp.path() / "cancelled" / "cache.pct"), "CANCEL");
}

TEST(Pcprep, HelpAndNodeInfo)
{
    pcp_test::TempFolder temp;
    std::string out;
    EXPECT_EQ(runPcprep(temp, {"--help"}, &out), 0);
    for (const char* command : {"run", "info", "sample", "compress", "decompress"})
        EXPECT_NE(out.find(command), std::string::npos) << command;
    EXPECT_EQ(runPcprep(temp, {"help", "run"}, &out), 0);
    EXPECT_NE(out.find("--convert-only"), std::string::npos);

    ASSERT_EQ(runPcprep(temp, {"sample", (temp.path() / "s").string(), "--parts", "node"}), 0);
    ASSERT_EQ(runPcprep(temp, {"compress", (temp.path() / "s" / "sample-room.pnt").string()}), 0);
    ASSERT_EQ(runPcprep(temp, {"info", (temp.path() / "s" / "sample-room.pnz").string()}, &out), 0);
    EXPECT_NE(out.find("Points        50000"), std::string::npos) << out;
    EXPECT_NE(out.find("class 2 x"), std::string::npos) << out;
}
