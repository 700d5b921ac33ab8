// Runs the same work on several threads that start together.
#pragma once

#include <exception>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace threads_tests {

// More threads than processors, so that they are also interrupted half-way.
inline constexpr int kThreads = 6;

// Calls work(0) to work(count - 1), each on a thread of its own; none begins before all are there.
inline void AtOnce(const std::function<void(int)> &work, int count = kThreads) {
    std::latch start(count);
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int number = 0; number < count; ++number) {
        threads.emplace_back([&, number] {
            start.arrive_and_wait();
            try {
                work(number);
            } catch (const std::exception &exception) {
                ADD_FAILURE() << "thread " << number << ": " << exception.what();
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

} // namespace threads_tests
