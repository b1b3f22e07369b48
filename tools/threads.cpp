#include "tools/threads.h"

#include "tools/interrupt.h"

#include "rastkit/formats.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sched.h>
#include <string>

namespace tool {

namespace {

constexpr int mostThreads = 256;

/// A number from 1 to mostThreads in the environment; 0 when there is none.
int numberInEnvironment(const char* name)
{
    const char* const text = std::getenv(name);
    if (!text)
        return 0;
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    return end != text && *end == '\0' && number >= 1 ? int(std::min<long>(number, mostThreads)) : 0;
}

int countProcessors()
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    return sched_getaffinity(0, sizeof processors, &processors) == 0 ? std::max(CPU_COUNT(&processors), 1)
                                                                     : 1;
}

/// Two numbers of a file of the group file system; false where it says that there is no limit.
bool readQuota(const std::string& folder, double& quota, double& period)
{
    std::ifstream both(folder + "/cpu.max"); // Version 2. "max" instead of a quota is no number.
    if (both)
        return static_cast<bool>(both >> quota >> period);
    std::ifstream first(folder + "/cpu.cfs_quota_us"), second(folder + "/cpu.cfs_period_us"); // Version 1.
    return (first >> quota) && (second >> period) && quota > 0;
}

/// How many processors' time the group at `path` below `root`, and those above it, may use.
double countByQuota(const std::string& root, std::string path)
{
    double fewest = mostThreads;
    while (true) {
        double quota = 0, period = 0;
        if (readQuota(root + path, quota, period) && period > 0)
            fewest = std::min(fewest, quota / period);
        const std::size_t slash = path.rfind('/');
        if (path.empty() || slash == std::string::npos)
            return fewest;
        path.resize(slash);
    }
}

/// The least of all groups that count processor time; mostThreads when there is no limit.
int countByQuota()
{
    double fewest = mostThreads;
    std::ifstream groups("/proc/self/cgroup"); // Lines "number:controllers:/path".
    for (std::string line; std::getline(groups, line);) {
        const std::size_t first = line.find(':'), second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos)
            continue;
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const bool countsTime = (',' + controllers + ',').find(",cpu,") != std::string::npos;
        if (controllers.empty() || countsTime)
            fewest = std::min(fewest,
                countByQuota(
                    controllers.empty() ? "/sys/fs/cgroup" : "/sys/fs/cgroup/cpu", line.substr(second + 1)));
    }
    return std::max(int(fewest), 1);
}

} // namespace

int countThreads()
{
    for (const char* const name : { "RASTKIT_THREADS", "SLURM_CPUS_PER_TASK" })
        if (const int number = numberInEnvironment(name))
            return number;
    return std::min({ countProcessors(), countByQuota(), mostThreads });
}

void useThreads()
{
    useThreads(0);
}

void useThreads(int wanted)
{
    const int count = wanted > 0 ? wanted : countThreads();
    // The threads inherit it: were they to take a signal while the program's own thread holds it back, the
    // program would end between the making of a file and its being watched.
    const SignalBlock block;
    setThreadCount(count > 1 ? count : 0);
}

} // namespace tool
