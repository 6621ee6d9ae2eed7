#include "pcprep/InterruptWatch.h"

namespace pcprep
{

namespace
{

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void onInterrupt(int)
{
    g_interrupted = 1;
}

}  // namespace

InterruptWatch::InterruptWatch()
{
    g_interrupted = 0;
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;  // the second Ctrl-C meets the default handling
    sigaction(SIGINT, &action, &m_previous);
}

InterruptWatch::~InterruptWatch()
{
    sigaction(SIGINT, &m_previous, nullptr);
}

bool InterruptWatch::requested() const
{
    return g_interrupted != 0;
}

}  // namespace pcprep
