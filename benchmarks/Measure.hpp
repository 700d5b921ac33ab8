// What the benchmarks share: clocks, medians, measuring in a process of its own, and
// where the data lies.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace measure {

// Processor time tells what the work costs even when neighbours share the machine.
struct Seconds {
    double wall = 0;
    double processor = 0;
};

inline double ProcessorSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <class Work>
Seconds Timed(Work &&work) {
    const double processor = ProcessorSeconds();
    const auto wall = std::chrono::steady_clock::now();
    work();
    const auto elapsed = std::chrono::steady_clock::now() - wall;
    return {std::chrono::duration<double>(elapsed).count(), ProcessorSeconds() - processor};
}

inline double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Times of the same work, round by round.
class Series {
  public:
    void Add(const Seconds &seconds) {
        wall_.push_back(seconds.wall);
        processor_.push_back(seconds.processor);
    }
    double Wall() const { return Median(wall_); }
    double Processor() const { return Median(processor_); }

  private:
    std::vector<double> wall_;
    std::vector<double> processor_;
};

// VmRSS of this process.
inline std::size_t ResidentBytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stoul(line.substr(line.find(':') + 1)) * 1024;
        }
    }
    throw std::runtime_error("/proc/self/status tells no VmRSS");
}

// Runs the work in a child, so that it starts from an untouched heap as a tool does, and
// gives back what it returns.
template <class Work>
auto InChild(Work &&work) {
    using Result = std::invoke_result_t<Work>;
    static_assert(std::is_trivially_copyable_v<Result>);
    int ends[2];
    if (::pipe(ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const ::pid_t child = ::fork();
    if (child == 0) {
        const Result result = work();
        const bool sent = ::write(ends[1], &result, sizeof result) == sizeof result;
        ::_exit(sent ? 0 : 1);
    }
    ::close(ends[1]);
    Result result{};
    const bool received = ::read(ends[0], &result, sizeof result) == sizeof result;
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!received || status != 0) {
        throw std::runtime_error("the measuring process failed");
    }
    return result;
}

// $KELVANE_BENCH_DIR or a directory in memory, so that no disk is measured.
inline std::string DataDirectory() {
    const char *chosen = std::getenv("KELVANE_BENCH_DIR");
    const std::string directory = chosen == nullptr ? "/dev/shm/kvbench" : chosen;
    if (std::system(("mkdir -p -m 700 '" + directory + "'").c_str()) != 0) {
        throw std::runtime_error("cannot make " + directory);
    }
    return directory;
}

inline long NumberFromEnvironment(const char *name, long otherwise) {
    const char *text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtol(text, nullptr, 10);
}

} // namespace measure
