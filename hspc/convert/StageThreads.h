// The threads of one conversion stage, by role. Whatever happens, every thread started is joined before the
// stage returns: when the owner leaves by an exception (a thread that could not be started), the destructor
// joins what did start.
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

    // Raises std::system_error when the platform cannot start the thread.
    template <typename Function>
    void start(std::vector<std::thread>& role, Function&& function)
    {
        role.emplace_back(std::forward<Function>(function));
    }

    // Readers first, then workers, then writers: each role ends once the one before it has.
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
