#pragma once

#include <algorithm>
#include <cstddef>

#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>

// The number of threads the parallel builds take, made in one place for both pipelines.
class mrThreadCount
{
public:
    // The cores of the process's affinity mask.
    static int available() { return std::max(1, tbb::info::default_concurrency()); }

    // A build's thread count as asked for (0 or less: every core available), no more than
    // the process lets the thread pool have (the cores, unless the program set another
    // limit): more would only wait for each other.
    static int resolve(int threads)
    {
        if (threads <= 0)
            threads = available();
        return (int)std::min<size_t>((size_t)threads,
                                     tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism));
    }
};
