#pragma once

#include <csignal>

namespace pcprep
{

// Turns the first Ctrl-C into a request the main loop sees, so the run can be cancelled the way a host does
// it; a second Ctrl-C ends the process as usual. The previous handling comes back with the object's end.
class InterruptWatch
{
public:
    InterruptWatch();
    ~InterruptWatch();
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;

    bool requested() const;

private:
    struct sigaction m_previous;
};

}  // namespace pcprep
