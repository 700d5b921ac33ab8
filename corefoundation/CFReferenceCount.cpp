// Reference counting: atomic, saturating, and loud about misuse.
#include "corefoundation/CFAllocatorInternal.hpp"
#include "corefoundation/CFInternal.hpp"

#include <cstdlib>

namespace {

using namespace CFInternal;

std::uint64_t *infoOf(CFTypeRef cf) noexcept {
    return &const_cast<CFRuntimeBase *>(baseOf(cf))->_cfinfoa;
}

// What is no live object would be counted and later "freed": stop at the first use.
void requireLive(std::uint64_t info, const char *function) noexcept {
    if ((info & kLiveMask) != kLiveMark) [[unlikely]] {
        fatal(function, "not a live object (freed already?)");
    }
}

void finalizeInstance(CFTypeRef cf) noexcept {
    const CFRuntimeClass *cls = _CFRuntimeGetClassWithTypeID(typeIDOf(cf));
    if (cls != nullptr && cls->finalize != nullptr) {
        cls->finalize(cf);
    }
    deallocateInstance(cf);
}

// The count goes to zero before the finaliser runs, so that a release or retain of the
// dying object inside it aborts instead of freeing twice.
void destroy(CFTypeRef cf, std::uint64_t *info, std::uint64_t value) noexcept {
    __atomic_store_n(info, value & (kOneReference - 1), __ATOMIC_RELAXED);
    finalizeInstance(cf);
}

} // namespace

namespace CFInternal {

void makeImmortal(CFTypeRef cf) noexcept {
    std::uint64_t *info = infoOf(cf);
    const std::uint64_t value = __atomic_load_n(info, __ATOMIC_RELAXED);
    if (value >> 32 < kImmortalCount) {
        __atomic_store_n(info, (value & (kOneReference - 1)) | kImmortalCount << 32,
                         __ATOMIC_RELAXED);
    }
}

void deallocateInstance(CFTypeRef cf) noexcept {
    auto *base = const_cast<CFRuntimeBase *>(baseOf(cf));
    // Atomic, or the compiler would drop a store to memory that is about to be freed.
    __atomic_store_n(&base->_cfinfoa, std::uint64_t{0}, __ATOMIC_RELAXED);
    if (base->_cfisa == 0) {
        std::free(base);
        return;
    }
    const auto *allocator = reinterpret_cast<CFAllocatorRef>(base->_cfisa);
    if (static_cast<CFTypeRef>(allocator) == cf) {
        deallocateSelfHosted(allocator);
        return;
    }
    CFAllocatorDeallocate(allocator, base);
    CFRelease(allocator);
}

} // namespace CFInternal

CFTypeRef CFRetain(CFTypeRef cf) {
    if (cf == nullptr) {
        fatal(__func__, "null object");
    }
    std::uint64_t *info = infoOf(cf);
    std::uint64_t value = __atomic_load_n(info, __ATOMIC_RELAXED);
    requireLive(value, __func__);
    do {
        const std::uint64_t count = value >> 32;
        if (count >= kImmortalCount) {
            return cf;
        }
        if (count == 0) {
            fatal(__func__, "object is being finalized");
        }
    } while (!__atomic_compare_exchange_n(info, &value, value + kOneReference, true,
                                          __ATOMIC_RELAXED, __ATOMIC_RELAXED));
    return cf;
}

void CFRelease(CFTypeRef cf) {
    if (cf == nullptr) {
        fatal(__func__, "null object");
    }
    std::uint64_t *info = infoOf(cf);
    std::uint64_t value = __atomic_load_n(info, __ATOMIC_ACQUIRE);
    requireLive(value, __func__);
    for (;;) {
        const std::uint64_t count = value >> 32;
        if (count >= kImmortalCount) {
            return;
        }
        if (count == 0) {
            fatal(__func__, "released more often than retained");
        }
        if (count == 1) {
            // The only reference is ours: nobody else can be counting.
            destroy(cf, info, value);
            return;
        }
        if (__atomic_compare_exchange_n(info, &value, value - kOneReference, true, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
            return;
        }
    }
}

CFIndex CFGetRetainCount(CFTypeRef cf) {
    if (cf == nullptr) {
        fatal(__func__, "null object");
    }
    return static_cast<CFIndex>(__atomic_load_n(infoOf(cf), __ATOMIC_RELAXED) >> 32);
}
