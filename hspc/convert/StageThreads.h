// The threads of one conversion stage by role. Whatever happens, each thread started is joined before the
// stage returns: readers first, then workers, then writers, the order in which their work drains.
#pragma once

#include <thread>
#include <utility>
#include <vector>

namespace HSPC
{

class StageThreads
{
public:
    StageThreads() = default;
    ~StageThreads() { joinAll(); }

    StageThreads(const StageThreads&) = delete;
    StageThreads& operator=(const StageThreads&) = delete;

    template <typename Function>
    void start(std::vector<std::thread>& role, Function&& function)
    {
        role.emplace_back(std::forward<Function>(function));
    }

    void joinAll()
    {
        for (std::vector<std::thread>* role : {&readers, &workers, &writers})
        {
            for (std::thread& thread : *role)
            {
                if (thread.joinable())
                {
                    thread.join();
                }
            }
        }
    }

    std::vector<std::thread> readers;
    std::vector<std::thread> workers;
    std::vector<std::thread> writers;
};

}  // namespace HSPC
