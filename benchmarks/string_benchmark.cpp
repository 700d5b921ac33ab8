// Short strings, of which opening a backup makes several for each file: their cost
// against the allocation and the copy that nothing can do without.
#include <CoreFoundation/CoreFoundation.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kPath = "Library/Application Support/Example/Documents/IMG_000123.PNG";

const UInt8 *pathBytes() { return reinterpret_cast<const UInt8 *>(kPath.data()); }

CFStringRef createPath() {
    return CFStringCreateWithBytes(kCFAllocatorDefault, pathBytes(),
                                   static_cast<CFIndex>(kPath.size()), kCFStringEncodingUTF8,
                                   false);
}

// The floor: memory for header, text and terminator, filled once.
void AllocateAndCopy(benchmark::State &state) {
    for (auto _ : state) {
        void *memory = std::malloc(24 + kPath.size() + 1);
        benchmark::DoNotOptimize(memory);
        std::memcpy(memory, kPath.data(), kPath.size());
        benchmark::ClobberMemory();
        std::free(memory);
    }
}
BENCHMARK(AllocateAndCopy);

void CreateAndRelease(benchmark::State &state) {
    for (auto _ : state) {
        CFRelease(createPath());
    }
}
BENCHMARK(CreateAndRelease);

void Hash(benchmark::State &state) {
    CFStringRef path = createPath();
    for (auto _ : state) {
        benchmark::DoNotOptimize(CFHash(path));
    }
    CFRelease(path);
}
BENCHMARK(Hash);

void Equal(benchmark::State &state) {
    CFStringRef path = createPath();
    CFStringRef other = createPath();
    for (auto _ : state) {
        benchmark::DoNotOptimize(CFEqual(path, other));
    }
    CFRelease(path);
    CFRelease(other);
}
BENCHMARK(Equal);

void RetainAndRelease(benchmark::State &state) {
    CFStringRef path = createPath();
    for (auto _ : state) {
        CFRetain(path);
        CFRelease(path);
    }
    CFRelease(path);
}
BENCHMARK(RetainAndRelease);

void Constant(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(CFSTR("constant"));
    }
}
BENCHMARK(Constant);

void Format(benchmark::State &state) {
    CFStringRef path = createPath();
    for (auto _ : state) {
        CFRelease(CFStringCreateWithFormat(kCFAllocatorDefault, nullptr, CFSTR("%@-%d %s"), path, 7,
                                           "text"));
    }
    CFRelease(path);
}
BENCHMARK(Format);

} // namespace

BENCHMARK_MAIN();
