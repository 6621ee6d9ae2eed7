// The example host as a user meets it: a process with arguments, output and an exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "cachefiles/VrmFile.h"
#include "core/StringConversion.h"
#include "scanview/NormalCodes.h"
#include "support/FileText.h"
#include "support/HspcDataSetPoints.h"
#include "support/PtsSamples.h"
#include "support/RdbDoubleFile.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"
#include "support/SyntheticCache.h"
#include "support/SyntheticHspcDataSet.h"
#include "support/TempFolder.h"
#include "support/TestData.h"

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

// The most different radii that one leaf of a finished cache holds. Scans with panoramas are thinned by their
// spacing, which grows with the distance from the scanner; other points take the size of their node.
size_t mostRadiiInALeaf(const fs::path& data, const pc_preprocess::VrmNode& node)
{
    if (!node.children.empty())
    {
        size_t most = 0;
        for (const pc_preprocess::VrmNode& child : node.children)
            most = std::max(most, mostRadiiInALeaf(data, child));
        return most;
    }
    pc_preprocess::IoTransfo transfo;
    std::vector<pc_preprocess::IoLightPoint> points;
    pc_preprocess::readPNZ(
        pc_preprocess::toWide(data / pc_preprocess::toPath(node.file).replace_extension(".pnz")), transfo,
        points);
    std::set<float> radii;
    for (const pc_preprocess::IoLightPoint& p : points)
        radii.insert(p.radius);
    return radii.size();
}

// Position, class and normal code of every point of a tree's leaves, or of one node file, sorted.
using SidePoint = std::tuple<int32_t, int32_t, int32_t, int, uint16_t>;

void addSidePoints(const std::vector<pc_preprocess::IoLightPoint>& points, std::vector<SidePoint>& out)
{
    for (const pc_preprocess::IoLightPoint& p : points)
        out.emplace_back(p.x, p.y, p.z, p.classification, pc_preprocess::encodeNormal({p.nx, p.ny, p.nz}));
}

// Calls `visit` with the points of each leaf of a tree.
void forEachLeaf(const fs::path& data, const pc_preprocess::VrmNode& node,
                 const std::function<void(const std::vector<pc_preprocess::IoLightPoint>&)>& visit)
{
    for (const pc_preprocess::VrmNode& child : node.children)
        forEachLeaf(data, child, visit);
    if (!node.children.empty())
        return;
    pc_preprocess::IoTransfo transfo;
    std::vector<pc_preprocess::IoLightPoint> points;
    pc_preprocess::readPNZ(
        pc_preprocess::toWide(data / pc_preprocess::toPath(node.file).replace_extension(".pnz")), transfo,
        points);
    visit(points);
}

// The line of `pcprep info` that sums up a cache's tree.
std::string treeLine(const pcp_test::TempFolder& temp, const fs::path& cache)
{
    std::string out;
    runPcprep(temp, {"info", cache.string()}, &out);
    const size_t start = out.find("Tree          depth");
    return start == std::string::npos ? "no tree in: " + out
                                      : out.substr(start, out.find('\n', start) - start);
}

}  // namespace

TEST(Pcprep, FullRunsOfEveryInputFormatEndInASoundCache)
{
    pcp_test::TempFolder temp;
    const fs::path sample = temp.path() / "s";
    ASSERT_EQ(runPcprep(temp, {"sample", sample.string(), "--parts", "pts,las,ptx,e57", "--points", "60000",
                               "--scans", "2", "--ptx-points", "200000", "--e57-points", "200000"}),
              0);
    const fs::path las = sample / "las" / "room-tile.las";
    const fs::path laz = temp.path() / "room-tile.laz";
    const std::vector<std::pair<std::string, std::vector<std::string>>> runs = {
        {"pts",
         {(sample / "pts" / "room-scan-1.pts").string(), (sample / "pts" / "room-scan-2.pts").string()}},
        {"ptx", {(sample / "ptx" / "room-scans.ptx").string()}},
        {"e57", {(sample / "e57" / "room-project.e57").string()}},
        {"las", {las.string()}},
        {"laz", {laz.string()}}};
    for (const auto& [name, inputs] : runs)
    {
        SCOPED_TRACE(name);
        const fs::path cache = temp.path() / ("cache-" + name);
        if (name == "laz")
        {
            // The LAS tile's points, every leaf of its cache, compressed.
            ASSERT_EQ(runPcprep(temp, {"export", (temp.path() / "cache-las").string(), laz.string()}), 0);
        }
        std::vector<std::string> arguments = {"run", "--cache", cache.string(), "--threads", "2"};
        arguments.insert(arguments.end(), inputs.begin(), inputs.end());
        std::string out, err;
        ASSERT_EQ(runPcprep(temp, arguments, &out, &err), 0) << err;
        if (name == "ptx")
        {
            // Each scan's colour view and normal map, listed as the run wrote them.
            EXPECT_NE(out.find("scans    2\n"), std::string::npos) << out;
            EXPECT_NE(out.find("pictures 4\n"), std::string::npos) << out;
            for (const char* picture : {"room-scans-0000-view.png", "room-scans-0000-norm.png",
                                        "room-scans-0001-view.png", "room-scans-0001-norm.png"})
            {
                EXPECT_NE(out.find((cache / "Bubbles" / picture).string()), std::string::npos) << out;
                EXPECT_GT(fs::file_size(cache / "Bubbles" / picture), 0u) << picture;
            }
        }
        ASSERT_EQ(runPcprep(temp, {"verify", cache.string()}, &out, &err), 0) << out << err;
        EXPECT_EQ(out.rfind("cache is sound: ", 0), 0u) << out;

        const size_t radii = mostRadiiInALeaf(
            cache / "Data", pc_preprocess::readVrm(pc_preprocess::toWide(cache / "cache.vrm")));
        if (name == "ptx" || name == "e57")
            EXPECT_GT(radii, 2u);
        else
            EXPECT_LE(radii, 2u);
    }
    std::string info;
    ASSERT_EQ(runPcprep(temp, {"info", (temp.path() / "cache-ptx").string()}, &info), 0);
    EXPECT_NE(info.find("room-scans-0001-temp.pnt  at (4.400, 2.600, 1.450)  panorama"), std::string::npos)
        << info;
    // The camera pictures of the E57 project, one per scan, as the file holds them.
    const fs::path pictures = temp.path() / "cache-e57" / "Bubbles" / "2DImages";
    EXPECT_GT(fs::file_size(pictures / "room-project-0000" / "image_0.jpg"), 0u);
    EXPECT_GT(fs::file_size(pictures / "room-project-0001" / "image_1.jpg"), 0u);
    // With a pixel limit below the pictures' size, the run still succeeds and says which it left out.
    const fs::path limited = temp.path() / "cache-e57-limited";
    ASSERT_EQ(runPcprep(temp, {"run", "--cache", limited.string(), "--max-image-pixels", "1",
                               (sample / "e57" / "room-project.e57").string()}),
              0);
    const std::string limitedLog = pcp_test::readText(limited / "cache.log");
    EXPECT_NE(limitedLog.find("of scan 1 in "), std::string::npos) << limitedLog;
    EXPECT_NE(limitedLog.find("is left out: "), std::string::npos) << limitedLog;

    // Nothing of the tile is lost on its way through the LAZ file.
    const std::string lasTree = treeLine(temp, temp.path() / "cache-las");
    EXPECT_NE(lasTree.find("leaves with 96800 points"), std::string::npos) << lasTree;
    EXPECT_EQ(treeLine(temp, temp.path() / "cache-laz"), lasTree);
}

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

TEST(Pcprep, RieglProjectsRunThroughTheLibraryAndInfoSaysHowToGetIt)
{
    pcp_test::TempFolder temp;
    pcp_test::RdbDoubleFile scan;
    scan.amplitude = true;
    scan.metadata = {{"riegl.device", "VZ-400i"}};
    for (int i = 0; i < 3000; ++i)
        scan.points.push_back({{0.01 * (i % 100), 0.01 * (i / 100), 1.0}, float(i % 50), {}, {}});
    scan.write(temp.path() / "SCANS" / "Pos1" / "SINGLESCANS" / "s1.rdbx");
    scan.write(temp.path() / "SCANS" / "Pos2" / "SINGLESCANS" / "s2.rdbx");
    const fs::path project = temp.path() / "project.rsp";
    std::ofstream(project) << "<project><scanpositions>"
                              "<scanposition name=\"Pos1\"><singlescans><scan name=\"s1\"/></singlescans>"
                              "</scanposition><scanposition name=\"Pos2\"><sop><matrix>1 0 0 10 0 1 0 0 0 0 1 0 "
                              "0 0 0 1</matrix></sop><singlescans><scan name=\"s2\"/></singlescans></scanposition>"
                              "</scanpositions></project>";
    const std::string library = pcp_test::rdbDoubleLibrary();
    const fs::path cache = temp.path() / "cache";
    std::string out, err;
    ASSERT_EQ(runPcprep(temp,
                        {"run", "--cache", cache.string(), "--convert-only", "--riegl-library", library,
                         project.string()},
                        &out, &err),
              0)
        << err;
    EXPECT_NE(out.find("scans    2"), std::string::npos) << out;
    EXPECT_NE(out.find("points   6000"), std::string::npos) << out;
    EXPECT_NE(out.find("key file complete"), std::string::npos) << out;

    ASSERT_EQ(runPcprep(temp, {"info", project.string(), "--riegl-library", library}, &out, &err), 0) << err;
    EXPECT_NE(out.find("Header Info For File = " +
                       (temp.path() / "SCANS" / "Pos2" / "SINGLESCANS" / "s2.rdbx").string() +
                       "\nriegl.device = VZ-400i\n"),
              std::string::npos)
        << out;

    // Without the library: the message, naming the input and how to provide the library.
    EXPECT_EQ(runPcprep(temp, {"info", project.string(), "--riegl-library", "/nonexistent/librdb.so"}, &out, &err),
              1);
    EXPECT_NE(err.find("Riegl error: " + project.string() + "\n\tThe RIEGL library /nonexistent/librdb.so could not "
                       "be loaded"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("--riegl-library"), std::string::npos) << err;
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

TEST(Pcprep, FailureSummaryShowsWhyTheRunFailed)
{
    // A file that no reader opens: the summary shows the run's errors with the reasons of the library below,
    // each on a line of its own, and not the disk figures that the cleaning adds at the end of the log.
    pcp_test::TempFolder temp;
    std::string out, err;
    const fs::path noise = temp.path() / "noise.laz";
    std::ofstream(noise) << std::string(3000, 'x');
    EXPECT_EQ(
        runPcprep(temp, {"run", "--cache", (temp.path() / "noise").string(), noise.string()}, &out, &err), 1);
    EXPECT_NE(err.find("  errors in the log:\n    ERROR probe :\n    \tLAZ error: Could not create reader "
                       "stream.\n    \tLASzip: wrong file_signature. not a LAS/LAZ file.\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(err.find("Disk capacity"), std::string::npos) << err;

    // The probe's reason for a damaged E57 file, which before stood only in the log.
    PCP_REQUIRE_TEST_DATA(badCrc, "e57/bad-crc.e57");
    EXPECT_EQ(
        runPcprep(temp, {"run", "--cache", (temp.path() / "crc").string(), badCrc.string()}, &out, &err), 1);
    EXPECT_NE(err.find("\n    E57_ERROR_BAD_CHECKSUM"), std::string::npos) << err;
    EXPECT_NE(err.find("page 0 of " + fs::absolute(badCrc).string() + ": checksum "), std::string::npos)
        << err;
}

TEST(Pcprep, HelpAndNodeInfo)
{
    pcp_test::TempFolder temp;
    std::string out;
    EXPECT_EQ(runPcprep(temp, {"--help"}, &out), 0);
    EXPECT_EQ(runPcprep(temp, {"help", "run"}, &out), 0);
    EXPECT_NE(out.find("--convert-only"), std::string::npos);

    ASSERT_EQ(runPcprep(temp, {"sample", (temp.path() / "s").string(), "--parts", "node"}), 0);
    ASSERT_EQ(runPcprep(temp, {"compress", (temp.path() / "s" / "sample-room.pnt").string()}), 0);
    ASSERT_EQ(runPcprep(temp, {"info", (temp.path() / "s" / "sample-room.pnz").string()}, &out), 0);
    EXPECT_NE(out.find("Points        50000"), std::string::npos) << out;
    EXPECT_NE(out.find("class 2 x"), std::string::npos) << out;
}

TEST(Pcprep, LazRoundTripKeepsNormalsAndClasses)
{
    pcp_test::TempFolder temp;
    ASSERT_EQ(runPcprep(temp, {"sample", (temp.path() / "s").string(), "--parts", "node"}), 0);
    const fs::path node = temp.path() / "s" / "sample-room.pnt";
    const fs::path laz = temp.path() / "room.laz";
    const fs::path cache = temp.path() / "cache";
    std::string out, err;
    ASSERT_EQ(runPcprep(temp, {"export", node.string(), laz.string()}, &out, &err), 0) << err;
    ASSERT_EQ(runPcprep(temp, {"run", "--cache", cache.string(), laz.string()}, &out, &err), 0) << err;

    pc_preprocess::IoTransfo sourceGrid;
    std::vector<pc_preprocess::IoLightPoint> source;
    pc_preprocess::readPNT(pc_preprocess::toWide(node), sourceGrid, source);
    ASSERT_EQ(source.size(), 50000u);
    std::vector<SidePoint> expected;
    addSidePoints(source, expected);
    // The LAZ file keeps the node's grid, and the run takes it over: the integers stay as they were.
    std::vector<SidePoint> kept;
    forEachLeaf(cache / "Data", pc_preprocess::readVrm(pc_preprocess::toWide(cache / "cache.vrm")),
                [&kept](const std::vector<pc_preprocess::IoLightPoint>& points) { addSidePoints(points, kept); });
    std::sort(expected.begin(), expected.end());
    std::sort(kept.begin(), kept.end());
    ASSERT_EQ(kept.size(), expected.size());
    for (size_t i = 0; i < kept.size(); ++i)
        ASSERT_EQ(kept[i], expected[i]) << i;
    // A sample with something to lose: more than one class, and normals that are not all the same.
    std::set<int> classes;
    for (const SidePoint& p : expected)
        classes.insert(std::get<3>(p));
    EXPECT_GE(classes.size(), 3u);
    EXPECT_GT(
        std::count_if(expected.begin(), expected.end(),
                      [&](const SidePoint& p) { return std::get<4>(p) != std::get<4>(expected.front()); }),
        1000);
}

TEST(Pcprep, SoundCacheVerifiesDescribesAndExports)
{
    pcp_test::TempFolder temp;
    const pcp_test::SyntheticCache cache = pcp_test::writeSyntheticCache(temp.path() / "cache");
    const std::string folder = cache.folder.string();
    const std::string leafPoints = std::to_string(cache.leafPoints());
    std::string out, err;
    EXPECT_EQ(runPcprep(temp, {"verify", folder}, &out, &err), 0) << out << err;
    EXPECT_EQ(out, "cache is sound: 6 nodes, " + leafPoints + " points in 4 leaves\n");
    EXPECT_EQ(runPcprep(temp, {"verify", cache.vrm.string()}, &out), 0) << out;

    ASSERT_EQ(runPcprep(temp, {"info", folder}, &out, &err), 0) << err;
    EXPECT_NE(out.find("Tree          depth 2, 6 nodes, 4 leaves with " + leafPoints + " points\n"),
              std::string::npos)
        << out;
    const size_t rootPoints = cache.points.at("0").size();
    EXPECT_NE(out.find("  level 0     1 node, " + std::to_string(rootPoints) + " points\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("  level 2     2 nodes, 210 points\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Node files    6 PNZ ("), std::string::npos) << out;
    EXPECT_NE(out.find(", 0 PNT (0.00B)\n"), std::string::npos) << out;

    // All leaves by default, which are all points; one depth on request, with the leaves above it.
    const size_t middlePoints =
        cache.points.at("00").size() + cache.points.at("01").size() + cache.points.at("02").size();
    const std::vector<std::tuple<std::string, size_t, std::string>> exports = {
        {"", cache.leafPoints(), "4 files"}, {"0", rootPoints, "1 file "}, {"1", middlePoints, "3 files"}};
    for (const auto& [depth, points, files] : exports)
    {
        const fs::path file = temp.path() / ("depth" + depth + ".pts");
        std::vector<std::string> arguments = {"export", folder, file.string()};
        if (!depth.empty())
            arguments.insert(arguments.end(), {"--depth", depth});
        ASSERT_EQ(runPcprep(temp, arguments, &out, &err), 0) << err;
        EXPECT_NE(out.find("Wrote " + std::to_string(points) + " points from " + files), std::string::npos)
            << out;
        EXPECT_EQ(std::count(std::istreambuf_iterator<char>(std::ifstream(file).rdbuf()), {}, '\n'),
                  1 + points)
            << depth;
    }
    EXPECT_EQ(
        runPcprep(temp, {"export", folder, (temp.path() / "deep.pts").string(), "--depth", "3"}, &out, &err),
        2);
    EXPECT_NE(err.find("has the depths 0 to 2"), std::string::npos) << err;

    // Cut down to its root, the cache may keep the root's classes and normals beside it.
    pcp_test::SyntheticCache single = cache;
    single.root.children.clear();
    pc_preprocess::writeVrm(pc_preprocess::toWide(single.vrm), single.root);
    for (const auto& [stem, points] : cache.points)
        if (stem != "0")
            fs::remove(cache.nodeFile(stem, ".pnz"));
    std::ofstream(cache.nodeFile("0-class", ".pnt")) << std::string(rootPoints, '\x02');
    EXPECT_EQ(runPcprep(temp, {"verify", folder}, &out), 0) << out;
    EXPECT_EQ(out, "cache is sound: 1 node, " + std::to_string(rootPoints) + " points in 1 leaf\n");
}

TEST(Pcprep, CompressAndDecompressAWholeCache)
{
    pcp_test::TempFolder temp;
    const pcp_test::SyntheticCache cache = pcp_test::writeSyntheticCache(temp.path() / "cache");
    std::string out, err;
    ASSERT_EQ(runPcprep(temp, {"decompress", cache.folder.string(), "--threads", "2"}, &out, &err), 0) << err;
    EXPECT_NE(out.find("Decompressed  6 PNZ files ("), std::string::npos) << out;
    EXPECT_NE(out.find("with 2 threads"), std::string::npos) << out;

    // A plain cache is not a finished one: verify names every plain node.
    EXPECT_EQ(runPcprep(temp, {"verify", cache.folder.string()}, &out), 1);
    EXPECT_NE(out.find("Data/01.pnz: missing; the node is the plain file 01.pnt"), std::string::npos) << out;
    EXPECT_NE(out.find("6 problems found in"), std::string::npos) << out;

    ASSERT_EQ(runPcprep(temp, {"compress", cache.vrm.string()}, &out, &err), 0) << err;
    EXPECT_NE(out.find("Compressed    6 PNT files ("), std::string::npos) << out;
    ASSERT_EQ(runPcprep(temp, {"compress", cache.folder.string()}, &out, &err), 0) << err;
    EXPECT_NE(out.find("Nothing to compress: every node file is compressed (PNZ) already"), std::string::npos)
        << out;
    EXPECT_EQ(runPcprep(temp, {"verify", cache.folder.string()}, &out), 0) << out;

    // A node missing: the whole command fails and names it.
    fs::remove(cache.nodeFile("02", ".pnz"));
    EXPECT_EQ(runPcprep(temp, {"decompress", cache.folder.string()}, &out, &err), 1);
    EXPECT_NE(err.find("02.pnz do NOT exist."), std::string::npos) << err;
    EXPECT_EQ(runPcprep(temp, {"compress", cache.folder.string(), "--replace"}, &out, &err), 2);
}

TEST(Pcprep, VerifyNamesEachProblem)
{
    pcp_test::TempFolder temp;
    pcp_test::SyntheticCache cache = pcp_test::writeSyntheticCache(temp.path() / "cache");
    // The VRM claims a smaller box and another count for one node.
    pc_preprocess::VrmNode& node = pcp_test::findNode(cache.root, "02");
    node.box[3] -= 0.05;
    node.numPoints += 1;
    pc_preprocess::writeVrm(pc_preprocess::toWide(cache.vrm), cache.root);
    // Left behind: a plain node file, a scan's temporary files, side files in a tree of many nodes, a node
    // that the tree does not name.
    fs::copy_file(cache.nodeFile("02", ".pnz"), cache.nodeFile("01", ".pnt"));
    std::ofstream(cache.nodeFile("scan-0-temp", ".pnt")) << "x";
    std::ofstream(cache.nodeFile("scan-0-temp", ".meta")) << "x";
    std::ofstream(cache.nodeFile("0-class", ".pnt")) << std::string(cache.points.at("0").size(), '\x01');
    fs::copy_file(cache.nodeFile("02", ".pnz"), cache.nodeFile("03", ".pnz"));
    // An unfinished run's key file.
    std::ofstream(cache.folder / "cache.key") << "cache\n0";

    std::string out, err;
    EXPECT_EQ(runPcprep(temp, {"verify", cache.folder.string()}, &out, &err), 1) << err;
    const std::vector<std::string> problems = {
        "cache.key: the size is 0: the run that wrote the cache did not finish\n",
        "Data/02.pnz: 60 points, but the VRM says 61\n",
        " of 60 points lie outside the node's box in the VRM, the first at (11.1700, ",
        "Data/0-class.pnt: a side file, but only a cache of a single node keeps classes and normals\n",
        "Data/01.pnt: a plain file left behind; a finished cache holds PNZ files only\n",
        "Data/03.pnz: a node file that the VRM does not name\n",
        "Data/scan-0-temp.meta: a temporary file of the run is left behind\n",
        "Data/scan-0-temp.pnt: a temporary file of the run is left behind\n",
        "8 problems found in " + cache.folder.string() + "\n"};
    for (const std::string& problem : problems)
        EXPECT_NE(out.find(problem), std::string::npos) << problem << "\n" << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 9) << out;

    // A folder without a tree is no cache to verify.
    EXPECT_EQ(runPcprep(temp, {"verify", temp.path().string()}, &out), 1);
    EXPECT_NE(out.find("holds no octree cache: no .vrm file in it"), std::string::npos) << out;
}

TEST(Pcprep, HspcDataSetsAreDescribedAndChecked)
{
    pcp_test::TempFolder temp;
    const fs::path folder = temp.path() / "set";
    const fs::path archive = temp.path() / "tree.hspc.pack";
    pcp_test::SyntheticHspcDataSet dataSet;
    {
        HSPC::FolderWriter folderWriter(folder.string());
        dataSet = pcp_test::writeSyntheticHspcDataSet(folderWriter);
        HSPC::DiskWriteArchive archiveWriter(archive.string());
        pcp_test::writeSyntheticHspcDataSet(archiveWriter);
    }
    std::string out, err;
    for (const fs::path& form : {folder, folder / "queryTree.hspc", archive})
    {
        ASSERT_EQ(runPcprep(temp, {"info", form.string()}, &out, &err), 0) << form << err;
        for (const char* line : {"Tree file     queryTree.hspc (full: exact counts and boxes)\n",
                                 "Version       22\n", "Points        18 (0 filtered out)\n",
                                 "Origin        1000 2000 50\n", "Scale         0.01 0.01 0.01\n",
                                 "Box           (1000.000000, 2000.000000, 50.000000) .. (1000.150000",
                                 "Lods          lod 4: 1 node, lod 3: 2 nodes\n",
                                 "Node size     8 points (at most 10; densities count against 10)\n",
                                 "Attributes    POSITION M96 \"POSITION\", INTENSITY U16 \"INTENSITY\" (14 bytes",
                                 "Comment       {", "\"site\" : \"synthetic\""})
            EXPECT_NE(out.find(line), std::string::npos) << form << ": " << line << " in\n" << out;
        EXPECT_EQ(runPcprep(temp, {"verify", form.string()}, &out, &err), 0) << form << out << err;
        EXPECT_EQ(out, "data set is sound: 3 nodes holding 18 points, every one decoded\n") << form;
    }
    ASSERT_EQ(runPcprep(temp, {"info", (folder / "tree.hspc").string()}, &out, &err), 0) << err;
    EXPECT_NE(out.find("Tree file     tree.hspc (reduced)\n"), std::string::npos) << out;

    // A node missing, one whose header disagrees with the tree, one that does not decode.
    const auto blob = [&](size_t node) { return folder / dataSet.nodeNames[node].substr(1); };
    fs::remove(blob(0));
    std::string block = readText(blob(1));
    block[20] = 4;  // the point count
    std::ofstream(blob(1), std::ios::binary).write(block.data(), std::streamsize(block.size()));
    block = readText(blob(2));
    uint32_t payloadAt = 0;
    std::memcpy(&payloadAt, block.data() + 112, 4);
    block[payloadAt] = 50;  // no payload kind
    std::ofstream(blob(2), std::ios::binary).write(block.data(), std::streamsize(block.size()));
    EXPECT_EQ(runPcprep(temp, {"verify", folder.string()}, &out, &err), 1) << out << err;
    const std::string name0 = dataSet.nodeNames[0].substr(1);
    EXPECT_NE(out.find(name0 + ": missing: node 0 of the tree has no blob\n"), std::string::npos) << out;
    EXPECT_NE(out.find(dataSet.nodeNames[1].substr(1) + ": 4 points, but the tree says 5\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find(dataSet.nodeNames[2].substr(1) + ": does not decode: "), std::string::npos) << out;
    EXPECT_NE(out.find("3 problems found in " + folder.string() + "\n"), std::string::npos) << out;

    // A broken tree file is reported with the loader's reason.
    std::string tree = readText(folder / "queryTree.hspc");
    tree.pop_back();
    std::ofstream(folder / "queryTree.hspc", std::ios::binary).write(tree.data(), std::streamsize(tree.size()));
    EXPECT_EQ(runPcprep(temp, {"verify", folder.string()}, &out, &err), 1);
    EXPECT_NE(out.find("queryTree.hspc: queryTree.hspc in " + folder.string() + ": loadTree: "), std::string::npos)
        << out;
    EXPECT_NE(runPcprep(temp, {"info", (folder / "queryTree.hspc").string()}, &out, &err), 0);
    EXPECT_NE(err.find("loadTree: "), std::string::npos) << err;
}

namespace
{

// The points of every per-scan file in a convert-only cache's point folder, as a data set of them holds them.
std::vector<pcp_test::DataSetPoint> scanFilePoints(const fs::path& data, const std::vector<HSPC::Attribute>& attributes)
{
    std::vector<pcp_test::DataSetPoint> points;
    for (const auto& entry : fs::directory_iterator(data))
    {
        const std::string name = entry.path().filename().string();
        if (name.size() < 9 || name.compare(name.size() - 9, 9, "-temp.pnt") != 0)
            continue;
        pc_preprocess::IoTransfo transfo;
        std::vector<pc_preprocess::IoLightPoint> scan;
        pc_preprocess::readPNT(pc_preprocess::toWide(entry.path()), transfo, scan);
        for (const pc_preprocess::IoLightPoint& p : scan)
            points.push_back(pcp_test::dataSetPointOf(p, attributes));
    }
    return points;
}

}  // namespace

TEST(Pcprep, HspcRunHoldsThePointsOfTheScansAndExportHoldsTheLeaves)
{
    pcp_test::TempFolder temp;
    const fs::path sample = temp.path() / "s";
    ASSERT_EQ(runPcprep(temp, {"sample", sample.string(), "--parts", "pts,las,ptx,e57", "--points", "20000",
                               "--scans", "2", "--ptx-points", "40000", "--e57-points", "40000"}),
              0);
    const std::vector<std::string> project = {
        (sample / "pts" / "room-scan-1.pts").string(), (sample / "pts" / "room-scan-2.pts").string(),
        (sample / "ptx" / "room-scans.ptx").string(), (sample / "las" / "room-tile.las").string(),
        (sample / "e57" / "room-project.e57").string()};
    const auto run = [&](const fs::path& cache, std::vector<std::string> options, std::string& out)
    {
        std::vector<std::string> arguments = {"run", "--cache", cache.string(), "--threads", "2"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.insert(arguments.end(), project.begin(), project.end());
        std::string err;
        EXPECT_EQ(runPcprep(temp, arguments, &out, &err), 0) << err;
    };
    std::string out;
    const fs::path converted = temp.path() / "converted";
    run(converted, {"--convert-only"}, out);
    for (const bool pack : {false, true})
    {
        SCOPED_TRACE(pack ? "pack" : "folder");
        const fs::path cache = temp.path() / (pack ? "packed" : "hspc");
        run(cache, pack ? std::vector<std::string>{"--hspc", "--pack"} : std::vector<std::string>{"--hspc"}, out);
        const fs::path dataSet = pack ? cache / "cache.hspc.pack" : cache;
        EXPECT_NE(out.find("  data set " + (pack ? dataSet : cache / "queryTree.hspc").string()), std::string::npos)
            << out;
        EXPECT_NE(out.find("key file complete"), std::string::npos) << out;
        EXPECT_FALSE(fs::exists(cache / "temp"));
        for (const auto& entry : fs::directory_iterator(cache / "Data"))
            ADD_FAILURE() << "a scan file is left: " << entry.path();

        const pcp_test::DataSetContent content = pcp_test::readDataSetPoints(dataSet);
        const std::vector<pcp_test::DataSetPoint> expected =
            scanFilePoints(converted / "Data", content.tree.attributes.attributes);
        ASSERT_GT(expected.size(), 50000u);
        pcp_test::expectSamePointsLessDuplicates(expected, content.points);

        std::string err;
        EXPECT_EQ(runPcprep(temp, {"info", dataSet.string()}, &out, &err), 0) << err;
        EXPECT_NE(out.find("Points        " + std::to_string(content.points.size())), std::string::npos) << out;
        EXPECT_EQ(runPcprep(temp, {"verify", dataSet.string()}, &out, &err), 0) << out << err;
    }

    // Normals asked for: the scans with panoramas give their points the normals of their normal maps.
    const fs::path withNormals = temp.path() / "normals";
    std::string err;
    ASSERT_EQ(runPcprep(temp, {"run", "--hspc", "--normals", "--cache", withNormals.string(),
                               (sample / "ptx" / "room-scans.ptx").string()},
                        &out, &err),
              0)
        << err;
    const pcp_test::DataSetContent normals = pcp_test::readDataSetPoints(withNormals);
    const auto& attributes = normals.tree.attributes.attributes;
    EXPECT_TRUE(std::any_of(attributes.begin(), attributes.end(),
                            [](const HSPC::Attribute& a) { return a.name == "Normal"; }));
    const size_t withCode = size_t(std::count_if(normals.points.begin(), normals.points.end(),
                                                 [](const pcp_test::DataSetPoint& p) { return p.normal != 0; }));
    EXPECT_GT(withCode, normals.points.size() / 2) << "most points of a room lie on flat surfaces";

    // An octree cache out to a data set, as a folder and as one archive: the points of its leaves.
    const fs::path octree = temp.path() / "octree";
    run(octree, {}, out);
    for (const char* target : {"leaves.hspc", "leaves.hspc.pack"})
    {
        SCOPED_TRACE(target);
        const fs::path path = temp.path() / target;
        ASSERT_EQ(runPcprep(temp, {"export", octree.string(), path.string()}, &out, &err), 0) << err;
        EXPECT_NE(out.find("to the HSPC data set " + path.string()), std::string::npos) << out;
        EXPECT_FALSE(fs::exists(temp.path() / "leaves.hspc.pack.partial"));
        const pcp_test::DataSetContent content = pcp_test::readDataSetPoints(path);
        std::vector<pcp_test::DataSetPoint> leaves;
        forEachLeaf(octree / "Data", pc_preprocess::readVrm(pc_preprocess::toWide(octree / "cache.vrm")),
                    [&](const std::vector<pc_preprocess::IoLightPoint>& points)
                    {
                        for (const pc_preprocess::IoLightPoint& p : points)
                            leaves.push_back(pcp_test::dataSetPointOf(p, content.tree.attributes.attributes));
                    });
        pcp_test::expectSamePointsLessDuplicates(leaves, content.points);
        // An existing target is never overwritten.
        EXPECT_EQ(runPcprep(temp, {"export", octree.string(), path.string()}, &out, &err), 1);
        EXPECT_NE(err.find("already exists"), std::string::npos) << err;
    }
}
