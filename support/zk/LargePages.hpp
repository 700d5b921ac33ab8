// An allocator for tables of many megabytes that are filled at once.
#pragma once

#include <cstddef>
#include <limits>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace ZK {

// Asks the system to back what is large with large pages: a new table is then there after a
// few page faults instead of thousands, which take longer than filling it, and looking
// something up in it misses the address cache less. Small blocks, and systems that do not
// know this, get plain memory.
template <class T>
class LargePageAllocator {
  public:
    using value_type = T;

    LargePageAllocator() noexcept = default;
    template <class U>
    LargePageAllocator(const LargePageAllocator<U> &) noexcept {}

    // Throws std::bad_alloc.
    T *allocate(std::size_t count) {
        if (count > (std::numeric_limits<std::size_t>::max() - kPage) / sizeof(T)) {
            throw std::bad_array_new_length();
        }
        if (!IsLarge(count)) {
            return static_cast<T *>(::operator new(count * sizeof(T)));
        }
        const std::size_t size = (count * sizeof(T) + kPage - 1) / kPage * kPage;
        void *const memory = ::operator new (size, std::align_val_t{kPage});
#if defined(MADV_HUGEPAGE)
        // Advice: nothing is lost when the system does not take it.
        (void)::madvise(memory, size, MADV_HUGEPAGE);
#endif
        return static_cast<T *>(memory);
    }
    void deallocate(T *memory, std::size_t count) noexcept {
        if (IsLarge(count)) {
            ::operator delete (memory, std::align_val_t{kPage});
        } else {
            ::operator delete(memory);
        }
    }

    template <class U>
    bool operator==(const LargePageAllocator<U> &) const noexcept {
        return true;
    }

  private:
    // Of the common processors.
    static constexpr std::size_t kPage = std::size_t{2} << 20;
    static bool IsLarge(std::size_t count) noexcept { return count * sizeof(T) >= kPage; }
};

} // namespace ZK
