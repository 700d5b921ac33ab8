#pragma once

#include <clocale>

namespace CFInternal {

// The "C" locale: numbers must not follow the host program's locale.
inline locale_t cLocale() noexcept {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

} // namespace CFInternal
