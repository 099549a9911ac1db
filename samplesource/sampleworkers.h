// Work on the finished samples of a run that touches each sample's own
// trees only, spread over a few threads.
#ifndef ZOR_SAMPLEWORKERS_H
#define ZOR_SAMPLEWORKERS_H

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

// Calls work(index, worker) once for each index below count, on up to
// `workers` threads, this one (worker 0) among them. Indices are handed
// out a few at a time, so that a slow stretch doesn't hold the others up.
// The first exception ends the work and is thrown again here once every
// thread has stopped. A thread that can't be started leaves its share to
// the others.
template <typename Work>
void runOnSampleWorkers(std::size_t count, int workers, const Work& work)
{
    const std::size_t step = 8;
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    std::mutex failureMutex;
    std::exception_ptr failure;
    const auto loop = [&](int worker) {
        try {
            while (!failed.load(std::memory_order_relaxed)) {
                const std::size_t begin = next.fetch_add(step, std::memory_order_relaxed);
                if (begin >= count)
                    return;
                for (std::size_t i = begin; i < std::min(count, begin + step); ++i)
                    work(i, worker);
            }
        } catch (...) {
            std::lock_guard<std::mutex> lock(failureMutex);
            if (!failure)
                failure = std::current_exception();
            failed.store(true, std::memory_order_relaxed);
        }
    };
    std::vector<std::thread> helpers;
    for (int w = 1; w < workers && count > step; ++w) {
        try {
            helpers.emplace_back(loop, w);
        } catch (const std::exception&) {
            break;
        }
    }
    loop(0);
    for (std::thread& helper : helpers)
        helper.join();
    if (failure)
        std::rethrow_exception(failure);
}

#endif
