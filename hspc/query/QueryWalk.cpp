// The walk of a query: lod by lod from the root, every node whose box meets the query box goes to the
// pipeline, and its children are looked at next unless the lod limit or the point budget says stop.
#include <bit>
#include <cmath>

#include "hspc/query/QueryExecutorPrivate.h"
#include "hspc/query/QueryOutputTree.h"
#include "hspc/query/QueryRuns.h"

namespace HSPC
{
namespace
{

enum class BoxRelation
{
    kOutside,
    kInside,
    kCrossing,
};

BoxRelation relationTo(const std::array<double, 6>& node, const std::optional<std::array<double, 6>>& query)
{
    if (!query)
    {
        return BoxRelation::kInside;
    }
    const std::array<double, 6>& box = *query;
    bool inside = true;
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        if (node[axis + 3] < box[axis] || node[axis] > box[axis + 3])
        {
            return BoxRelation::kOutside;
        }
        inside = inside && box[axis] <= node[axis] && node[axis + 3] <= box[axis + 3];
    }
    return inside ? BoxRelation::kInside : BoxRelation::kCrossing;
}

bool isValidQueryBox(const std::array<double, 6>& box)
{
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        if (std::isnan(box[axis]) || std::isnan(box[axis + 3]) || box[axis] > box[axis + 3])
        {
            return false;
        }
    }
    return true;
}

class QueryWalk
{
public:
    QueryWalk(const QueryExecutorPrivate& executor, const QueryRequest& request, std::shared_ptr<QueryRunBase> run)
        : executor_(executor), request_(request), run_(std::move(run))
    {
    }

    // Hands every chosen node to the pipeline and waits for all of them to come out.
    void walk()
    {
        QueryDataHandler& handler = *executor_.handler;
        std::vector<uint32_t> level;
        if (!executor_.tree.nodes.empty())
        {
            level.push_back(0);
        }
        while (!level.empty() && !run_->stopped())
        {
            std::vector<uint32_t> next;
            for (const uint32_t index : level)
            {
                if (!visit(index, next))
                {
                    break;
                }
            }
            // A budget is measured in points delivered, so each lod is finished before the next is chosen.
            if (request_.pointBudget > 0)
            {
                handler.waitForAll(*run_);
                if (run_->pointsDelivered() >= request_.pointBudget)
                {
                    break;
                }
            }
            level = std::move(next);
        }
        handler.waitForAll(*run_);
    }

    const std::vector<uint32_t>& visited() const { return visited_; }

private:
    // False when the query was cancelled.
    bool visit(uint32_t index, std::vector<uint32_t>& next)
    {
        const QueryConfig& config = executor_.configuration;
        if (run_->stopped() || (config.cancelRequested && config.cancelRequested()))
        {
            run_->markCancelled();
            return false;
        }
        const TreeNode& node = executor_.tree.nodes[index];
        if (!hasValidBox(node))
        {
            return true;  // nothing in it or below it
        }
        const BoxRelation relation = relationTo(executor_.realBoxOf(index, node.min, node.max), request_.box);
        if (relation == BoxRelation::kOutside)
        {
            return true;
        }
        visited_.push_back(index);
        // A node without points has no block; the reduced form's counts are estimates, so there every node
        // is read.
        if (node.pointCount > 0 || executor_.form != TreeForm::kFull)
        {
            queue(index, relation == BoxRelation::kCrossing);
        }
        const uint8_t minLod = request_.minLod.value_or(0);
        const unsigned children = unsigned(std::popcount(node.childMask));
        for (unsigned child = 0; child < children; ++child)
        {
            if (executor_.lods[node.link + child] >= minLod)
            {
                next.push_back(node.link + child);
            }
        }
        return true;
    }

    void queue(uint32_t index, bool cut)
    {
        QueryDataHandler& handler = *executor_.handler;
        const uint64_t perPoint = uint64_t(run_->layout().recordSize) + recordSize(executor_.storedAttributes());
        const uint64_t bytes = std::max<uint64_t>(1, uint64_t(executor_.tree.nodes[index].pointCount) * perPoint);
        handler.waitForRoom(*run_, bytes);
        if (run_->stopped())
        {
            return;
        }
        const GeometricFilterTraversalNode node{index, executor_.lods[index], executor_.corners[index], cut};
        run_->nodesQueued.fetch_add(1);
        handler.pushToInput(QueryReadNode{run_, node, index, bytes, {}});
    }

    const QueryExecutorPrivate& executor_;
    const QueryRequest& request_;
    std::shared_ptr<QueryRunBase> run_;
    std::vector<uint32_t> visited_;
};

}  // namespace

bool QueryExecutorPrivate::runQuery(const QueryRequest& request, const QueryRecordSink* sink, RootWriter* writer)
{
    if (!initialized)
    {
        reportTo(configuration.errorLogger, "QueryExecutor::query: error : no data set is open.");
        return false;
    }
    if (!handler)
    {
        error("QueryExecutor::query: error : the executor was opened passive; a query needs its pipeline.");
        return false;
    }
    if (request.box && !isValidQueryBox(*request.box))
    {
        error("QueryExecutor::query: error : the query box is not a box: each minimum must be a number no larger "
              "than its maximum.");
        return false;
    }
    std::shared_ptr<QueryRunBase> run;
    DataSetWriteRun* writeRun = nullptr;
    if (sink)
    {
        run = std::make_shared<RecordSinkRun>(*this, currentLayout(), request.box, *sink);
    }
    else
    {
        auto written = std::make_shared<DataSetWriteRun>(*this, request.box, *writer);
        writeRun = written.get();
        run = std::move(written);
    }
    QueryWalk walk(*this, request, run);
    walk.walk();
    if (run->failed())
    {
        return false;
    }
    if (run->stopped())
    {
        info("QueryExecutor::query: the query was cancelled.");
        return false;
    }
    std::string reason;
    if (writeRun && !writeQueryTrees(*this, walk.visited(), writeRun->keptNodes(), *writer, reason))
    {
        error(reason);
        return false;
    }
    return true;
}

}  // namespace HSPC
