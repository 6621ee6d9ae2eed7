// Queries of a finished HSPC data set, timed for bench/hspc_query_run.sh: every point through a whole-box
// query (positions as I32 cells and as F64 reals, with every stored attribute), and a box of 1 % of the
// area in the middle of the data set, from a warm page cache (one untimed run first, then the median of
// five). One line of figures per query on standard output.
//
// Usage: hspc_query DATASET_FOLDER [--threads N]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hspc/query/QueryExecutor.h"

using namespace HSPC;

namespace
{

using Clock = std::chrono::steady_clock;

struct Timed
{
    double seconds = 0.0;
    uint64_t points = 0;
};

Timed timeQuery(QueryExecutor& executor, const QueryRequest& request)
{
    std::atomic<uint64_t> points{0};
    const Clock::time_point start = Clock::now();
    const bool ok = executor.query(request,
                                   [&](const QueryNodeRecords& node)
                                   {
                                       points += node.pointCount;
                                       return true;
                                   });
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!ok)
    {
        std::fprintf(stderr, "the query failed\n");
        std::exit(1);
    }
    return {seconds, points.load()};
}

// The stored attributes after the position in `positionType`.
std::vector<Attribute> layoutWith(const QueryExecutor& executor, uint8_t positionType)
{
    DataSetInfo info;
    if (!executor.getInfo(positionType, info))
    {
        std::exit(1);
    }
    return info.attributes;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        std::fprintf(stderr, "usage: hspc_query DATASET_FOLDER [--threads N]\n");
        return 2;
    }
    QueryConfig config;
    config.path = argv[1];
    config.workerCount = 2;
    for (int i = 2; i + 1 < argc; i += 2)
    {
        if (std::strcmp(argv[i], "--threads") == 0)
            config.workerCount = uint32_t(std::atoi(argv[i + 1]));
    }
    QueryExecutor executor;
    if (!openQueryExecutor(executor, config, false))
    {
        return 1;
    }
    DataSetInfo info;
    executor.getInfo(AttributeType::F64, info);

    for (const uint8_t positionType : {AttributeType::I32, AttributeType::F64})
    {
        if (!executor.updateAttributeLayout(layoutWith(executor, positionType)))
        {
            return 1;
        }
        timeQuery(executor, {});  // warms the page cache
        const Timed whole = timeQuery(executor, {});
        std::printf("whole box, %s positions, %u threads: %llu points in %.3f s, %.2f M points/s\n",
                    positionType == AttributeType::I32 ? "I32" : "F64", config.workerCount,
                    static_cast<unsigned long long>(whole.points), whole.seconds, whole.points / whole.seconds / 1e6);
    }

    // 1 % of the area: a tenth of each horizontal extent around the middle, all heights.
    std::array<double, 6> box{};
    for (unsigned axis = 0; axis < 2; ++axis)
    {
        const double middle = (info.boxMin[axis] + info.boxMax[axis]) / 2;
        const double half = (info.boxMax[axis] - info.boxMin[axis]) / 20;
        box[axis] = middle - half;
        box[axis + 3] = middle + half;
    }
    box[2] = info.boxMin[2];
    box[5] = info.boxMax[2];
    const QueryRequest request{box, {}, 0};
    timeQuery(executor, request);
    std::vector<double> runs;
    uint64_t points = 0;
    for (int run = 0; run < 5; ++run)
    {
        const Timed timed = timeQuery(executor, request);
        runs.push_back(timed.seconds);
        points = timed.points;
    }
    std::sort(runs.begin(), runs.end());
    std::printf("1 %% box, F64 positions: %llu points in %.1f ms (median of 5)\n",
                static_cast<unsigned long long>(points), runs[2] * 1e3);
    return 0;
}
